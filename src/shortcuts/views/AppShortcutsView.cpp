#include "shortcuts/views/AppShortcutsView.h"

#include "platform/Workspace.h"
#include "shortcuts/AppShortcuts.h"
#include "shortcuts/HotKeys.h"
#include "shortcuts/views/ShortcutRecorder.h"

#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

namespace zuv {

namespace {

QIcon iconOf(const Workspace::App &app)
{
    if (app.icon.isEmpty())
        return QIcon::fromTheme(QStringLiteral("application-x-executable"));
    if (QFileInfo(app.icon).isAbsolute())
        return QIcon(app.icon);
    return QIcon::fromTheme(app.icon, QIcon::fromTheme(QStringLiteral("application-x-executable")));
}

} // namespace

AppShortcutsView::AppShortcutsView(AppShortcuts &shortcuts, HotKeys &hotKeys, const Keyboard &keyboard,
                                   Workspace &workspace, QWidget *parent)
    : QWidget(parent), m_shortcuts(shortcuts), m_hotKeys(hotKeys), m_keyboard(keyboard), m_workspace(workspace)
{
    auto *layout = new QVBoxLayout(this);
    auto *title = new QLabel(tr("App Shortcuts"), this);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    layout->addWidget(title);
    auto *explanation = new QLabel(
        tr("Press a shortcut anywhere to open its app or bring it to the front. Zuv catches it before other apps do, "
           "so a shortcut like Super+K no longer reaches the app you're in; combinations with Ctrl or Alt are less "
           "likely to clash. If another launcher has the same shortcuts, quit it."),
        this);
    explanation->setWordWrap(true);
    layout->addWidget(explanation);
    if (!m_hotKeys.problem().isEmpty()) {
        auto *problem = new QLabel(QStringLiteral("⚠ ") + m_hotKeys.problem(), this);
        problem->setWordWrap(true);
        problem->setObjectName(QStringLiteral("problem"));
        layout->addWidget(problem);
    }
    m_empty = new QLabel(tr("No app shortcuts yet."), this);
    layout->addWidget(m_empty);
    m_rows = new QVBoxLayout;
    layout->addLayout(m_rows);
    auto *add = new QPushButton(tr("Add App…"), this);
    add->setObjectName(QStringLiteral("addApp"));
    connect(add, &QPushButton::clicked, this, &AppShortcutsView::chooseApp);
    layout->addWidget(add, 0, Qt::AlignLeft);
    m_hide = new QCheckBox(tr("Press again to hide the app"), this);
    m_hide->setChecked(m_shortcuts.hideWhenFront());
    connect(m_hide, &QCheckBox::toggled, &m_shortcuts, &AppShortcuts::setHideWhenFront);
    layout->addWidget(m_hide);
    auto *note = new QLabel(tr("When the app is already in front, its shortcut hides it, so one key switches to it and back."),
                            this);
    note->setWordWrap(true);
    layout->addWidget(note);
    layout->addStretch();
    connect(&m_shortcuts, &AppShortcuts::changed, this, &AppShortcutsView::rebuild);
    rebuild();
}

void AppShortcutsView::rebuild()
{
    // Not while a row records: its recorder must stay the one with the focus.
    if (std::any_of(m_recorders.begin(), m_recorders.end(), [](const auto &r) { return r.second->recording(); }))
        return;
    while (QLayoutItem *item = m_rows->takeAt(0)) {
        if (QWidget *w = item->widget())
            w->deleteLater();
        delete item;
    }
    m_recorders.clear();
    m_empty->setVisible(m_shortcuts.items().empty());
    m_hide->setChecked(m_shortcuts.hideWhenFront());
    for (const AppShortcuts::Item &item : m_shortcuts.items()) {
        auto *row = new QWidget(this);
        auto *line = new QHBoxLayout(row);
        line->setContentsMargins(0, 0, 0, 0);
        std::optional<Workspace::App> app;
        if (item.bundleID)
            app = m_workspace.application(*item.bundleID);
        if (!app)
            app = m_workspace.applicationAt(item.path);
        auto *icon = new QLabel(row);
        icon->setPixmap(iconOf(app.value_or(Workspace::App{})).pixmap(24, 24));
        line->addWidget(icon);
        line->addWidget(new QLabel(item.name, row), 1);
        if (m_shortcuts.refused().contains(item.id)) {
            auto *warning = new QLabel(tr("⚠ Not available"), row);
            warning->setToolTip(tr("The desktop didn't accept this shortcut. Choose another one."));
            warning->setObjectName(QStringLiteral("refused"));
            line->addWidget(warning);
        }
        auto *recorder = new ShortcutRecorder(m_hotKeys, m_keyboard, row);
        recorder->setCombo(item.combo);
        const QUuid id = item.id;
        connect(recorder, &ShortcutRecorder::changed, this,
                [this, id](const std::optional<KeyCombo> &c) { combo(id, c); });
        line->addWidget(recorder);
        auto *remove = new QToolButton(row);
        remove->setIcon(QIcon::fromTheme(QStringLiteral("list-remove")));
        remove->setText(QStringLiteral("−"));
        remove->setToolTip(tr("Remove"));
        remove->setAutoRaise(true);
        connect(remove, &QToolButton::clicked, this, [this, id] { m_shortcuts.remove(id); });
        line->addWidget(remove);
        m_rows->addWidget(row);
        m_recorders.emplace_back(id, recorder);
    }
}

ShortcutRecorder *AppShortcutsView::recorder(const QUuid &id) const
{
    for (const auto &[item, recorder] : m_recorders)
        if (item == id)
            return recorder;
    return nullptr;
}

void AppShortcutsView::combo(const QUuid &id, const std::optional<KeyCombo> &combo)
{
    const auto owner = m_shortcuts.setCombo(combo, id);
    if (!owner)
        return;
    // Taken: the row keeps its old combo, and the person is told by whom.
    for (const AppShortcuts::Item &item : m_shortcuts.items())
        if (item.id == id)
            if (ShortcutRecorder *r = recorder(id))
                r->setCombo(item.combo);
    const QString text = tr("%1 already uses this shortcut.").arg(*owner);
    emit conflictShown(text);
    QMessageBox box(QMessageBox::Warning, tr("Shortcut in use"), text, QMessageBox::Ok, this);
    box.exec();
}

void AppShortcutsView::addApp(const QString &path)
{
    const QUuid id = m_shortcuts.add(path);
    rebuild();
    if (ShortcutRecorder *r = recorder(id))
        r->setRecording(true); // the new application is bound at once
}

void AppShortcutsView::chooseApp()
{
    // The installed applications, with their icons and names, rather than a file dialog.
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Add App"));
    auto *layout = new QVBoxLayout(&dialog);
    auto *filter = new QLineEdit(&dialog);
    filter->setPlaceholderText(tr("Search"));
    layout->addWidget(filter);
    auto *list = new QListWidget(&dialog);
    std::vector<Workspace::App> apps = m_workspace.installed();
    std::sort(apps.begin(), apps.end(),
              [](const Workspace::App &a, const Workspace::App &b) { return a.name.localeAwareCompare(b.name) < 0; });
    for (const Workspace::App &app : apps) {
        auto *row = new QListWidgetItem(iconOf(app), app.name, list);
        row->setData(Qt::UserRole, app.path);
    }
    layout->addWidget(list);
    connect(filter, &QLineEdit::textChanged, list, [list](const QString &text) {
        for (int i = 0; i < list->count(); ++i)
            list->item(i)->setHidden(!list->item(i)->text().contains(text, Qt::CaseInsensitive));
    });
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, &dialog);
    QPushButton *add = buttons->addButton(tr("Add"), QDialogButtonBox::AcceptRole);
    add->setEnabled(false);
    connect(list, &QListWidget::currentItemChanged, add, [add](QListWidgetItem *item) { add->setEnabled(item); });
    connect(list, &QListWidget::itemActivated, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    layout->addWidget(buttons);
    if (dialog.exec() != QDialog::Accepted || !list->currentItem())
        return;
    addApp(list->currentItem()->data(Qt::UserRole).toString());
}

} // namespace zuv

#include "clipboard/views/ClipWindow.h"

#include "base/Defaults.h"
#include "base/Job.h"
#include "clipboard/views/ClipPreview.h"
#include "clipboard/views/ClipRowDelegate.h"
#include "platform/Workspace.h"

#include <QApplication>
#include <QCheckBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QInputMethodEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollBar>
#include <QSizeGrip>
#include <QVBoxLayout>
#include <QWindow>

namespace zuv {

namespace {

// A footer row: its label on the left, its shortcut on the right.
QPushButton *footerRow(QWidget *parent)
{
    auto *row = new QPushButton(parent);
    row->setFlat(true);
    row->setFocusPolicy(Qt::NoFocus);
    row->setFixedHeight(24);
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(10, 0, 10, 0);
    for (const char *name : {"label", "shortcut"}) {
        auto *text = new QLabel(row);
        text->setObjectName(QLatin1String(name));
        text->setAttribute(Qt::WA_TransparentForMouseEvents);
        layout->addWidget(text, name[0] == 'l' ? 1 : 0);
    }
    row->findChild<QLabel *>(QStringLiteral("shortcut"))->setForegroundRole(QPalette::PlaceholderText);
    return row;
}

void setFooterText(QPushButton *row, const QString &label, const QString &shortcut)
{
    row->findChild<QLabel *>(QStringLiteral("label"))->setText(label);
    row->findChild<QLabel *>(QStringLiteral("shortcut"))->setText(shortcut);
}

} // namespace

ClipWindow::ClipWindow(ClipboardPanel &panel, ClipboardHistory &history, Defaults &defaults, Workspace &workspace,
                       QWidget *parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint), m_panel(panel),
      m_history(history), m_defaults(defaults), m_workspace(workspace), m_model(panel, history)
{
    setObjectName(QStringLiteral("clipboardPanel"));
    setWindowTitle(tr("Clipboard History"));
    setMinimumSize(300, 200);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(6, 8, 6, 4);
    layout->setSpacing(4);

    auto *searchRow = new QHBoxLayout;
    m_search = new QLineEdit(this);
    m_search->setPlaceholderText(tr("Type to search…"));
    m_search->setClearButtonEnabled(false);
    m_search->addAction(QIcon::fromTheme(QStringLiteral("edit-find")), QLineEdit::LeadingPosition);
    m_paused = new QLabel(tr("Paused"), this);
    m_paused->setToolTip(tr("Copies aren't being kept. Resume below or in Settings."));
    searchRow->addWidget(m_search, 1);
    searchRow->addWidget(m_paused);
    layout->addLayout(searchRow);

    m_list = new QListView(this);
    m_list->setModel(&m_model);
    m_delegate = new ClipRowDelegate(defaults, history, this);
    m_delegate->hintPrefix = [this] { return hintPrefix(); };
    m_delegate->appIcon = [this](qint64 id) {
        const auto clip = clipOf(id);
        if (!clip || !clip->app)
            return QIcon();
        if (*clip->app == QLatin1String("zuv.iphone"))
            return QIcon::fromTheme(QStringLiteral("phone"));
        const auto app = m_workspace.application(*clip->app);
        if (!app || app->icon.isEmpty())
            return QIcon();
        // An entry names an icon of the theme, or a file.
        return app->icon.startsWith(QLatin1Char('/')) ? QIcon(app->icon) : QIcon::fromTheme(app->icon);
    };
    m_list->setItemDelegate(m_delegate);
    m_list->setSelectionMode(QAbstractItemView::NoSelection);
    m_list->setFocusPolicy(Qt::NoFocus);
    m_list->setMouseTracking(true);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->viewport()->installEventFilter(this);
    layout->addWidget(m_list, 1);
    connect(m_delegate, &ClipRowDelegate::thumbnailArrived, this, [this](qint64 id) {
        const int row = m_model.rowOf(id);
        if (row >= 0)
            m_list->update(m_model.index(row));
    });
    connect(m_list, &QListView::customContextMenuRequested, this, [this](const QPoint &at) {
        const QModelIndex index = m_list->indexAt(at);
        if (index.isValid())
            openMenu(index.data(ClipListModel::ClipIdRole).toLongLong(), m_list->viewport()->mapToGlobal(at));
    });

    m_empty = new QLabel(this);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(m_empty);

    m_footer = new QWidget(this);
    auto *footer = new QVBoxLayout(m_footer);
    footer->setContentsMargins(0, 0, 0, 0);
    footer->setSpacing(0);
    m_clear = footerRow(m_footer);
    m_clear->setToolTip(tr("Deletes everything but the pinned items. Hold Shift to delete those too."));
    connect(m_clear, &QPushButton::clicked, this, [this] {
        m_panel.confirmClear(QGuiApplication::queryKeyboardModifiers() & Qt::ShiftModifier);
    });
    m_pause = footerRow(m_footer);
    m_pause->setToolTip(tr("Stops keeping copies until you resume. Hold Alt to skip only the next copy (a password, say)."));
    connect(m_pause, &QPushButton::clicked, this, [this] {
        if (m_history.paused()) {
            m_history.setPaused(false);
        } else if (QGuiApplication::queryKeyboardModifiers() & Qt::AltModifier) {
            m_history.setIgnoreNext(true);
            m_panel.close();
        } else {
            m_history.setPaused(true);
        }
        updateFooter();
    });
    m_settings = footerRow(m_footer);
    connect(m_settings, &QPushButton::clicked, this, [this] { m_panel.openSettings(); });
    footer->addWidget(m_clear);
    footer->addWidget(m_pause);
    footer->addWidget(m_settings);
    layout->addWidget(m_footer);
    // Over the corner, outside the layout, so that it costs no height.
    m_grip = new QSizeGrip(this);
    m_grip->resize(m_grip->sizeHint());

    m_preview = new ClipPreview(panel, history, workspace);
    m_search->installEventFilter(this);
    connect(m_search, &QLineEdit::textEdited, this, [this](const QString &text) { m_panel.setQuery(text); });
    connect(&m_panel, &ClipboardPanel::changed, this, &ClipWindow::refresh);
    connect(&m_history, &ClipboardHistory::clipsChanged, this, [this] { m_dirty = true; });
    connect(qApp, &QApplication::focusWindowChanged, this, [this](QWindow *focus) {
        // Handed on a turn of the loop, so that the preview can take the keyboard.
        QMetaObject::invokeMethod(this, [this, focus] {
            const QWindow *now = QGuiApplication::focusWindow();
            if (now && (now == windowHandle() || now == m_preview->windowHandle()))
                return;
            if (QApplication::activePopupWidget())
                return; // a menu of the panel's own
            Q_UNUSED(focus);
            if (QWidget::isVisible())
                m_panel.focusLost();
        }, Qt::QueuedConnection);
    });
}

ClipWindow::~ClipWindow() { delete m_preview; }

void ClipWindow::present(const QRect &frame)
{
    m_placing = true;
    setGeometry(frame);
    m_placing = false;
    m_dirty = true;
    refresh();
    show();
    // At each showing: Qt writes the window's state afresh when it maps it.
    m_workspace.keepOutOfTaskbar(quint32(winId()));
    raise();
    activateWindow();
    m_search->setFocus();
}

void ClipWindow::setFrame(const QRect &frame)
{
    m_placing = true;
    setGeometry(frame);
    m_placing = false;
}

void ClipWindow::hide()
{
    m_preview->hide();
    QWidget::hide();
}

void ClipWindow::showPreview(const QRect &frame)
{
    const auto rows = m_model.rows();
    const auto clip = m_panel.current(rows);
    if (!clip)
        return;
    m_preview->showClip(*clip);
    m_preview->setGeometry(frame);
    m_preview->show();
    m_preview->raise();
}

void ClipWindow::hidePreview()
{
    const bool had = m_preview->isActiveWindow();
    m_preview->hide();
    if (had && QWidget::isVisible())
        activateWindow();
}

std::pair<bool, bool> ClipWindow::confirm(const QString &message, const QString &information)
{
    QMessageBox box(QMessageBox::Warning, tr("Clipboard History"), message, QMessageBox::NoButton, this);
    box.setInformativeText(information);
    QPushButton *clear = box.addButton(tr("Clear"), QMessageBox::DestructiveRole);
    box.addButton(tr("Cancel"), QMessageBox::RejectRole);
    auto *dontAsk = new QCheckBox(tr("Don't ask again"), &box);
    box.setCheckBox(dontAsk);
    box.exec();
    return {box.clickedButton() == clear, dontAsk->isChecked()};
}

QString ClipWindow::hintPrefix() const
{
    const Qt::KeyboardModifiers held = m_panel.state().flags;
    const bool paste = m_defaults.boolean(QStringLiteral("clip-paste")).valueOr(false);
    // The held keys when the action table takes them; else Ctrl.
    if (held != Qt::NoModifier && ClipboardPanel::action(held, paste, false)) {
        QString out;
        if (held & Qt::AltModifier)
            out += tr("Alt+");
        if (held & Qt::ShiftModifier)
            out += tr("Shift+");
        if (held & Qt::ControlModifier)
            out += tr("Ctrl+");
        return out;
    }
    return tr("Ctrl+");
}

void ClipWindow::updateFooter()
{
    const Qt::KeyboardModifiers held = m_panel.state().flags;
    m_footer->setVisible(m_defaults.boolean(QStringLiteral("clip-footer")).valueOr(true));
    if (held & Qt::ShiftModifier)
        setFooterText(m_clear, tr("Clear All, Including Pinned"), tr("Shift+Ctrl+Alt+Backspace"));
    else
        setFooterText(m_clear, tr("Clear"), tr("Ctrl+Alt+Backspace"));
    if (m_history.paused())
        setFooterText(m_pause, tr("Resume Recording"), QString());
    else
        setFooterText(m_pause, held & Qt::AltModifier ? tr("Ignore Next Copy") : tr("Pause Recording"), QString());
    setFooterText(m_settings, tr("Clipboard Settings…"), tr("Ctrl+,"));
    m_paused->setVisible(m_history.paused());
}

void ClipWindow::refresh()
{
    const ClipPanelState &state = m_panel.state();
    if (m_search->text() != state.query)
        m_search->setText(state.query);
    if (m_dirty || state.query != m_shownQuery || state.generation != m_generation) {
        m_model.refill();
        m_shownQuery = state.query;
        m_generation = state.generation;
        m_dirty = false;
    } else {
        m_model.selectionMoved();
    }
    m_list->viewport()->update();
    if (state.scrollTarget) {
        if (*state.scrollTarget == -1)
            m_list->scrollToTop();
        else if (const int row = m_model.rowOf(*state.scrollTarget); row >= 0)
            m_list->scrollTo(m_model.index(row));
    }
    const bool empty = m_model.rowCount() == 0;
    m_empty->setVisible(empty);
    m_list->setVisible(!empty);
    m_empty->setText(state.query.isEmpty() ? tr("Copy something and it shows up here.") : tr("No matches"));
    updateFooter();
}

std::optional<Clip> ClipWindow::clipOf(qint64 id) const
{
    for (const Clip &c : m_history.clips())
        if (c.id == id)
            return c;
    return std::nullopt;
}

void ClipWindow::buildMenu(QMenu &menu, const Clip &clip)
{
    menu.addAction(tr("Copy"), this, [this, clip] {
        m_panel.close();
        m_history.copy(clip, false);
    });
    menu.addAction(tr("Paste"), this, [this, clip] { m_panel.paste(clip, false); });
    if (clip.kind == Clip::Kind::text)
        menu.addAction(tr("Paste Without Formatting"), this, [this, clip] { m_panel.paste(clip, true); });
    if (clip.kind == Clip::Kind::image && !clip.text.isEmpty())
        menu.addAction(tr("Copy Text in Picture"), this, [this, clip] {
            m_panel.close();
            m_history.copyText(clip.text);
        });
    menu.addAction(clip.pin ? tr("Unpin") : tr("Pin"), this, [this, clip] { m_history.togglePin(clip.id); });
    menu.addAction(tr("Delete"), this, [this, clip] { m_panel.remove(clip, m_model.rows()); });
    menu.addAction(tr("Ask Zuv About This…"), this, [this, clip] {
        m_panel.close();
        spawn(m_history.askZuv(clip), QStringLiteral("Asking Zuv about a clip"));
    });
    if (clip.kind == Clip::Kind::files)
        menu.addAction(tr("Show in File Manager"), this, [this, clip] {
            m_panel.close();
            m_workspace.showFiles(clip.text.split(QLatin1Char('\n'), Qt::SkipEmptyParts));
        });
}

QStringList ClipWindow::menuLabels(qint64 clipId)
{
    QStringList out;
    const auto clip = clipOf(clipId);
    if (!clip)
        return out;
    QMenu menu;
    buildMenu(menu, *clip);
    for (QAction *a : menu.actions())
        out << a->text();
    return out;
}

void ClipWindow::openMenu(qint64 clipId, const QPoint &at)
{
    const auto clip = clipOf(clipId);
    if (!clip)
        return;
    QMenu menu(this);
    buildMenu(menu, *clip);
    m_panel.hover(clipId);
    menu.exec(at);
}

bool ClipWindow::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::KeyPress: {
        auto *key = static_cast<QKeyEvent *>(event);
        m_panel.setFlags(QGuiApplication::queryKeyboardModifiers());
        const ClipboardPanel::Key k{key->key(), key->modifiers(), key->nativeScanCode(), m_composing};
        if (m_panel.handle(k))
            return true;
        break;
    }
    case QEvent::InputMethod:
        // An input method composing: its keys are its own.
        m_composing = !static_cast<QInputMethodEvent *>(event)->preeditString().isEmpty();
        break;
    case QEvent::KeyRelease:
        m_panel.setFlags(QGuiApplication::queryKeyboardModifiers());
        break;
    case QEvent::MouseMove:
        if (watched == m_list->viewport()) {
            m_panel.mouseMoved();
            const QModelIndex index = m_list->indexAt(static_cast<QMouseEvent *>(event)->position().toPoint());
            if (index.isValid())
                m_panel.hover(index.data(ClipListModel::ClipIdRole).toLongLong());
        }
        break;
    case QEvent::MouseButtonRelease:
        if (watched == m_list->viewport()) {
            auto *mouse = static_cast<QMouseEvent *>(event);
            const QModelIndex index = m_list->indexAt(mouse->position().toPoint());
            if (index.isValid() && mouse->button() == Qt::LeftButton) {
                if (const auto clip = clipOf(index.data(ClipListModel::ClipIdRole).toLongLong()))
                    m_panel.use(*clip, mouse->modifiers());
                return true;
            }
        }
        break;
    default:
        break;
    }
    return QWidget::eventFilter(watched, event);
}

bool ClipWindow::event(QEvent *event)
{
    if (event->type() == QEvent::Resize)
        m_grip->move(width() - m_grip->width(), height() - m_grip->height());
    if (event->type() == QEvent::Resize && !m_placing && QWidget::isVisible()
        && QGuiApplication::mouseButtons() != Qt::NoButton)
        m_panel.resized(geometry());
    return QWidget::event(event);
}

// The panel moves by its background, as it has no title bar.
void ClipWindow::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton)
        m_dragFrom = event->globalPosition().toPoint() - pos();
}

void ClipWindow::mouseMoveEvent(QMouseEvent *event)
{
    if (event->buttons() & Qt::LeftButton && !m_dragFrom.isNull())
        move(event->globalPosition().toPoint() - m_dragFrom);
}

void ClipWindow::mouseReleaseEvent(QMouseEvent *event)
{
    if (!m_dragFrom.isNull()) {
        m_dragFrom = {};
        m_panel.moved(geometry());
    }
    QWidget::mouseReleaseEvent(event);
}

} // namespace zuv

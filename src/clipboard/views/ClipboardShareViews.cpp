#include "clipboard/views/ClipboardShareViews.h"

#include "base/Job.h"
#include "clipboard/ClipboardShare.h"
#include "shortcuts/views/ShortcutRecorder.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QPointer>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

namespace zuv {

void ClipboardShareMenu::fill(QMenu *menu, ClipboardShare &share)
{
    const std::vector<Me::Mac> macs = share.macs();
    if (macs.empty())
        return;
    QPointer<ClipboardShare> target(&share);
    const auto sendTo = [target](const Me::Mac &mac) {
        return [target, mac] {
            if (target)
                spawn(target->send(mac), QStringLiteral("Sending the clipboard"));
        };
    };
    if (macs.size() == 1) {
        QAction *act = menu->addAction(QObject::tr("Send Clipboard to %1").arg(macs.front().name));
        if (share.combo())
            act->setText(act->text() + QLatin1Char('\t') + share.combo()->label());
        act->setEnabled(!share.sending());
        QObject::connect(act, &QAction::triggered, menu, sendTo(macs.front()));
        return;
    }
    QMenu *sub = menu->addMenu(QObject::tr("Send Clipboard To"));
    sub->setEnabled(!share.sending());
    for (const Me::Mac &mac : macs) {
        const QString name = mac.online.value_or(false) ? mac.name : QObject::tr("%1 (offline)").arg(mac.name);
        QObject::connect(sub->addAction(name), &QAction::triggered, menu, sendTo(mac));
    }
}

ToastPanel::ToastPanel(QWidget *parent)
    : QWidget(parent, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus),
      m_icon(new QLabel(this)), m_text(new QLabel(this))
{
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_ShowWithoutActivating);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(18, 10, 18, 10);
    layout->setSpacing(10);
    layout->addWidget(m_icon);
    layout->addWidget(m_text);
    m_text->setStyleSheet(QStringLiteral("color: white; font-size: 13pt;"));
}

QString ToastPanel::text() const { return m_text->text(); }

void ToastPanel::show(const QString &text, const QString &symbol, bool sticky)
{
    m_text->setText(text);
    const QIcon icon = QIcon::fromTheme(symbol);
    m_icon->setPixmap(icon.isNull() ? QPixmap() : icon.pixmap(22, 22));
    m_icon->setVisible(!icon.isNull());
    adjustSize();
    if (const QScreen *screen = QGuiApplication::primaryScreen()) {
        const QRect area = screen->availableGeometry();
        move(area.center().x() - width() / 2, area.y() + area.height() - aboveBottom - height());
    }
    QWidget::show();
    raise();
    const quint64 shows = ++m_shows;
    if (!sticky)
        QTimer::singleShot(shownMs, this, [this, shows] {
            if (m_shows == shows)
                hide();
        });
}

void ToastPanel::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(30, 30, 34, 230));
    painter.drawRoundedRect(rect(), 12, 12);
}

ClipboardShareSection::ClipboardShareSection(ClipboardShare &share, HotKeys &hotKeys, const Keyboard &keyboard, QWidget *parent)
    : QGroupBox(tr("Send Clipboard to Another Computer"), parent), m_share(share), m_about(new QLabel(this)),
      m_recorder(new ShortcutRecorder(hotKeys, keyboard, this)), m_problem(new QLabel(this)), m_target(new QComboBox(this))
{
    m_about->setWordWrap(true);
    m_problem->setWordWrap(true);
    m_problem->setStyleSheet(QStringLiteral("color: #c0392b;"));
    m_problem->hide();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_about);
    auto *form = new QFormLayout;
    form->addRow(tr("Shortcut"), m_recorder);
    form->addRow(tr("Send to"), m_target);
    layout->addLayout(form);
    layout->addWidget(m_problem);
    connect(m_recorder, &ShortcutRecorder::changed, this, [this](const std::optional<KeyCombo> &combo) {
        if (const auto owner = m_share.setCombo(combo)) {
            m_problem->setText(tr("%1 already uses this shortcut.").arg(*owner));
            m_problem->show();
            m_recorder->setCombo(m_share.combo());
        } else {
            m_problem->hide();
        }
    });
    connect(m_target, &QComboBox::activated, this, [this](int index) {
        if (index >= 0)
            m_share.setTarget(m_target->itemData(index).toString());
    });
    connect(&m_share, &ClipboardShare::changed, this, &ClipboardShareSection::showComputers);
    showComputers();
}

void ClipboardShareSection::showEvent(QShowEvent *event)
{
    QGroupBox::showEvent(event);
    spawn(m_share.refresh(), QStringLiteral("Refreshing the other computers"));
}

void ClipboardShareSection::showComputers()
{
    const std::vector<Me::Mac> &macs = m_share.macs();
    if (macs.empty()) {
        m_about->setText(tr("Pair another computer with your Zuv account (in the phone app: Settings → Account → "
                            "Computers), then send it what you copy here."));
        m_recorder->setEnabled(false);
        m_recorder->setText(tr("Not available"));
    } else {
        m_about->setText(tr("Puts this computer's clipboard on the other computer's: text, a picture, or files copied "
                            "in the file manager (saved to its Downloads folder, up to 100 MB each). Also in the tray menu."));
        m_recorder->setEnabled(true);
        m_recorder->setCombo(m_share.combo());
    }
    m_target->clear();
    for (const Me::Mac &mac : macs)
        m_target->addItem(mac.name, mac.id);
    if (const auto chosen = m_share.defaultTarget())
        m_target->setCurrentIndex(m_target->findData(chosen->id));
    m_target->setVisible(macs.size() > 1);
    if (auto *form = findChild<QFormLayout *>())
        form->setRowVisible(m_target, macs.size() > 1);
}

} // namespace zuv

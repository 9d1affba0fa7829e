#include "app/views/Tray.h"

#include <QAction>
#include <QIcon>
#include <QKeySequence>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

static void registerIcons() { Q_INIT_RESOURCE(icons); }

namespace zuv {

void Tray::loadIcons()
{
    static const bool done = (registerIcons(), true);
    Q_UNUSED(done);
}

Tray::Tray(std::function<MenuContent::State()> state, QObject *parent)
    : QObject(parent), m_state(std::move(state)), m_menu(std::make_unique<QMenu>())
{
    loadIcons();
    m_icon = new QSystemTrayIcon(trayIcon(false), this);
    m_icon->setContextMenu(m_menu.get());
    connect(m_menu.get(), &QMenu::aboutToShow, this, &Tray::rebuild);
    connect(m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            emit activated();
    });
    rebuild();
    updateTooltip();
}

Tray::~Tray() = default;

QIcon Tray::trayIcon(bool connected)
{
    QIcon out;
    const QIcon source(QStringLiteral(":/zuv/tray.svg"));
    for (int size : {16, 22, 24, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setOpacity(connected ? 1.0 : 0.45);
        source.paint(&painter, pixmap.rect());
        painter.end();
        out.addPixmap(pixmap);
    }
    return out;
}

bool Tray::show()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        return false;
    m_icon->show();
    return true;
}

void Tray::setConnected(bool connected)
{
    if (connected == m_connected)
        return;
    m_connected = connected;
    m_icon->setIcon(trayIcon(connected));
    updateTooltip();
}

void Tray::setNeedsYou(int count)
{
    m_needsYou = count;
    updateTooltip();
}

void Tray::updateTooltip()
{
    QString tip = QStringLiteral("Zuv — ") + MenuContent::status(m_state());
    if (m_needsYou > 0)
        tip += u'\n' + tr("%n session(s) need you", nullptr, m_needsYou);
    m_icon->setToolTip(tip);
}

void Tray::rebuild()
{
    m_menu->clear();
    for (const MenuContent::Item &item : MenuContent::items(m_state())) {
        if (item.divider) {
            m_menu->addSeparator();
            continue;
        }
        if (item.action == MenuContent::Action::stayAwakeMenu) {
            if (fillStayAwake)
                fillStayAwake(m_menu.get());
            continue;
        }
        if (item.action == MenuContent::Action::sendClipboardMenu) {
            if (fillSendClipboard)
                fillSendClipboard(m_menu.get());
            continue;
        }
        QAction *act = m_menu->addAction(item.title);
        act->setEnabled(item.enabled());
        if (!item.shortcut.isEmpty())
            act->setShortcut(QKeySequence(item.shortcut, QKeySequence::PortableText));
        const MenuContent::Action what = item.action;
        connect(act, &QAction::triggered, this, [this, what] { emit triggered(what); });
    }
    updateTooltip();
}

} // namespace zuv

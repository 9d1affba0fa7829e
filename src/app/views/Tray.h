#pragma once

#include "app/MenuContent.h"

#include <QObject>

#include <functional>
#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace zuv {

// The app's permanent face: the tray icon, faded while the agent is not connected,
// and its menu, rebuilt from the state each time it opens.
class Tray : public QObject {
    Q_OBJECT
public:
    explicit Tray(std::function<MenuContent::State()> state, QObject *parent = nullptr);
    ~Tray() override;

    // Shows the icon; false when the desktop has no tray to show it in.
    bool show();
    void setConnected(bool connected);
    void setNeedsYou(int count);

    QMenu *menu() const { return m_menu.get(); }
    QSystemTrayIcon *icon() const { return m_icon; }
    // Puts the stay-awake entries into the menu, where there are some.
    std::function<void(QMenu *)> fillStayAwake;
    std::function<void(QMenu *)> fillSendClipboard;

    // Fills the menu from the state now (it also happens as it opens).
    void rebuild();

    static QIcon trayIcon(bool connected);
    // Registers the icons compiled into this library (a static one: nobody else does).
    static void loadIcons();

signals:
    void triggered(zuv::MenuContent::Action action);
    // A left click on the icon.
    void activated();

private:
    void updateTooltip();

    std::function<MenuContent::State()> m_state;
    std::unique_ptr<QMenu> m_menu;
    QSystemTrayIcon *m_icon = nullptr;
    bool m_connected = false;
    int m_needsYou = 0;
};

} // namespace zuv

#pragma once

#include "app/MenuContent.h"

#include <QObject>


#include <functional>
#include <memory>

namespace zuv {

class AppDelegate;
class AppModel;
class ChatModel;
class ClipboardShare;
class Clock;
class Defaults;
class MacAPI;
class MainWindow;
class SettingsModel;
class SetupWindow;
class StayAwake;
class Tray;
class WindowOpener;

// The faces of the app: the tray, the setup guide and the main window, made
// when first wanted and wired to the models and the launch's flags.
class AppShell : public QObject {
    Q_OBJECT
public:
    struct Parts {
        AppModel &app;
        ChatModel &chat;
        SettingsModel &settings;
        MacAPI &api;
        Clock &clock;
        Defaults &defaults;
        WindowOpener &opener;
        std::function<MenuContent::State()> menuState;
        std::function<void()> openClipboard;
        std::function<void()> checkForUpdates;
        std::function<void()> openLogs;
        std::function<void()> quit;
        std::function<void(const QString &)> readAloud;
        // The awake session, whose controls join the tray and the guide, where there is one.
        StayAwake *stayAwake = nullptr;
        // Sending the clipboard to another computer, where there is one.
        ClipboardShare *share = nullptr;
    };

    explicit AppShell(Parts parts, QObject *parent = nullptr);
    ~AppShell() override;

    // Shows the tray, or the main window where the desktop has no tray.
    void start();
    void showSetup();
    void openMain();
    // The flags a launch or a later one carries for the main window.
    void runFlags(const QStringList &arguments);
    void perform(MenuContent::Action action);

    Tray *tray() const { return m_tray.get(); }
    SetupWindow *setupWindow() const { return m_setup.get(); }
    MainWindow *mainWindow() const { return m_main.get(); }
    MainWindow &ensureMain();

    // Asks before disconnecting; tests answer for the person.
    std::function<bool()> confirmDisconnect;

private:
    Parts m_parts;
    std::unique_ptr<Tray> m_tray;
    std::unique_ptr<SetupWindow> m_setup;
    std::unique_ptr<MainWindow> m_main;
};

} // namespace zuv

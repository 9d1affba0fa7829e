#pragma once

#include "base/Job.h"

#include <QObject>
#include <QStringList>
#include <QCoro/QCoroTask>

#include <functional>

namespace zuv {

class AppModel;
class AppShortcuts;
class ChatModel;
class ClipboardHistory;
class ClipboardPanel;
class Clock;
class Notifier;
class WindowOpener;
class Diagnostics;
class StayAwake;
class Updates;

// The launch order of the application and what it does with the arguments of a
// later launch. Each step calls into the subsystem that owns it.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    AppDelegate(Clock &clock, AppModel &model, ChatModel &chat, Notifier &notifier, WindowOpener &opener,
                AppShortcuts &appShortcuts, Diagnostics &diagnostics, Updates &updates, QObject *parent = nullptr);
    ~AppDelegate() override;

    static AppDelegate *shared();

    void applicationDidFinishLaunching(const QStringList &arguments);
    void applicationWillTerminate();
    // Arguments handed over by a second launch of the app.
    void open(const QStringList &arguments);
    void showSetup();

    // The chat follows the link (started when paired, stopped when unpaired, its
    // sessions reloaded when the agent reaches the hub), and banners are answered:
    // "Allow" and "Deny" go to the hub, a click opens the item.
    static void connectChat(AppModel &model, ChatModel &chat, Notifier &notifier, WindowOpener &opener,
                            QObject *context);

    // Whether `flag` occurs among the arguments. Flags have no parser on purpose.
    static bool has(const QStringList &arguments, const QString &flag);

    static constexpr double minimumCheckInterval = 21600; // six hours

    // The faces of the app, where there are some (not in the logic tests).
    std::function<void()> showSetupWindow;
    std::function<void(const QStringList &)> windowFlags; // "--open-chat" with "--send-test"

    static constexpr double permissionInterval = 3;

    // Looked at in the launch, before the children start, where there is one.
    StayAwake *stayAwake = nullptr;

    // Started at launch and cleared at quit, where there is one.
    ClipboardHistory *clipboard = nullptr;
    // Opened by "--clipboard", a second after launch.
    ClipboardPanel *clipboardPanel = nullptr;

private:
    void logPairing();
    void openSettingsIfAsked(const QStringList &arguments);
    QCoro::Task<void> openClipboardSoon(CancelToken token);
    QCoro::Task<void> checkMinimumForever(CancelToken token);
    QCoro::Task<void> refreshPermissionsForever(CancelToken token);

    Clock &m_clock;
    AppModel &m_model;
    ChatModel &m_chat;
    AppShortcuts &m_appShortcuts;
    WindowOpener &m_opener;
    Diagnostics &m_diagnostics;
    Updates &m_updates;
    Job m_minimumCheck;
    Job m_clipboardOpening;
    Job m_permissionTimer;
};

} // namespace zuv

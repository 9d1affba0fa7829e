#include "app/AppDelegate.h"

#include "base/Clock.h"
#include "app/Handoff.h"
#include "app/WindowOpener.h"
#include "awake/StayAwake.h"
#include "base/Job.h"
#include "chat/ChatModel.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardPanel.h"
#include "diagnostics/Diagnostics.h"
#include "install/Updates.h"
#include "link/AppModel.h"
#include "shortcuts/AppShortcuts.h"
#include "notify/Notifier.h"

#include <QPointer>

#include <algorithm>
#include <csignal>

namespace zuv {

namespace {
AppDelegate *g_shared = nullptr;
}

AppDelegate::AppDelegate(Clock &clock, AppModel &model, ChatModel &chat, Notifier &notifier, WindowOpener &opener,
                         AppShortcuts &appShortcuts, Diagnostics &diagnostics, Updates &updates, QObject *parent)
    : QObject(parent), m_clock(clock), m_model(model), m_chat(chat), m_appShortcuts(appShortcuts), m_opener(opener),
      m_diagnostics(diagnostics), m_updates(updates)
{
    g_shared = this;
    connectChat(model, chat, notifier, opener, this);
    // Until the setup window exists, the code to type and the link to scan go to app.log.
    connect(&m_model, &AppModel::pairingChanged, this, &AppDelegate::logPairing);
    connect(&m_model, &AppModel::connectedChanged, this, [this] {
        AppModel::log(m_model.connected() ? QStringLiteral("agent connected to the hub")
                                          : QStringLiteral("agent not connected to the hub"));
    });
}

AppDelegate::~AppDelegate()
{
    if (g_shared == this)
        g_shared = nullptr;
}

AppDelegate *AppDelegate::shared() { return g_shared; }

void AppDelegate::connectChat(AppModel &model, ChatModel &chat, Notifier &notifier, WindowOpener &opener,
                              QObject *context)
{
    connect(&model, &AppModel::chatStartWanted, context, [&chat] { chat.start(); });
    connect(&model, &AppModel::chatStopWanted, context, [&chat] { chat.stop(); });
    connect(&model, &AppModel::sessionsReloadWanted, context,
            [&chat] { spawn(chat.reloadSessions(), QStringLiteral("Reloading sessions")); });
    connect(&notifier, &Notifier::answer, context, [&chat](const QString &permission, bool allow) {
        spawn(chat.answer(permission, allow), QStringLiteral("Answering a tool request"));
    });
    connect(&notifier, &Notifier::open, context,
            [&opener](const std::optional<QString> &conversation, const std::optional<QString> &session) {
                opener.show(conversation, session);
            });
}

bool AppDelegate::has(const QStringList &arguments, const QString &flag) { return arguments.contains(flag); }

void AppDelegate::applicationDidFinishLaunching(const QStringList &arguments)
{
    // A child that closes its pipe must not take the app down with it.
    std::signal(SIGPIPE, SIG_IGN);
    if (stayAwake)
        stayAwake->refresh();

    m_diagnostics.start();
    m_minimumCheck = Job::start([this](CancelToken token) { return checkMinimumForever(std::move(token)); },
                                QStringLiteral("The minimum build check"));

    m_model.startChildren();
    if (m_model.pairing().state == AppModel::Pairing::State::paired)
        m_chat.start();
    m_appShortcuts.apply();
    if (clipboard)
        clipboard->start();

    // A paired computer that may not see the screen sees the guide at every launch.
    if (m_model.pairing().state != AppModel::Pairing::State::paired || !m_model.screenRecording())
        showSetup();

    if (has(arguments, QStringLiteral("--pair")))
        m_model.startPairing();
    m_permissionTimer = Job::start([this](CancelToken token) { return refreshPermissionsForever(std::move(token)); },
                                   QStringLiteral("The permission check"));
    openSettingsIfAsked(arguments);
    if (windowFlags)
        windowFlags(arguments);
}

QCoro::Task<void> AppDelegate::refreshPermissionsForever(CancelToken token)
{
    QPointer<AppDelegate> self(this);
    for (;;) {
        const bool waited = co_await m_clock.sleep(permissionInterval, token);
        if (!waited || !self)
            co_return;
        m_model.refreshPermissions();
    }
}

void AppDelegate::openSettingsIfAsked(const QStringList &arguments)
{
    if (has(arguments, QStringLiteral("--settings")) && m_opener.settings)
        m_opener.settings();
    if (has(arguments, QStringLiteral("--clipboard")) && clipboardPanel)
        m_clipboardOpening = Job::start([this](CancelToken token) { return openClipboardSoon(std::move(token)); },
                                        QStringLiteral("Opening the clipboard panel"));
}

QCoro::Task<void> AppDelegate::openClipboardSoon(CancelToken token)
{
    QPointer<AppDelegate> self(this);
    const bool waited = co_await m_clock.sleep(1.0, token);
    if (waited && self && clipboardPanel)
        clipboardPanel->show();
}

QCoro::Task<void> AppDelegate::checkMinimumForever(CancelToken token)
{
    QPointer<AppDelegate> self(this);
    for (;;) {
        co_await m_updates.checkMinimum();
        if (!self || token.isCancelled())
            co_return;
        // A named result: GCC 12 miscompiles some co_await inside a condition.
        const bool waited = co_await m_clock.sleep(minimumCheckInterval, token);
        if (!waited || !self)
            co_return;
    }
}

void AppDelegate::applicationWillTerminate()
{
    m_minimumCheck.cancel();
    m_clipboardOpening.cancel();
    m_permissionTimer.cancel();
    if (clipboard)
        clipboard->quit(); // unpinned clips go when the person asked for that
    m_diagnostics.stop();
    m_model.stopChildren();
}

void AppDelegate::open(const QStringList &arguments)
{
    AppModel::log(QStringLiteral("another launch handed over: ") + arguments.mid(1).join(QLatin1Char(' ')));
    const bool pairing = has(arguments, QStringLiteral("--pair"));
    if (pairing) {
        showSetup();
        m_model.startPairing();
    }
    openSettingsIfAsked(arguments);
    if (windowFlags)
        windowFlags(arguments);
    // Files opened with Zuv go to a new chat; a launch that asks for nothing else opens the window.
    if (const auto files = Handoff::files(arguments)) {
        Handoff::start(m_model, m_chat, m_opener, [this] { showSetup(); }, QString(), *files);
        return;
    }
    static const QStringList acting = {QStringLiteral("--pair"), QStringLiteral("--settings"), QStringLiteral("--clipboard"),
                                       QStringLiteral("--open-chat"), QStringLiteral("--quick-ask")};
    const bool asked = std::any_of(acting.begin(), acting.end(), [&](const QString &f) { return has(arguments, f); });
    if (!asked && !pairing) {
        if (m_model.pairing().state == AppModel::Pairing::State::paired)
            m_opener.show(std::nullopt, std::nullopt);
        else
            showSetup();
    }
}

void AppDelegate::showSetup()
{
    if (m_model.lastError())
        AppModel::log(*m_model.lastError());
    if (showSetupWindow) {
        showSetupWindow();
        return;
    }
    AppModel::log(QStringLiteral("setup: run \"zuv --pair\" to pair this computer with a Zuv account"));
}

void AppDelegate::logPairing()
{
    const auto &pairing = m_model.pairing();
    if (pairing.state == AppModel::Pairing::State::showing)
        AppModel::log(QStringLiteral("pairing link ") + AppModel::pairingLink(pairing.code));
    else if (pairing.state == AppModel::Pairing::State::paired)
        AppModel::log(QStringLiteral("paired"));
    else if (pairing.state == AppModel::Pairing::State::expired)
        AppModel::log(QStringLiteral("pairing ended without a token")
                      + (m_model.lastError() ? QStringLiteral(": ") + *m_model.lastError() : QString()));
}

} // namespace zuv

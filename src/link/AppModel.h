#pragma once

#include "base/Shared.h"

#include "base/Job.h"
#include "link/Child.h"
#include "link/ChildSupervisor.h"
#include "link/PairingFlow.h"
#include "link/ToolsProbe.h"

#include <QImage>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QCoro/QCoroTask>

#include <functional>
#include <optional>

class QNetworkAccessManager;

namespace zuv {

class Clock;
class Defaults;
class Keychain;
class LoginItems;
class MacAPI;
class ScreenAccess;

// The main-thread state of this computer's link to the account: pairing, the
// agent token, and the one line of trouble shown to the user.
class AppModel : public QObject, public Shared<AppModel> {
    Q_OBJECT
public:
    struct Pairing {
        enum class State { showing, unpaired, expired, paired };
        State state = State::unpaired;
        QString code; // with `showing`

        static Pairing showing(QString code) { return {State::showing, std::move(code)}; }
        bool operator==(const Pairing &) const = default;
    };

    // Where the link reaches into the rest of the app for what has one owner: the
    // payloads of the agent's lines. Events with more listeners are signals.
    struct Hooks {
        std::function<void(const QJsonObject &)> stayAwake;
        std::function<void(const QJsonObject &)> clipboardReceived;
        std::function<void(const QString &line)> clipboardAsk;
        // Runs after every look at the permissions (the awake session's refresh).
        std::function<void()> permissionsLooked;
    };

    // The desktop services behind the tools and permissions check. Without them
    // nothing is granted and open-at-login stays off.
    struct Desktop {
        ScreenAccess *access = nullptr;
        LoginItems *loginItems = nullptr;
        ToolsProbe::Runner runner;            // LoginShell::run outside tests
        std::function<void()> relaunch;        // starts a new copy and quits this one
    };

    using Locations = ChildSupervisor::Locations;

    AppModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api, QNetworkAccessManager &network,
             QUrl server, Locations locations = Locations::installed(), QObject *parent = nullptr);
    ~AppModel() override;


    // The hub's base address: the defaults string "server" when it is an http(s)
    // address, else the built-in endpoint. A bad value is logged and ignored.
    static QUrl serverAddress(const Defaults &defaults);
    static QUrl defaultServer();
    // The link that the phone opens from the QR code.
    static QString pairingLink(const QString &code);
    // A QR code of `text` (correction level M), ten pixels a module; null on failure.
    static QImage qr(const QString &text);
    // One time-stamped line in app.log.
    static void log(const QString &line);

    void setHooks(Hooks hooks) { m_hooks = std::move(hooks); }
    const Hooks &hooks() const { return m_hooks; }
    const Locations &locations() const { return m_children.locations(); }

    const Pairing &pairing() const { return m_pairing; }
    const std::optional<QString> &lastError() const { return m_lastError; }
    std::optional<double> replacedAt() const { return m_replacedAt; }
    bool connected() const { return m_connected; }
    const Job &pairTask() const { return m_flow.task(); }
    QUrl server() const { return m_server; }

    void setLastError(const std::optional<QString> &error);
    void setConnected(bool connected);

    // The agent's own words (its line events).
    bool answers() const { return m_answers; }
    const std::optional<QString> &claudeState() const { return m_claudeState; }
    bool agentBusy() const { return m_agentBusy; }
    void setClaude(bool found, const std::optional<QString> &state);
    void setAgentBusy(bool busy);

    // The two supervised children, made on first use and kept for the process's life.
    Child &agent() { return m_children.agent(); }
    Child &screen() { return m_children.screen(); }
    Child::State agentState() const { return m_agentState; }
    Child::State screenState() const { return m_screenState; }

    // The screen helper, and the agent when paired with the token in hand.
    void startChildren();
    void stopChildren() { m_children.stopAll(); }

    Child::Environment agentEnvironment() const { return m_children.agentEnvironment(); }
    QString agentSource() const { return m_children.agentSource(); }
    QString screenSocket() const { return m_children.screenSocket(); }
    QString workFolder() const { return m_children.workFolder(); }
    bool ownerEnvFile() const { return m_children.ownerEnvFile(); }

    void startPairing();
    void unpair();

    // --- Tools and permissions
    void setDesktop(Desktop desktop);
    bool screenRecording() const { return m_screenRecording; }
    bool accessibility() const { return m_accessibility; }
    QString accessReason() const;
    const ToolsProbe &tools() const { return m_tools; }
    bool checkingTools() const { return m_checkingTools; }
    bool launchAtLogin() const { return m_launchAtLogin; }
    bool askedForPermissions() const { return m_askedForPermissions; }
    // Probes Claude Code and Codex off the main thread; the last call wins.
    QCoro::Task<void> checkTools();
    void startCheckingTools();
    void refreshPermissions();
    void requestScreenRecording();
    void requestAccessibility();
    void setLaunchAtLogin(bool on);
    void relaunch();

    // The hub closed the agent because another copy took the link (code 4409).
    void replaced();
    // After "hub connected": clears the running-twice text once the link has held.
    void clearReplacedLater();
    // The hub revoked this computer's token.
    void revoked();

    static QString runningTwiceText();
    static QString revokedText();

signals:
    // Paired, at launch or just now: the chat engine starts. Unpaired: it stops.
    void chatStartWanted();
    void chatStopWanted();
    // The setup guide should show (after a revocation).
    void setupWanted();
    // The agent reached the hub again: agent sessions may have changed.
    void sessionsReloadWanted();
    // The agent runs, or stopped running.
    void agentStarted();
    void agentEnded();
    // A child failed in a way worth reporting.
    void childFailed(const QString &name, int status, bool signal, const QString &tail);

    void pairingChanged();
    void lastErrorChanged();
    void connectedChanged();
    void agentChanged();  // answers, claudeState, agentBusy, agentState
    void toolsChanged();  // tools, checkingTools
    void permissionsChanged(); // screenRecording, accessibility, askedForPermissions, launchAtLogin
    void screenChanged(); // screenState

private:
    QCoro::Task<void> clearReplacedAfterWait(CancelToken token);
    QCoro::Task<void> readTokenAgain(CancelToken token);
    static QString keychainText(const QString &why);
    void setPairing(Pairing pairing);
    void requestPermission(bool (ScreenAccess::*request)());
    void agentStateChanged(Child::State state);
    void paired(const QString &token, bool owner);

    Clock &m_clock;
    Defaults &m_defaults;
    Keychain &m_keychain;
    MacAPI &m_api;
    QUrl m_server;
    Hooks m_hooks;
    ChildSupervisor m_children;
    PairingFlow m_flow;

    Pairing m_pairing;
    Job m_clearReplaced;
    Job m_keychainRetry; // reads a locked keyring again until it answers
    std::optional<QString> m_keychainNote; // the lastError it set, to clear only that
    std::optional<QString> m_lastError;
    std::optional<double> m_replacedAt;
    bool m_connected = false;

    bool m_answers = true;
    std::optional<QString> m_claudeState;
    bool m_agentBusy = false;
    Child::State m_agentState = Child::State::stopped;
    Child::State m_screenState = Child::State::stopped;

    Desktop m_desktop;
    bool m_screenRecording = false;
    bool m_accessibility = false;
    bool m_launchAtLogin = false;
    bool m_askedForPermissions = false;
    ToolsProbe m_tools;
    Job m_toolsCheck;
    int m_toolsRound = 0;
    bool m_checkingTools = false;
};

} // namespace zuv

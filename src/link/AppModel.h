#pragma once

#include "base/Shared.h"

#include "base/Job.h"
#include "link/Child.h"

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
class MacAPI;

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

    // The reply of "/pair/start".
    struct Start {
        QString code;
        QString secret; // proof that we asked for the code; never shown
        double expiresAt = 0;
        static Start fromJson(const QJsonObject &object);
    };

    // The reply of "/pair/poll".
    struct Poll {
        QString status; // "paired", "expired", anything else: keep polling
        std::optional<QString> token;
        std::optional<bool> owner;
        static Poll fromJson(const QJsonObject &object);
    };

    // Where the link reaches into the rest of the app. Each is filled by the
    // subsystem that owns it; an empty one is skipped.
    struct Hooks {
        std::function<void()> startChat;
        std::function<void()> stopChat;
        std::function<void()> showSetup;
        std::function<void()> reloadSessions;
        // The agent runs, or stopped running.
        std::function<void()> agentRunning;
        std::function<void()> agentStopped;
        // A child failed in a way worth reporting.
        std::function<void(const QString &name, int status, bool signal, const QString &tail)> childFailed;
        // Payloads of the agent's lines for their owners.
        std::function<void(const QJsonObject &)> stayAwake;
        std::function<void(const QJsonObject &)> clipboardReceived;
        std::function<void(const QString &line)> clipboardAsk;
    };

    // Where the children and their files are.
    struct Locations {
        QString helpers;   // node and zuv-screen
        QString agentRoot; // the agent shipped with the app
        QString support;   // data folder: work folder, screen socket
        QString logs;
        static Locations installed();
    };

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
    const Locations &locations() const { return m_locations; }

    const Pairing &pairing() const { return m_pairing; }
    const std::optional<QString> &lastError() const { return m_lastError; }
    std::optional<double> replacedAt() const { return m_replacedAt; }
    bool connected() const { return m_connected; }
    const Job &pairTask() const { return m_pairTask; }
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
    Child &agent();
    Child &screen();
    Child::State agentState() const { return m_agentState; }
    Child::State screenState() const { return m_screenState; }

    void startChildren();
    void stopChildren();

    // What the agent is started with; nothing else of ours reaches it.
    Child::Environment agentEnvironment() const;
    // The agent folder: "agentSource" when it holds src/main.mjs, else the shipped one.
    QString agentSource() const;
    QString screenSocket() const;
    QString workFolder() const;
    // Only the owner's computer may let the agent read its private env file.
    bool ownerEnvFile() const;

    void startPairing();
    void unpair();

    // The hub closed the agent because another copy took the link (code 4409).
    void replaced();
    // After "hub connected": clears the running-twice text once the link has held.
    void clearReplacedLater();
    // The hub revoked this computer's token.
    void revoked();

    static QString runningTwiceText();
    static QString revokedText();

signals:
    void pairingChanged();
    void lastErrorChanged();
    void connectedChanged();
    void agentChanged();  // answers, claudeState, agentBusy, agentState
    void screenChanged(); // screenState

private:
    QCoro::Task<void> pair(CancelToken cancel);
    QCoro::Task<void> clearReplacedAfterWait(CancelToken token);
    QCoro::Task<void> launchAgentWhenReady(CancelToken token);
    QCoro::Task<void> readTokenAgain(CancelToken token);
    static QString keychainText(const QString &why);
    template<class T>
    QCoro::Task<T> post(QString path, QJsonObject body, CancelToken cancel);
    void setPairing(Pairing pairing);
    void agentStateChanged(Child::State state);
    void stopAgent();

    Clock &m_clock;
    Defaults &m_defaults;
    Keychain &m_keychain;
    MacAPI &m_api;
    QNetworkAccessManager &m_network;
    QUrl m_server;
    Locations m_locations;
    Hooks m_hooks;

    Pairing m_pairing;
    Job m_pairTask;
    Job m_clearReplaced;
    Job m_keychainRetry; // reads a locked keyring again until it answers
    std::optional<QString> m_keychainNote; // the lastError it set, to clear only that
    Job m_agentLaunch; // waits for the login shell's PATH before the agent starts
    std::optional<QString> m_lastError;
    std::optional<double> m_replacedAt;
    bool m_connected = false;

    bool m_answers = true;
    std::optional<QString> m_claudeState;
    bool m_agentBusy = false;
    Child *m_agent = nullptr;
    Child *m_screen = nullptr;
    Child::State m_agentState = Child::State::stopped;
    Child::State m_screenState = Child::State::stopped;
};

} // namespace zuv

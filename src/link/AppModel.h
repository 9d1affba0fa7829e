#pragma once

#include "base/Job.h"

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
class AppModel : public QObject {
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

    // What pairing and unpairing start and stop in the rest of the app.
    struct Hooks {
        std::function<void()> startChildren;
        std::function<void()> stopAgent;
        std::function<void()> startChat;
        std::function<void()> stopChat;
        std::function<void()> showSetup;
    };

    AppModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api, QNetworkAccessManager &network,
             QUrl server, QObject *parent = nullptr);
    ~AppModel() override;

    static AppModel &shared();
    static void setShared(AppModel *model);

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

    const Pairing &pairing() const { return m_pairing; }
    const std::optional<QString> &lastError() const { return m_lastError; }
    std::optional<double> replacedAt() const { return m_replacedAt; }
    bool connected() const { return m_connected; }
    const Job &pairTask() const { return m_pairTask; }
    QUrl server() const { return m_server; }

    void setLastError(const std::optional<QString> &error);
    void setConnected(bool connected);

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

private:
    QCoro::Task<void> pair(CancelToken cancel);
    QCoro::Task<void> clearReplacedAfterWait();
    template<class T>
    QCoro::Task<T> post(QString path, QJsonObject body, CancelToken cancel);
    void setPairing(Pairing pairing);

    Clock &m_clock;
    Defaults &m_defaults;
    Keychain &m_keychain;
    MacAPI &m_api;
    QNetworkAccessManager &m_network;
    QUrl m_server;
    Hooks m_hooks;

    Pairing m_pairing;
    Job m_pairTask;
    std::optional<QString> m_lastError;
    std::optional<double> m_replacedAt;
    bool m_connected = false;
};

} // namespace zuv

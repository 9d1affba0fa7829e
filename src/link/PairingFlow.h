#pragma once

#include "base/Job.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QCoro/QCoroTask>

#include <optional>

class QNetworkAccessManager;

namespace zuv {

class Clock;

// Pairing this computer with an account: ask the hub for a code, show it, and
// poll until the phone has taken it. Talks to the hub without a token. Says what
// happened through its signals; the link state is its owner's.
class PairingFlow : public QObject {
    Q_OBJECT
public:
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

    static constexpr double pollInterval = 2; // seconds between polls

    PairingFlow(Clock &clock, QNetworkAccessManager &network, QUrl server, QObject *parent = nullptr);

    // Starts afresh; an attempt under way is cancelled and says nothing more.
    void start();
    void cancel() { m_task.cancel(); }
    const Job &task() const { return m_task; }

signals:
    void showing(const QString &code);
    void paired(const QString &token, bool owner);
    void expired();
    void failed(const QString &message);

private:
    QCoro::Task<void> run(CancelToken cancel);
    template<class T>
    QCoro::Task<T> post(QString path, QJsonObject body, CancelToken cancel);

    Clock &m_clock;
    QNetworkAccessManager &m_network;
    QUrl m_server;
    Job m_task;
};

} // namespace zuv

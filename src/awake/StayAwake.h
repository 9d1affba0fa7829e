#pragma once

#include "base/Shared.h"

#include "base/Job.h"
#include "platform/PowerService.h"

#include <QDateTime>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace zuv {

class Clock;

// Keeping the computer awake. The agent carries out the power commands and is the
// one source of truth: what shows here is what its last "stay-awake" line said.
// The app only asks, and keeps the agent told (through a small status file)
// whether the session may also keep it awake with the lid closed.
class StayAwake : public QObject, public Shared<StayAwake> {
    Q_OBJECT
public:
    using Status = PowerService::Status;

    struct Session {
        bool active = false;
        std::optional<double> endsAt; // ms since 1970; none or ≤ 0: until stopped
        std::optional<bool> display;
        std::optional<QString> lid;
        std::optional<QString> error;

        // None when the object is no session ("active" missing or not a Boolean).
        static std::optional<Session> fromJson(const QJsonObject &object);
        bool operator==(const Session &) const = default;
    };

    struct Offer {
        int minutes;
        QString title;
    };

    // `send` writes one line to the agent; false when it is not running.
    StayAwake(Clock &clock, PowerService &power, QString statusFile, std::function<bool(const QString &)> send,
              QObject *parent = nullptr);
    ~StayAwake() override;

    Status helper() const { return m_helper; }
    const std::optional<QString> &lastError() const { return m_lastError; }
    const Session &session() const { return m_session; }
    std::optional<Status> written() const { return m_written; }
    QString statusFile() const { return m_statusFile; }

    // Looks at the permission again (at launch and on every permissions tick);
    // the status file follows.
    void refresh();
    void askAgent();
    void keepAwake(int minutes);
    void allowSleep();
    // Asks the desktop for the permission, which may ask the person once.
    QCoro::Task<void> allowLidClosed();
    void startAllowingLidClosed();

    // The agent's line and its coming and going.
    void setSession(const Session &session);
    void handleLine(const QJsonObject &payload);
    void agentStarted() { askAgent(); }
    void agentEnded() { setSession(Session{}); }

    std::optional<int> minutesLeft() const;
    std::optional<QString> summary(const QDateTime &at, const QLocale &locale = QLocale()) const;

    static std::vector<Offer> durations();
    static std::vector<Offer> extensions();
    static QString word(Status status);
    static QString keepAwakeLine(int minutes);
    static QString notRunningText();

signals:
    void changed();

private:
    QCoro::Task<void> check(CancelToken token);
    bool writeStatus(Status status);
    void send(const QString &line);
    void setHelper(Status status);
    void setLastError(const std::optional<QString> &error);

    Clock &m_clock;
    PowerService &m_power;
    QString m_statusFile;
    std::function<bool(const QString &)> m_send;

    Status m_helper = Status::notRegistered;
    std::optional<QString> m_lastError;
    Session m_session;
    std::optional<Status> m_written;
    Job m_check;
    Job m_allow;
};

} // namespace zuv

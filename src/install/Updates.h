#pragma once

#include "base/Shared.h"

#include "base/Job.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QCoro/QCoroTask>

#include <functional>
#include <optional>

namespace zuv {

class Clock;
class MacAPI;
class Updater;

// The update rules of our own: the minimum build the hub can demand, and installing
// a downloaded update when nothing is running rather than in the middle of a task.
class Updates : public QObject, public Shared<Updates> {
    Q_OBJECT
public:
    // `busy` tells whether work is under way (a reply awaited, a session working,
    // the agent busy).
    // `build` is this program's build number (Build::number() outside tests).
    Updates(Clock &clock, MacAPI &api, Updater &updater, std::function<bool()> busy, const QStringList &arguments,
            QString build, QObject *parent = nullptr);


    // Orders builds: every 12-digit build (a date stamp) below every other one.
    static std::optional<double> rank(const QString &text);

    bool required() const { return m_required; }
    // Asks the hub for its minimum build ("minMacBuild" of "/app/me").
    QCoro::Task<void> checkMinimum();

    // The backend has an update ready and leaves the moment to us.
    void willInstallOnQuit(std::function<void()> install);
    void installWhenIdle();
    std::optional<double> pendingSince() const { return m_pendingSince; }

    static constexpr double idleStep = 60;     // seconds between looks while busy
    static constexpr double longestWait = 7200; // then it installs anyway

signals:
    void requiredChanged();
    // The app should come to the front for the update dialog.
    void activate();

private:
    QCoro::Task<void> retryLater(CancelToken token);

    Clock &m_clock;
    MacAPI &m_api;
    Updater &m_updater;
    std::function<bool()> m_busy;
    QString m_build;
    bool m_required = false;
    std::function<void()> m_pending;
    std::optional<double> m_pendingSince;
    Job m_retry;
};

} // namespace zuv

#pragma once

#include "base/Shared.h"

#include "base/Job.h"

#include <QDateTime>
#include <QObject>
#include <QCoro/QCoroTask>

#include <coroutine>
#include <functional>
#include <map>

namespace zuv {

// The only source of time for logic. now() is wall time in seconds since 1970;
// uptime() is a continuous clock for waits. sleep() resumes on the main thread.
class Clock : public QObject, public Shared<Clock> {
    Q_OBJECT
public:
    ~Clock() override;

    virtual double now() const = 0;
    virtual double uptime() const = 0;
    // now() as a local date and time, for what is shown to the person.
    QDateTime date() const;

    // Waits `seconds` of uptime. Returns false when `token` was cancelled first
    // (also when it is already cancelled) or when the clock goes away.
    QCoro::Task<bool> sleep(double seconds, CancelToken token = CancelToken());


protected:
    explicit Clock(QObject *parent = nullptr) : QObject(parent) {}

    struct Sleeper {
        double deadline = 0; // in uptime seconds
        std::coroutine_handle<> handle;
        bool result = true;
        CancelToken token;
        quint64 cancelHandler = 0;
        std::function<void()> release; // frees what arm() set up
    };

    // Called when a sleeper is registered; the subclass arranges to call wake().
    virtual void arm(quint64 id, Sleeper &sleeper) = 0;
    // Resumes a waiting sleeper with `result`; a no-op for one already woken.
    void wake(quint64 id, bool result);
    // Wakes every sleeper with false. Concrete clocks call it from their destructor,
    // while their now() still works for the code that resumes.
    void shutDown();

    std::map<quint64, Sleeper> m_sleepers;

private:
    friend struct SleepAwaiter;
    quint64 m_next = 1;
    bool m_closing = false;
};

// Virtual time for tests: nothing moves until advance(), which wakes sleepers in
// deadline order, each at its own deadline, including those started meanwhile.
class TestClock final : public Clock {
    Q_OBJECT
public:
    explicit TestClock(double wallStart = 1.7e9, QObject *parent = nullptr);
    ~TestClock() override;
    double now() const override { return m_wall; }
    double uptime() const override { return m_up; }

    void advance(double seconds);
    int sleepers() const { return int(m_sleepers.size()); }
    // Deadline of the earliest sleeper, in seconds from now; negative when none.
    double nextDeadline() const;

protected:
    void arm(quint64 id, Sleeper &sleeper) override;

private:
    double m_wall;
    double m_up = 0;
};

} // namespace zuv

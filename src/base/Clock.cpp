#include "base/Clock.h"

#include <QPointer>

namespace zuv {

QDateTime Clock::date() const { return QDateTime::fromMSecsSinceEpoch(qint64(now() * 1000)); }

Clock::~Clock() = default;

struct SleepAwaiter {
    Clock *clock;
    double seconds;
    CancelToken token;
    quint64 id = 0;
    bool immediate = false;

    bool await_ready()
    {
        immediate = token.isCancelled();
        return immediate;
    }

    void await_suspend(std::coroutine_handle<> handle)
    {
        id = clock->m_next++;
        auto &sleeper = clock->m_sleepers[id];
        sleeper.deadline = clock->uptime() + std::max(0.0, seconds);
        sleeper.handle = handle;
        sleeper.token = token;
        if (clock->m_closing)
            return; // never resumed: the process is going away
        QPointer<Clock> guard(clock);
        const quint64 sleeperId = id;
        sleeper.cancelHandler = token.onCancel([guard, sleeperId] {
            // Resume on the next turn of the event loop, never inside cancel().
            QMetaObject::invokeMethod(
                guard.data(), [guard, sleeperId] { if (guard) guard->wake(sleeperId, false); },
                Qt::QueuedConnection);
        });
        clock->arm(id, sleeper);
    }

    bool await_resume()
    {
        if (immediate)
            return false;
        auto it = clock->m_sleepers.find(id);
        if (it == clock->m_sleepers.end())
            return false;
        // A cancel that lands in the same turn as the deadline still counts as a cancel:
        // the owner has moved on, whatever the timer says.
        const bool result = it->second.result && !token.isCancelled();
        clock->m_sleepers.erase(it);
        return result;
    }
};

QCoro::Task<bool> Clock::sleep(double seconds, CancelToken token)
{
    // A named awaiter: GCC 12 destroys a brace-initialised temporary inside a
    // co_await expression twice.
    SleepAwaiter awaiter{this, seconds, std::move(token)};
    co_return co_await awaiter;
}

void Clock::wake(quint64 id, bool result)
{
    auto it = m_sleepers.find(id);
    if (it == m_sleepers.end() || !it->second.handle)
        return;
    auto handle = std::exchange(it->second.handle, {});
    it->second.result = result;
    it->second.token.removeHandler(it->second.cancelHandler);
    if (auto release = std::exchange(it->second.release, {}))
        release();
    handle.resume();
}

void Clock::shutDown()
{
    m_closing = true;
    std::vector<quint64> ids;
    for (auto &[id, sleeper] : m_sleepers)
        if (sleeper.handle)
            ids.push_back(id);
    for (quint64 id : ids)
        wake(id, false);
}

// TestClock

TestClock::TestClock(double wallStart, QObject *parent) : Clock(parent), m_wall(wallStart) {}

TestClock::~TestClock() { shutDown(); }

void TestClock::arm(quint64 id, Sleeper &sleeper)
{
    if (sleeper.deadline <= m_up) {
        QPointer<TestClock> guard(this);
        QMetaObject::invokeMethod(
            this, [guard, id] { if (guard) guard->wake(id, true); }, Qt::QueuedConnection);
    }
}

double TestClock::nextDeadline() const
{
    double best = -1;
    for (const auto &[id, sleeper] : m_sleepers)
        if (sleeper.handle && (best < 0 || sleeper.deadline - m_up < best))
            best = sleeper.deadline - m_up;
    return best;
}

void TestClock::advance(double seconds)
{
    const double target = m_up + seconds;
    // Steps that add up on paper (14.9 + 0.1) may fall a rounding error short in
    // binary; a deadline that close counts as reached.
    const double reach = target + 1e-9;
    for (;;) {
        quint64 due = 0;
        double deadline = 0;
        for (const auto &[id, sleeper] : m_sleepers) {
            if (sleeper.handle && sleeper.deadline <= reach && (due == 0 || sleeper.deadline < deadline)) {
                due = id;
                deadline = sleeper.deadline;
            }
        }
        if (due == 0)
            break;
        if (deadline > m_up) {
            m_wall += deadline - m_up;
            m_up = deadline;
        }
        wake(due, true);
    }
    m_wall += target - m_up;
    m_up = target;
}

} // namespace zuv

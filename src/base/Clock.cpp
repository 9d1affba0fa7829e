#include "base/Clock.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QTimer>

#include <limits>

namespace zuv {

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
        const bool result = it->second.result;
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
    if (it->second.timer) {
        it->second.timer->stop();
        it->second.timer->deleteLater();
        it->second.timer = nullptr;
    }
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

// RealClock

RealClock::RealClock(QObject *parent) : Clock(parent) {}

RealClock::~RealClock() { shutDown(); }

double RealClock::now() const { return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0; }

double RealClock::uptime() const
{
    static QElapsedTimer timer = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return double(timer.nsecsElapsed()) / 1e9;
}

void RealClock::arm(quint64 id, Sleeper &sleeper)
{
    auto *timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    const double ms = std::max(0.0, (sleeper.deadline - uptime()) * 1000.0);
    timer->setInterval(int(std::min(ms, double(std::numeric_limits<int>::max()))));
    connect(timer, &QTimer::timeout, this, [this, id] { wake(id, true); });
    sleeper.timer = timer;
    timer->start();
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
    for (;;) {
        quint64 due = 0;
        double deadline = 0;
        for (const auto &[id, sleeper] : m_sleepers) {
            if (sleeper.handle && sleeper.deadline <= target && (due == 0 || sleeper.deadline < deadline)) {
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

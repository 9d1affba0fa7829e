#include "base/Clock.h"
#include "platform/linux/RealClock.h"
#include "base/Job.h"
#include "base/Log.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QPointer>

#include <atomic>
#include <thread>

using namespace zuv;

namespace {

QCoro::Task<void> sleeper(Clock &clock, double seconds, CancelToken token, std::vector<QString> *events, QString name)
{
    const bool finished = co_await clock.sleep(seconds, token);
    events->push_back(QStringLiteral("%1:%2@%3").arg(name, finished ? "woke" : "cancelled").arg(clock.uptime()));
}

QCoro::Task<void> chain(Clock &clock, std::vector<QString> *events)
{
    co_await clock.sleep(1);
    events->push_back(QStringLiteral("first@%1").arg(clock.uptime()));
    co_await clock.sleep(1.5);
    events->push_back(QStringLiteral("second@%1").arg(clock.uptime()));
}

} // namespace

TEST(TestClock, wakesInDeadlineOrderIncludingSleepsStartedMeanwhile)
{
    TestClock clock(1000);
    std::vector<QString> events;
    spawn(sleeper(clock, 3, CancelToken(), &events, "c"), "c");
    spawn(sleeper(clock, 1, CancelToken(), &events, "a"), "a");
    spawn(chain(clock, &events), "chain");
    spawn(sleeper(clock, 1, CancelToken(), &events, "b"), "b"); // same deadline as a: in start order
    EXPECT_EQ(clock.sleepers(), 4);

    clock.advance(0.999);
    EXPECT_TRUE(events.empty());
    clock.advance(10);
    const std::vector<QString> expected{"a:woke@1", "first@1", "b:woke@1", "second@2.5", "c:woke@3"};
    EXPECT_EQ(events, expected);
    EXPECT_DOUBLE_EQ(clock.uptime(), 10.999);
    EXPECT_DOUBLE_EQ(clock.now(), 1010.999);
    EXPECT_EQ(clock.sleepers(), 0);
}

TEST(TestClock, cancellationWakesOnTheNextTurnAndAlreadyCancelledReturnsAtOnce)
{
    TestClock clock;
    std::vector<QString> events;
    CancelToken token;
    spawn(sleeper(clock, 30, token, &events, "x"), "x");
    token.cancel();
    EXPECT_TRUE(events.empty()) << "cancel() must not resume the sleeper inside itself";
    ASSERT_TRUE(test::waitUntil([&] { return !events.empty(); }));
    EXPECT_EQ(events.front(), "x:cancelled@0");

    spawn(sleeper(clock, 30, token, &events, "y"), "y");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events.back(), "y:cancelled@0");

    // A cancelled sleeper is not woken a second time by the clock.
    clock.advance(60);
    EXPECT_EQ(events.size(), 2u);
}

TEST(TestClock, goingAwayWakesWhatSleeps)
{
    std::vector<QString> events;
    {
        TestClock clock;
        spawn(sleeper(clock, 5, CancelToken(), &events, "z"), "z");
    }
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events.front().startsWith("z:cancelled"));
}

TEST(RealClock, sleepsInRealTime)
{
    RealClock clock;
    std::vector<QString> events;
    const double start = clock.uptime();
    spawn(sleeper(clock, 0.05, CancelToken(), &events, "r"), "r");
    ASSERT_TRUE(test::waitUntil([&] { return !events.empty(); }));
    EXPECT_GE(clock.uptime() - start, 0.045);
    EXPECT_GT(clock.now(), 1.7e9);
}

TEST(Job, reportsRunningAndLogsWhatEscapes)
{
    TestClock clock;
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });

    Job job = Job::start([&clock](CancelToken token) -> QCoro::Task<void> { return clock.sleep(10, token).then([](bool) {}); },
                         QStringLiteral("waiting"));
    EXPECT_TRUE(job.isRunning());
    clock.advance(10);
    EXPECT_TRUE(test::waitUntil([&] { return !job.isRunning(); }));

    Job failing = Job::start([](CancelToken) -> QCoro::Task<void> {
        return []() -> QCoro::Task<void> {
            throw std::runtime_error("boom");
            co_return;
        }();
    }, QStringLiteral("Exploding"));
    EXPECT_FALSE(failing.isRunning());
    ASSERT_EQ(logged.size(), 1);
    EXPECT_EQ(logged.front(), "Exploding failed: boom");

    Job cancelled = Job::start([&clock](CancelToken token) -> QCoro::Task<void> { return clock.sleep(10, token).then([](bool) {}); },
                               QStringLiteral("cancelled"));
    cancelled.cancel();
    EXPECT_TRUE(cancelled.isCancelled());
    EXPECT_TRUE(test::waitUntil([&] { return !cancelled.isRunning(); }));
    setLogSink({});
}

// A cancel that lands in the same turn as the deadline is still a cancel.
TEST(TestClock, aCancelInTheTurnOfTheDeadlineReturnsFalse)
{
    TestClock clock;
    std::vector<QString> events;
    CancelToken token;
    spawn(sleeper(clock, 5, token, &events, "x"), "x");
    token.cancel();   // the wake is queued for the next turn...
    clock.advance(5); // ...but the deadline fires first
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events.front(), "x:cancelled@5");
    test::drain();
    EXPECT_EQ(events.size(), 1u) << "resumed once";
}

// Deadlines are reached by steps that add up on paper, whatever binary rounding says.
TEST(TestClock, stepsThatAddUpReachTheDeadline)
{
    TestClock clock;
    std::vector<QString> events;
    clock.advance(3);
    spawn(sleeper(clock, 15, CancelToken(), &events, "s"), "s");
    clock.advance(14.9);
    EXPECT_TRUE(events.empty());
    clock.advance(0.1);
    EXPECT_EQ(events.size(), 1u);
}

// A Job owns its task: destroying or replacing it cancels the task's waits.
TEST(Job, destroyingOrReplacingAJobCancelsItsTask)
{
    TestClock clock;
    std::vector<QString> events;
    auto start = [&](const QString &name) {
        return Job::start([&, name](CancelToken token) { return sleeper(clock, 10, token, &events, name); }, name);
    };
    {
        Job scoped = start("scoped");
        EXPECT_TRUE(scoped.isRunning());
    }
    Job kept = start("first");
    kept = start("second");
    Job moved = std::move(kept);
    EXPECT_FALSE(kept.isRunning()) << "a moved-from job holds nothing";
    test::drain();
    EXPECT_EQ(events, (std::vector<QString>{"scoped:cancelled@0", "first:cancelled@0"}));
    clock.advance(10);
    EXPECT_EQ(events.back(), "second:woke@10");
    EXPECT_FALSE(moved.isRunning());
}

// The real clock counts time across a suspend: its uptime is CLOCK_BOOTTIME's,
// and a sleep on it really sleeps.
TEST(RealClock, uptimeIsTheBootClockAndSleepsWake)
{
    RealClock clock;
    timespec boot{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    const double expected = double(boot.tv_sec) + double(boot.tv_nsec) / 1e9;
    EXPECT_NEAR(clock.uptime(), expected, 0.05);
    timespec monotonic{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    EXPECT_GE(clock.uptime() + 0.05, double(monotonic.tv_sec) + double(monotonic.tv_nsec) / 1e9);

    std::vector<QString> events;
    spawn(sleeper(clock, 0.02, CancelToken(), &events, "real"), "real");
    CancelToken token;
    spawn(sleeper(clock, 30, token, &events, "long"), "long");
    ASSERT_TRUE(test::waitUntil([&] { return events.size() == 1; }));
    EXPECT_TRUE(events[0].startsWith("real:woke"));
    token.cancel();
    ASSERT_TRUE(test::waitUntil([&] { return events.size() == 2; }));
    EXPECT_TRUE(events[1].startsWith("long:cancelled"));
}

// Workers log too: lines from several threads all arrive whole, and once the sink
// is taken away no call into it is still running.
TEST(Log, theSinkTakesLinesFromWorkersAndGoesAwayCleanly)
{
    std::vector<QString> lines; // guarded by the log's own lock
    std::atomic<bool> inSink{false};
    setLogSink([&](const QString &line) {
        EXPECT_FALSE(inSink.exchange(true)) << "two calls at once";
        lines.push_back(line);
        inSink = false;
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                log(QStringLiteral("worker %1 line %2").arg(t).arg(i));
        });
    for (auto &worker : workers)
        worker.join();
    EXPECT_EQ(lines.size(), 2000u);
    std::thread late([] {
        for (int i = 0; i < 20; ++i)
            log(QStringLiteral("late %1").arg(i));
    });
    setLogSink({}); // from here on nothing reaches `lines`, which goes away with the test
    const size_t kept = lines.size();
    late.join();
    EXPECT_EQ(lines.size(), kept);
}

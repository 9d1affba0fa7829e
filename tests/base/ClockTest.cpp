#include "base/Clock.h"
#include "base/Job.h"
#include "base/Log.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QPointer>

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

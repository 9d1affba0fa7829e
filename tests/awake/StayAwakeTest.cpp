// Keeping the computer awake, as the app sees it: the agent's lines, the commands,
// the countdown in virtual time, and the status file the agent reads.
#include "awake/StayAwake.h"
#include "base/Clock.h"
#include "base/Log.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QDir>
#include <QJsonDocument>

using namespace zuv;
using namespace zuv::test;

namespace {

class FakePower final : public PowerService {
public:
    PowerService::Status answer = Status::notRegistered;
    QString why;
    std::vector<bool> asked; // interactive, per check
    QCoro::Task<Status> check(bool interactive) override
    {
        asked.push_back(interactive);
        co_return answer;
    }
    QString problem() const override { return why; }
};

struct StayAwakeTest : ::testing::Test {
    TempHome home;
    TestClock clock{1.7e9};
    FakePower power;
    QStringList sent;
    bool running = true;
    StayAwake awake{clock, power, home.file("data/Zuv/awake-helper.json"), [this](const QString &line) {
                        if (running)
                            sent << line;
                        return running;
                    }};
    QStringList logged;
    StayAwakeTest() { setLogSink([this](const QString &line) { logged << line; }); }
    ~StayAwakeTest() override { setLogSink({}); }

    void line(const char *json) { awake.handleLine(QJsonDocument::fromJson(json).object()); }
    double in(double seconds) const { return (clock.now() + seconds) * 1000; }
};

} // namespace

TEST_F(StayAwakeTest, theAgentsLinesAreTheTruthAndCommandsAreExactLines)
{
    int changes = 0;
    QObject::connect(&awake, &StayAwake::changed, [&] { ++changes; });
    awake.keepAwake(30);
    awake.keepAwake(0);
    awake.allowSleep();
    awake.askAgent();
    EXPECT_EQ(sent, QStringList({R"({"power":"keepAwake","minutes":30,"display":true})",
                                 R"({"power":"keepAwake","minutes":0,"display":true})", R"({"power":"allowSleep"})",
                                 R"({"power":"status"})"}));
    EXPECT_FALSE(awake.session().active) << "asking changes nothing until the agent says so";

    running = false;
    awake.keepAwake(60);
    EXPECT_EQ(awake.lastError(), "Zuv isn't running on this computer right now.");
    EXPECT_FALSE(awake.session().active);

    line(R"({"active":true,"endsAt":0,"display":true,"lid":"sleeps"})");
    EXPECT_TRUE(awake.session().active);
    EXPECT_EQ(awake.lastError(), std::nullopt) << "a line without an error clears the last one";
    const int before = changes;
    line(R"({"active":true,"endsAt":0,"display":true,"lid":"sleeps"})");
    EXPECT_EQ(changes, before) << "the same session tells nobody";

    // Broken lines leave what was known.
    line(R"({"endsAt":5})");
    line(R"({"active":"yes"})");
    awake.handleLine({});
    EXPECT_TRUE(awake.session().active);
    line(R"({"active":false,"error":"logind refused to keep this computer awake."})");
    EXPECT_FALSE(awake.session().active);
    EXPECT_EQ(awake.lastError(), "logind refused to keep this computer awake.");

    // The agent's end clears the session; its start asks again.
    line(R"({"active":true})");
    running = true;
    awake.agentEnded();
    EXPECT_FALSE(awake.session().active) << "never believed awake without an agent";
    sent.clear();
    awake.agentStarted();
    EXPECT_EQ(sent, QStringList{R"({"power":"status"})"});
}

TEST_F(StayAwakeTest, countdownSummaryAndExtensionsInVirtualTime)
{
    const QLocale c(QLocale::English, QLocale::UnitedStates);
    const auto now = [&] { return clock.date(); };
    EXPECT_EQ(awake.summary(now(), c), std::nullopt);
    EXPECT_EQ(awake.minutesLeft(), std::nullopt);

    line(R"({"active":true})");
    EXPECT_EQ(awake.summary(now(), c), "Staying awake until you stop it");
    EXPECT_EQ(awake.minutesLeft(), std::nullopt);

    awake.handleLine(QJsonObject{{"active", true}, {"endsAt", in(90 * 60 + 30)}});
    EXPECT_EQ(awake.minutesLeft(), 90);
    EXPECT_TRUE(awake.summary(now(), c)->endsWith(" · 1:30:30 left")) << qPrintable(*awake.summary(now(), c));
    clock.advance(30 * 60);
    EXPECT_EQ(awake.minutesLeft(), 60);

    // Past its end: nothing left, and extending starts from nothing.
    clock.advance(3 * 3600);
    EXPECT_EQ(awake.minutesLeft(), 0);
    EXPECT_TRUE(awake.summary(now(), c)->endsWith(" · 0:00:00 left"));

    // More than a day away: the weekday shows.
    awake.handleLine(QJsonObject{{"active", true}, {"endsAt", in(3 * 86400)}});
    const QString far = *awake.summary(now(), c);
    EXPECT_TRUE(far.contains(c.toString(QDateTime::fromMSecsSinceEpoch(qint64(in(3 * 86400))).toLocalTime(), "ddd")))
        << qPrintable(far);
    EXPECT_TRUE(far.endsWith(" · 72:00:00 left"));

    // An end no date can hold is shown as no end, and counts no minutes.
    awake.handleLine(QJsonObject{{"active", true}, {"endsAt", 1e300}});
    EXPECT_EQ(awake.summary(now(), c), "Staying awake until you stop it");
    EXPECT_EQ(awake.minutesLeft(), std::nullopt);
    awake.handleLine(QJsonObject{{"active", true}, {"endsAt", -5}});
    EXPECT_EQ(awake.minutesLeft(), std::nullopt);

    EXPECT_EQ(StayAwake::durations().size(), 7u);
    EXPECT_EQ(StayAwake::durations().front().title, "For 30 Minutes");
    EXPECT_EQ(StayAwake::extensions().back().minutes, 1440);
    EXPECT_EQ(StayAwake::keepAwakeLine(-3), R"({"power":"keepAwake","minutes":0,"display":true})");
}

TEST_F(StayAwakeTest, theStatusFileIsWrittenWhenItChangesAndAgainAfterAFailure)
{
    const QString file = home.file("data/Zuv/awake-helper.json");
    power.answer = StayAwake::Status::enabled;
    awake.refresh();
    ASSERT_TRUE(waitUntil([&] { return awake.written().has_value(); }));
    EXPECT_EQ(readText(file), R"({"status":"enabled"})");
    EXPECT_EQ(awake.helper(), StayAwake::Status::enabled);

    // Unchanged: not written again.
    writeText(file, "changed by hand");
    awake.refresh();
    drain();
    EXPECT_EQ(readText(file), "changed by hand");

    // A failed write is tried again at the next look.
    QFile::remove(file);
    QDir(home.file("data/Zuv")).removeRecursively();
    writeText(home.file("data/Zuv"), "a file where the folder should be");
    power.answer = StayAwake::Status::requiresApproval;
    awake.refresh();
    ASSERT_TRUE(waitUntil([&] { return awake.helper() == StayAwake::Status::requiresApproval; }));
    drain();
    EXPECT_EQ(awake.written(), StayAwake::Status::enabled);
    QFile::remove(home.file("data/Zuv"));
    awake.refresh();
    ASSERT_TRUE(waitUntil([&] { return awake.written() == StayAwake::Status::requiresApproval; }));
    EXPECT_EQ(readText(file), R"({"status":"requiresApproval"})");

    // A new run rewrites the file even when it holds the same word.
    StayAwake again(clock, power, file, [](const QString &) { return true; });
    writeText(file, R"({"status":"requiresApproval"})");
    again.refresh();
    ASSERT_TRUE(waitUntil([&] { return again.written().has_value(); }));
    EXPECT_EQ(StayAwake::word(StayAwake::Status::notFound), "notFound");
    EXPECT_EQ(StayAwake::word(StayAwake::Status(7)), "unknown");
}

TEST_F(StayAwakeTest, allowingClosedLidUseAsksTheDesktopAndSaysWhatCameOfIt)
{
    line(R"({"active":false,"error":"old"})");
    power.answer = StayAwake::Status::enabled;
    await(awake.allowLidClosed());
    EXPECT_EQ(power.asked.back(), true) << "the person may be asked";
    EXPECT_EQ(awake.lastError(), std::nullopt);
    EXPECT_TRUE(logged.join('\n').contains("may keep the computer awake with the lid closed"));
    EXPECT_EQ(awake.written(), StayAwake::Status::enabled);

    power.answer = StayAwake::Status::notFound;
    power.why = "logind isn't running on this system";
    await(awake.allowLidClosed());
    EXPECT_EQ(awake.lastError(), "Couldn't set up the helper: logind isn't running on this system");
    power.why.clear();
    power.answer = StayAwake::Status::notRegistered;
    await(awake.allowLidClosed());
    EXPECT_EQ(awake.lastError(), "Couldn't set up the helper: notRegistered");
    line(R"({"active":false})");
    EXPECT_EQ(awake.lastError(), std::nullopt) << "the next line of the agent clears it";

    power.answer = StayAwake::Status::requiresApproval;
    await(awake.allowLidClosed());
    EXPECT_EQ(awake.lastError(), std::nullopt);
    EXPECT_TRUE(logged.join('\n').contains("waiting for the desktop's approval"));
}

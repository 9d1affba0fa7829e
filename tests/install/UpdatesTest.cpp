#include "base/Clock.h"
#include "hub/MacAPI.h"
#include "install/Updates.h"
#include "base/Keychain.h"
#include "platform/Updater.h"

#include "Fixture.h"
#include "FakeUpdater.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QNetworkAccessManager>

using namespace zuv;
using test::FakeUpdater;
using test::TestHub;

namespace {


class UpdatesTest : public ::testing::Test, protected test::HubFixture {
protected:
    UpdatesTest() : updates(clock, api, updater, [this] { return busy; }, {}, QStringLiteral("1"))
    {
        keychain.setToken(QStringLiteral("agent"));
        hub.grantTokens();
    }

    void minimum(const QJsonValue &value)
    {
        QJsonObject me{{"user", QJsonObject{{"id", "u"}}}, {"owner", false}};
        if (!value.isUndefined())
            me.insert("minMacBuild", value);
        hub.on("GET", "/app/me", TestHub::json(me));
    }

    FakeUpdater updater;
    bool busy = false;
    Updates updates;
};

} // namespace

TEST(UpdatesRank, twelveDigitBuildsRankBelowAllOthers)
{
    EXPECT_DOUBLE_EQ(*Updates::rank("250101120000"), 0.25010112);
    EXPECT_DOUBLE_EQ(*Updates::rank("3"), 4.0);
    EXPECT_LT(*Updates::rank("999999999999"), *Updates::rank("1"));
    EXPECT_FALSE(Updates::rank("3a"));
    EXPECT_FALSE(Updates::rank("1234567890123"));
    EXPECT_FALSE(Updates::rank(""));
    EXPECT_FALSE(Updates::rank("-1"));
    EXPECT_FALSE(Updates::rank("1.5"));
}

TEST_F(UpdatesTest, theMinimumIsShownOnceAndClearsWhenLowered)
{
    minimum("1");
    test::await(updates.checkMinimum());
    EXPECT_FALSE(updates.required()) << "a minimum equal to our build";

    minimum("2");
    test::await(updates.checkMinimum());
    EXPECT_TRUE(updates.required());
    EXPECT_EQ(updater.dialogs, 1);
    test::await(updates.checkMinimum());
    EXPECT_EQ(updater.dialogs, 1) << "not shown again while it stays required";

    minimum("2b");
    test::await(updates.checkMinimum());
    EXPECT_TRUE(updates.required()) << "a minimum without a rank changes nothing";
    minimum(QJsonValue());
    test::await(updates.checkMinimum());
    EXPECT_TRUE(updates.required());
    hub.on("GET", "/app/me", TestHub::error(502));
    test::await(updates.checkMinimum());
    EXPECT_TRUE(updates.required());

    minimum("250101120000");
    test::await(updates.checkMinimum());
    EXPECT_FALSE(updates.required()) << "a date-stamped minimum ranks below build 1";

    // The build compared is the one the program was given.
    Updates dated(clock, api, updater, [] { return false; }, {}, QStringLiteral("250101120000"));
    minimum("250101130000");
    test::await(dated.checkMinimum());
    EXPECT_TRUE(dated.required());
    minimum("7");
    test::await(dated.checkMinimum());
    EXPECT_TRUE(dated.required()) << "every plain build ranks above a date-stamped one";
}

TEST_F(UpdatesTest, aBusyComputerDelaysInstallingForAtMostTwoHours)
{
    busy = true;
    int installed = 0;
    updates.willInstallOnQuit([&] { ++installed; });
    EXPECT_EQ(updates.pendingSince(), clock.now());
    const double since = clock.now();
    for (int step = 0; step < 120; ++step)
        clock.advance(60);
    EXPECT_EQ(installed, 0) << "at exactly two hours it still waits";
    EXPECT_EQ(clock.sleepers(), 1);
    clock.advance(60);
    EXPECT_EQ(installed, 1) << "installs once the two hours are over";
    EXPECT_FALSE(updates.pendingSince());
    EXPECT_NEAR(clock.now() - since, 7260, 0.001);
}

TEST_F(UpdatesTest, aSecondBlockReplacesTheFirstAndKeepsTheWait)
{
    busy = true;
    QStringList installed;
    updates.willInstallOnQuit([&] { installed << "first"; });
    const auto since = updates.pendingSince();
    clock.advance(90);
    updates.willInstallOnQuit([&] { installed << "second"; });
    EXPECT_EQ(updates.pendingSince(), since);
    EXPECT_EQ(clock.sleepers(), 1) << "one wait, not two";
    busy = false;
    clock.advance(60);
    EXPECT_EQ(installed, (QStringList{"second"}));

    // Idle at once: installs at once.
    updates.willInstallOnQuit([&] { installed << "third"; });
    EXPECT_EQ(installed.last(), "third");
}

TEST_F(UpdatesTest, updateNowLooksAtOnce)
{
    FakeUpdater other;
    Updates now(clock, api, other, [] { return false; }, {"zuv", "--update-now"}, QStringLiteral("1"));
    EXPECT_EQ(other.background, 1);
}

// The wait for an idle moment belongs to its Updates: when that goes, so does the
// wait, instead of lingering in the clock until it wakes into nothing.
TEST_F(UpdatesTest, theWaitEndsWithItsOwner)
{
    bool installed = false;
    {
        Updates owner(clock, api, updater, [] { return true; }, {}, QStringLiteral("1"));
        owner.willInstallOnQuit([&] { installed = true; });
        EXPECT_EQ(clock.sleepers(), 1);
    }
    test::drain();
    EXPECT_EQ(clock.sleepers(), 0);
    clock.advance(3 * 3600);
    EXPECT_FALSE(installed);
}

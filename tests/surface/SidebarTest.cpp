// How the sidebar groups sessions and schedules, and the time lines of the chat.
#include "surface/Sidebar.h"
#include "surface/TimeLabel.h"

#include "../chat/ChatFixture.h"

#include <QJsonArray>
#include <QTimeZone>

using namespace zuv;
using namespace zuv::test;

namespace {

struct SidebarTest : ChatFixture, ::testing::Test {
    void sessions(QJsonArray items, QJsonArray permissions = {})
    {
        list("/app/cc/sessions", "sessions", items);
        list("/app/cc/permissions", "permissions", permissions);
        await(chat->reloadSessions());
        await(chat->reloadPermissions());
    }
};

Overview overviewWith(QJsonArray schedules)
{
    Overview overview;
    for (const QJsonValue &s : schedules)
        overview.schedules.push_back(Overview::Schedule::fromJson(s.toObject()));
    return overview;
}

QJsonObject schedule(const QString &id, const QString &prompt, double nextAt, bool enabled = true, bool target = true,
                     const QString &cwd = "/home/me/code/app")
{
    QJsonObject o{{"id", id}, {"when", "daily"}, {"prompt", prompt}, {"deliver", "app"}, {"enabled", enabled}};
    if (nextAt > 0)
        o.insert("nextAt", nextAt);
    if (target)
        o.insert("target", QJsonObject{{"kind", "cc"}, {"cwd", cwd}, {"agent", "claude"}, {"model", ""}});
    return o;
}

} // namespace

TEST_F(SidebarTest, sessionsStandInOneSectionByWhatTheyNeed)
{
    QJsonObject approving = sessionJson("s1", "running", 1000);
    approving.insert("title", "Fix the build");
    QJsonObject working = sessionJson("s2", "busy", 1000);
    working.insert("lastReply", "All tests pass");
    sessions({approving, working, sessionJson("s3", "idle", 1000)}, {permissionJson("p1", "s1")});

    auto sections = Sidebar::sections(*chat, std::nullopt, "");
    ASSERT_EQ(sections.needsYou.size(), 1u);
    EXPECT_EQ(sections.needsYou[0].id, "s1") << "needing approval wins over running";
    ASSERT_EQ(sections.working.size(), 1u);
    EXPECT_EQ(sections.working[0].id, "s2");
    EXPECT_EQ(sections.restTitle, "Earlier");

    sections = Sidebar::sections(*chat, std::nullopt, "  tests PASS ");
    EXPECT_TRUE(sections.needsYou.empty());
    EXPECT_EQ(sections.working.size(), 1u) << "the last reply is searched, ignoring case";
    EXPECT_EQ(Sidebar::sections(*chat, std::nullopt, "   ").working.size(), 1u) << "blanks show everything";

    sessions({sessionJson("s3", "idle", 1000)});
    sections = Sidebar::sections(*chat, std::nullopt, "");
    EXPECT_EQ(sections.restTitle, "Agents");
    sections = Sidebar::sections(*chat, overviewWith({schedule("a", "Report", 5e12)}), "");
    EXPECT_EQ(sections.restTitle, "Earlier") << "one schedule is enough";
}

TEST(Sidebar, schedulesConversationsAndComputerNames)
{
    const Overview overview = overviewWith({schedule("late", "Weekly report", 9e12), schedule("off", "x", 1e12, false),
                                            schedule("never", "y", 0), schedule("chat", "z", 1e12, true, false),
                                            schedule("soon", "Check backups", 2e12, true, true, "/srv/backup")});
    auto found = Sidebar::scheduledSessions(overview, "");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].schedule.id, "soon");
    EXPECT_EQ(found[1].schedule.id, "late");
    EXPECT_EQ(Sidebar::scheduledSessions(overview, "BACKUP").size(), 1u) << "the folder's name is searched";
    EXPECT_TRUE(Sidebar::scheduledSessions(std::nullopt, "").empty());

    std::vector<Conversation> conversations(2);
    conversations[0].id = "c1";
    conversations[0].title = "Holiday plans";
    conversations[1].id = "c2";
    conversations[1].preview = "the holiday photos";
    EXPECT_EQ(Sidebar::filtered(conversations, "HOLIDAY").size(), 2u);
    EXPECT_EQ(Sidebar::filtered(conversations, "plans").size(), 1u);
    EXPECT_FALSE(Sidebar::searchesMessages(" h ")) << "one character filters but asks the hub nothing";
    EXPECT_TRUE(Sidebar::searchesMessages("ho"));

    const Me me = Me::fromJson(QJsonObject{{"user", QJsonObject{{"id", "u"}}}, {"owner", false},
                                           {"macs", QJsonArray{QJsonObject{{"id", "m1"}, {"name", "Desk"}},
                                                               QJsonObject{{"id", "m2"}, {"name", "Laptop"}}}}});
    EXPECT_EQ(Sidebar::macName("m2", "m1", me), "Laptop");
    EXPECT_EQ(Sidebar::macName("m1", "m1", me), std::nullopt) << "this computer is not named";
    EXPECT_EQ(Sidebar::macName("m9", "m1", me), std::nullopt);
    EXPECT_EQ(Sidebar::macName(std::nullopt, "m1", me), std::nullopt);
}

TEST(TimeLabel, sameHourSameDayIsQuietOtherwiseTodayYesterdayOrTheDate)
{
    const QDateTime now(QDate(2026, 11, 23), QTime(15, 0));
    const auto at = [](const QDateTime &t) {
        Entry e;
        e.at = double(t.toMSecsSinceEpoch());
        return e;
    };
    const Entry morning = at(QDateTime(QDate(2026, 11, 23), QTime(9, 0)));
    const Entry later = at(QDateTime(QDate(2026, 11, 23), QTime(9, 59)));
    const Entry lateNight = at(QDateTime(QDate(2026, 11, 22), QTime(23, 50)));
    const Entry pastMidnight = at(QDateTime(QDate(2026, 11, 23), QTime(0, 10)));
    const QLocale c(QLocale::English, QLocale::UnitedStates);
    EXPECT_EQ(TimeLabel::between(&morning, later, now, c), std::nullopt);
    EXPECT_TRUE(TimeLabel::between(&lateNight, pastMidnight, now, c)->startsWith("Today ")) << "across midnight";
    EXPECT_TRUE(TimeLabel::between(nullptr, lateNight, now, c)->startsWith("Yesterday "));
    const Entry old = at(QDateTime(QDate(2026, 11, 2), QTime(8, 0)));
    EXPECT_TRUE(TimeLabel::between(nullptr, old, now, c)->startsWith("Monday, November 2")) << qPrintable(*TimeLabel::between(nullptr, old, now, c));
    EXPECT_EQ(TimeLabel::relative(now.toMSecsSinceEpoch() - 5 * 60000.0, now, c), "5 min ago");
}

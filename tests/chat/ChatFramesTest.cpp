// What each kind of frame changes, sent by the hub over the socket.
#include "ChatFixture.h"

using namespace zuv;
using namespace zuv::test;

namespace {

struct ChatFrames : ChatFixture, ::testing::Test {
    QSet<QString> hubUnread; // what the hub's list says, kept in step with the frames sent

    void SetUp() override
    {
        // Replies change the hub's list, which the model then reloads.
        hub.on("GET", "/app/conversations", [this](const TestHub::Request &) {
            return TestHub::json(QJsonObject{
                {"conversations", QJsonArray{conversationJson("c1", "First", 1000, hubUnread.contains("c1")),
                                             conversationJson("c2", "Second", 900, hubUnread.contains("c2")),
                                             conversationJson("tg-1", "Telegram", 800)}}});
        });
        hub.on("GET", "/app/history", TestHub::json(QJsonObject{{"entries", QJsonArray()}}));
        hub.on("POST", "/app/seen", [this](const TestHub::Request &r) {
            hubUnread.remove(r.json()["conversation"].toString());
            return TestHub::json(QJsonObject());
        });
        ASSERT_TRUE(connectSocket());
        ASSERT_TRUE(waitUntil([&] { return chat->conversations().size() == 3; }));
    }
    void TearDown() override
    {
        // The routes below read this test's own fields: they go first.
        hub.on("POST", "/app/seen", TestHub::json(QJsonObject()));
        list("/app/conversations", "conversations", {});
        chat.reset();
        drain();
    }
    bool message(const QString &id, const QString &role, const QString &conv, std::optional<QString> channel = {},
                 const QString &text = "text", double at = 5000)
    {
        return frame({{"kind", "message"}, {"entry", entryJson(id, role, text, at, conv, channel)}});
    }
    size_t banners(const QString &prefix) const
    {
        return size_t(std::count_if(center.added.begin(), center.added.end(),
                                    [&](const auto &r) { return r.identifier.startsWith(prefix); }));
    }
};

} // namespace

TEST_F(ChatFrames, messagesSetWaitingUnreadAndBannersByRoleAndChannel)
{
    // A user entry from the phone sets waiting; one from Telegram does not.
    ASSERT_TRUE(message("u1", "user", "c1", "app"));
    ASSERT_TRUE(message("u2", "user", "c2", "telegram"));
    EXPECT_TRUE(chat->waiting().contains("c1"));
    EXPECT_FALSE(chat->waiting().contains("c2"));
    EXPECT_TRUE(chat->entries().empty()) << "nothing is kept for conversations not loaded";
    EXPECT_EQ(chat->conversations()[0].id, "c2") << "but the list is bumped";
    EXPECT_EQ(chat->conversations()[1].id, "c1");

    // A reply on another channel ends the wait but sets no unread and raises nothing.
    ASSERT_TRUE(message("u3", "user", "c2", "app"));
    ASSERT_TRUE(frame({{"kind", "step"}, {"ref", "c2"}, {"step", "Thinking"}}));
    EXPECT_EQ(chat->steps().value("c2"), "Thinking");
    ASSERT_TRUE(message("r1", "assistant", "c2", "telegram"));
    EXPECT_FALSE(chat->waiting().contains("c2"));
    EXPECT_FALSE(chat->steps().contains("c2"));
    EXPECT_FALSE(listed("c2")->unread.value_or(false));
    EXPECT_EQ(center.added.size(), 0u);

    // A reply on the app's channel that nobody is looking at: unread and a banner.
    hubUnread << "c1";
    ASSERT_TRUE(message("r2", "assistant", "c1", "app", "**Done**"));
    // A quiet reload of the list that left before the reply may land after it; the
    // one the reply asked for follows and has the final word.
    EXPECT_TRUE(waitUntil([&] { return listed("c1")->unread.value_or(false); }));
    ASSERT_EQ(center.added.size(), 1u);
    EXPECT_EQ(center.added[0].title, "First");
    EXPECT_EQ(center.added[0].body, "Done");

    // The same while it is on screen in the active app: seen at once, no banner.
    activity.setActive(true);
    chat->setVisible(QStringLiteral("c1"));
    const int seen = hub.count("POST", "/app/seen");
    ASSERT_TRUE(message("r3", "assistant", "c1", "app"));
    EXPECT_FALSE(listed("c1")->unread.value_or(false));
    EXPECT_EQ(center.added.size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return hub.count("POST", "/app/seen") > seen; }));
    EXPECT_EQ(hub.requests("POST", "/app/seen").last().json()["conversation"].toString(), "c1");

    // An unlisted conversation's reply is titled "Zuv" and makes the list reload.
    const int lists = hub.count("GET", "/app/conversations");
    ASSERT_TRUE(message("r4", "assistant", "brand-new", "app"));
    EXPECT_EQ(center.added.back().title, "Zuv");
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/conversations") > lists; }));
    // "from-mac" gets unread but no banner.
    ASSERT_TRUE(message("r5", "assistant", "from-mac", "app"));
    EXPECT_EQ(banners("reply-r5"), 0u);
    EXPECT_TRUE(listed("c1")); // still listed after the reload
}

TEST_F(ChatFrames, aLoadedConversationTakesFramesInPlaceOrAtTheEnd)
{
    hub.on("GET", "/app/history",
           TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("a", "user", "one", 1000, "c1"),
                                                             entryJson("b", "assistant", "two", 2000, "c1")}}}));
    await(chat->refresh("c1"));
    ASSERT_TRUE(message("a", "user", "c1", "app", "one, edited", 1000));
    // A user's entry in a listed chat reloads nothing, so the bump is all that changes the list.
    ASSERT_TRUE(message("c", "user", "c1", "telegram", "three\nlines", 3000));
    EXPECT_EQ(ids("c1"), (QStringList{"a", "b", "c"}));
    EXPECT_EQ((*chat->entries("c1"))[0].text, "one, edited");
    EXPECT_EQ(listed("c1")->preview, "three lines");
    EXPECT_EQ(listed("c1")->updatedAt, 3000);
}

TEST_F(ChatFrames, stepsTitlesSeenStoppedAndDeleted)
{
    ASSERT_TRUE(frame({{"kind", "step"}, {"ref", "c1"}, {"step", "late"}}));
    EXPECT_FALSE(chat->steps().contains("c1")) << "a late step brings back nothing";
    ASSERT_TRUE(frame({{"kind", "step"}, {"target", "cc"}, {"ref", "s1"}, {"step", "Reading"}}));
    EXPECT_EQ(chat->sessionSteps().value("s1"), "Reading");
    ASSERT_TRUE(frame({{"kind", "step"}, {"target", "cc"}, {"ref", "s1"}}));
    EXPECT_FALSE(chat->sessionSteps().contains("s1")) << "a step without text removes it";

    ASSERT_TRUE(message("u1", "user", "c1", "app"));
    ASSERT_TRUE(frame({{"kind", "step"}, {"ref", "c1"}, {"step", "Searching"}}));
    EXPECT_EQ(chat->steps().value("c1"), "Searching");
    ASSERT_TRUE(frame({{"kind", "stopped"}, {"conversation", "c1"}}));
    EXPECT_FALSE(chat->waiting().contains("c1"));
    EXPECT_FALSE(chat->steps().contains("c1"));

    ASSERT_TRUE(frame({{"kind", "titles"},
                       {"titles", QJsonArray{QJsonObject{{"id", "c2"}, {"title", "Renamed"}},
                                             QJsonObject{{"id", "nope"}, {"title", "X"}}}}}));
    EXPECT_EQ(listed("c2")->title, "Renamed");

    hubUnread << "c2";
    ASSERT_TRUE(message("r1", "assistant", "c2", "app"));
    EXPECT_TRUE(listed("c2")->unread.value_or(false));
    hubUnread.remove("c2"); // read on the phone
    // Handed over directly: a list reload that the reply started may still land
    // afterwards with what the hub said before.
    chat->handle(R"({"kind":"seen","conversation":"c2"})");
    EXPECT_FALSE(listed("c2")->unread.value_or(false));
    EXPECT_EQ(center.shown.size(), 1u) << "seen elsewhere leaves delivered banners alone";

    await(chat->refresh("c2"));
    ASSERT_TRUE(message("u2", "user", "c2", "app"));
    ASSERT_TRUE(frame({{"kind", "deleted"}, {"conversation", "c2"}}));
    EXPECT_FALSE(listed("c2"));
    EXPECT_FALSE(chat->entries("c2"));
    EXPECT_FALSE(chat->waiting().contains("c2"));
    EXPECT_TRUE(chat->deleted().contains("c2"));
    EXPECT_TRUE(center.shown.empty()) << "its banners go with it";
}

TEST_F(ChatFrames, toolRequestsComeAndGoWithTheirBannersAndTheBadge)
{
    list("/app/cc/sessions", "sessions", {sessionJson("s1", "busy", 1000), sessionJson("s2", "idle", 1000)});
    await(chat->reloadSessions());
    EXPECT_EQ(badge.value, 0) << "on a first run all that exists counts as seen";

    ASSERT_TRUE(frame({{"kind", "perm"}, {"request", permissionJson("p1", "s1")}}));
    ASSERT_TRUE(frame({{"kind", "perm"}, {"request", permissionJson("p2", "s1")}}));
    ASSERT_EQ(chat->permissions().size(), 2u);
    EXPECT_EQ(chat->needsYou(chat->sessions()[0]), ChatModel::NeedsYou::approval) << "busy, but waiting on a tool";
    EXPECT_EQ(badge.value, 1) << "two requests of one session count once";
    EXPECT_EQ(center.shown.count("perm-p1"), 1u);

    ASSERT_TRUE(frame({{"kind", "perm"}, {"request", permissionJson("p1", "s1", "allowed")}}));
    ASSERT_EQ(chat->permissions().size(), 1u);
    EXPECT_EQ(chat->permissions()[0].id, "p2");
    EXPECT_EQ(center.shown.count("perm-p1"), 0u) << "answered on the phone: the banner goes";
    ASSERT_TRUE(frame({{"kind", "perm"}, {"request", permissionJson("p2", "s1", "denied")}}));
    EXPECT_EQ(badge.value, 0);

    // A "cc" frame reloads the list, and a stop raises the finished banner with fresh values.
    list("/app/cc/sessions", "sessions", {sessionJson("s1", "idle", 1000, 9000), sessionJson("s2", "idle", 1000)});
    ASSERT_TRUE(frame({{"kind", "cc"}, {"event", QJsonObject{{"type", "stop"}, {"sessionId", "s1"}}}}));
    ASSERT_TRUE(waitUntil([&] { return chat->sessions()[0].status == "idle"; }));
    ASSERT_TRUE(waitUntil([&] { return banners("cc-s1-") == 1; }));
    EXPECT_EQ(badge.value, 1) << "s1 answered since it was last seen";
}

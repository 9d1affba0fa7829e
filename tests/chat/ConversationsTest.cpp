// The list, the loaded messages and their merge with the hub's history.
#include "ChatFixture.h"

using namespace zuv;
using namespace zuv::test;

namespace {

struct Conversations : ChatFixture, ::testing::Test {
    void history(QJsonArray entries) { hub.on("GET", "/app/history", TestHub::json(QJsonObject{{"entries", entries}})); }
    bool frameLike(const QJsonObject &entry)
    {
        chat->handle(QJsonDocument(QJsonObject{{"kind", "message"}, {"entry", entry}}).toJson());
        return true;
    }
};

} // namespace

TEST_F(Conversations, refreshKeepsEchoesAndWaitingUntilTheHubHasAnswered)
{
    // An empty history with a local echo keeps both the echo and the wait.
    history({});
    await(chat->refresh("c1"));
    frameLike(entryJson("echo", "user", "hello", 5000, "c1", "app"));
    history({});
    await(chat->refresh("c1"));
    EXPECT_EQ(ids("c1"), QStringList{"echo"});
    EXPECT_TRUE(chat->waiting().contains("c1"));

    // The hub shows an older reply: the newer echo survives and the wait goes on.
    history({entryJson("a0", "assistant", "earlier", 4000, "c1")});
    await(chat->refresh("c1"));
    EXPECT_EQ(ids("c1"), (QStringList{"a0", "echo"}));
    EXPECT_TRUE(chat->waiting().contains("c1")) << "the user wrote after the last reply";

    // A user message older than the last fetched one survives only while waiting.
    frameLike(entryJson("old", "user", "sent long ago", 3000, "c1", "app"));
    history({entryJson("a0", "assistant", "earlier", 4000, "c1"), entryJson("echo", "user", "hello", 5000, "c1"),
             entryJson("a1", "assistant", "reply", 6000, "c1")});
    await(chat->refresh("c1"));
    EXPECT_EQ(ids("c1"), (QStringList{"a0", "echo", "a1", "old"}));
    EXPECT_TRUE(chat->waiting().contains("c1")) << "a kept user message holds the wait";
    chat->handle(R"({"kind":"stopped","conversation":"c1"})");
    await(chat->refresh("c1"));
    EXPECT_EQ(ids("c1"), (QStringList{"a0", "echo", "a1"})) << "not waiting: the stray goes";
    EXPECT_FALSE(chat->waiting().contains("c1"));

    // A reply that slipped past a dead socket ends the wait.
    frameLike(entryJson("u2", "user", "again", 7000, "c1", "app"));
    EXPECT_TRUE(chat->waiting().contains("c1"));
    history({entryJson("a0", "assistant", "earlier", 4000, "c1"), entryJson("echo", "user", "hello", 5000, "c1"),
             entryJson("a1", "assistant", "reply", 6000, "c1"), entryJson("u2", "user", "again", 7000, "c1"),
             entryJson("a2", "assistant", "ok", 8000, "c1")});
    await(chat->refresh("c1"));
    EXPECT_FALSE(chat->waiting().contains("c1"));
}

TEST_F(Conversations, failuresShowWhereTheyBelong)
{
    // The list: empty and failing shows as the list's own state, not a banner.
    hub.on("GET", "/app/conversations", TestHub::error(500, "Hub trouble"));
    await(chat->reloadConversations(false));
    EXPECT_TRUE(chat->conversationsFailed());
    EXPECT_FALSE(chat->error());
    list("/app/conversations", "conversations", {conversationJson("c1")});
    await(chat->reloadConversations(true));
    EXPECT_FALSE(chat->conversationsFailed());
    EXPECT_TRUE(chat->conversationsLoaded());
    hub.on("GET", "/app/conversations", TestHub::json(QJsonObject{{"conversations", 5}}));
    await(chat->reloadConversations(true));
    EXPECT_FALSE(chat->error()) << "a quiet reload says nothing";
    ASSERT_EQ(chat->conversations().size(), 1u) << "and keeps the copy";
    await(chat->reloadConversations(false));
    ASSERT_TRUE(chat->error());

    // History: a failure with nothing loaded shows; with a copy it does not.
    hub.on("GET", "/app/history", TestHub::error(502));
    await(chat->refresh("c9"));
    EXPECT_TRUE(chat->loadFailed().contains("c9"));
    hub.on("GET", "/app/history", TestHub::json(QJsonValue(QJsonValue::Null)));
    await(chat->refresh("c9"));
    EXPECT_TRUE(chat->loadFailed().contains("c9")) << "null is no history";
    history({entryJson("a", "assistant", "x", 1, "c9")});
    await(chat->refresh("c9"));
    EXPECT_FALSE(chat->loadFailed().contains("c9"));
    hub.on("GET", "/app/history", TestHub::error(502));
    await(chat->refresh("c9"));
    EXPECT_FALSE(chat->loadFailed().contains("c9"));
    EXPECT_EQ(ids("c9"), QStringList{"a"});
    EXPECT_EQ(hub.requests("GET", "/app/history").last().url.query(), "conversation=c9&limit=60");

    // Search never throws.
    hub.on("GET", "/app/search", TestHub::error(500));
    EXPECT_TRUE(await(chat->search("a&b c")).empty());
    EXPECT_EQ(hub.requests("GET", "/app/search").last().rawTarget, "/app/search?q=a%26b%20c&limit=30");
}

TEST_F(Conversations, renameDeleteTitlesPreviewsAndTranscripts)
{
    list("/app/conversations", "conversations", {conversationJson("c1", ""), conversationJson("c2", "Two")});
    await(chat->reloadConversations(false));
    EXPECT_EQ(chat->title("c1"), "") << "a listed chat with an empty title";
    EXPECT_EQ(chat->title("zz"), "New Chat");

    await(chat->rename("c2", " \n\t "));
    EXPECT_EQ(hub.count("PATCH", "/app/conversations/c2"), 0);
    hub.on("PATCH", "/app/conversations/c2", TestHub::error(500, "Nope"));
    await(chat->rename("c2", "  Better  "));
    EXPECT_EQ(chat->title("c2"), "Better") << "the local title stays after a failure";
    EXPECT_EQ(hub.requests("PATCH", "/app/conversations/c2")[0].json()["title"].toString(), "Better");
    EXPECT_EQ(chat->error(), "Nope");

    hub.on("DELETE", "/app/conversations/ghost", TestHub::json(QJsonObject()));
    await(chat->deleteConversation("ghost"));
    EXPECT_EQ(hub.count("DELETE", "/app/conversations/ghost"), 1);
    EXPECT_TRUE(chat->deleted().contains("ghost"));

    // Previews are cut by characters and read new lines as blanks.
    QString text = QStringLiteral("a\nb");
    for (int i = 0; i < 150; ++i)
        text += QStringLiteral("😀");
    frameLike(entryJson("e1", "user", text, 9000, "c1", "telegram"));
    const QString preview = chat->conversations()[0].preview;
    EXPECT_EQ(preview.left(3), "a b");
    EXPECT_EQ(preview.size(), 3 + 137 * 2) << "140 characters, no pair split";

    history({entryJson("u", "user", "Hi", 1, "c2"), entryJson("a", "assistant", "Hello", 2, "c2")});
    await(chat->refresh("c2"));
    EXPECT_EQ(chat->transcript("c2"), "Me: Hi\n\nZuv: Hello");
    EXPECT_EQ(chat->transcript("nope"), "");
}

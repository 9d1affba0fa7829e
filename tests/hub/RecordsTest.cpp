#include "base/Defaults.h"
#include "base/Clock.h"
#include "base/Json.h"
#include "hub/ArchivedMessage.h"
#include "hub/CcChanges.h"
#include "hub/CcPermission.h"
#include "hub/CcSession.h"
#include "hub/Conversation.h"
#include "hub/Entry.h"
#include "settings/Models.h"

#include "Support.h"

#include <gtest/gtest.h>

using namespace zuv;

namespace {

QString summary(const QJsonObject &usage, const Models &models)
{
    return models.summary(Usage::fromJson(usage));
}

ArchivedMessage hit(const QString &thread) { return {"1", thread, "user", "t", 0, std::nullopt}; }

// The reply of a session's detail: items, and a session that may not decode.
struct Detail {
    std::vector<CcItem> items;
    Lenient<CcSession> session;
    static Detail fromJson(const QJsonObject &o)
    {
        return {json::required<std::vector<CcItem>>(o, "items"), json::lenient<CcSession>(o, "session")};
    }
};

} // namespace

TEST(Usage, summaryParts)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("d.json"));
    Models models(clock, defaults);
    const QJsonObject base{{"ms", 0}, {"turns", 1}, {"input", 999}, {"output", 0}, {"usd", 0}};
    auto with = [&](std::initializer_list<std::pair<QString, QJsonValue>> changes) {
        QJsonObject o = base;
        for (const auto &[k, v] : changes)
            o.insert(k, v);
        return summary(o, models);
    };
    EXPECT_EQ(summary(base, models), "999 tokens");
    EXPECT_EQ(with({{"input", 0}}), "0 tokens");
    EXPECT_EQ(with({{"input", 600}, {"output", 400}}), "1.0k tokens");
    EXPECT_EQ(with({{"input", 12340}}), "12.3k tokens");
    EXPECT_EQ(with({{"ms", 1500}}), "999 tokens · 2s");
    EXPECT_EQ(with({{"ms", 1499}}), "999 tokens · 1s");
    EXPECT_EQ(with({{"usd", 0.004}}), "999 tokens · ≈<$0.01");
    EXPECT_EQ(with({{"usd", 0.01}}), "999 tokens · ≈$0.01");
    EXPECT_EQ(with({{"usd", 1.239}}), "999 tokens · ≈$1.24");
    EXPECT_EQ(with({{"model", "claude-opus-5-5"}, {"effort", "high"}, {"ms", 2500}, {"usd", 0.5}}),
              "Opus 5.5 · High · 999 tokens · 3s · ≈$0.50");
    EXPECT_EQ(with({{"model", ""}, {"effort", "high"}}), "999 tokens");
    EXPECT_EQ(with({{"model", "gpt-5.1-codex"}}), "GPT-5.1-Codex · 999 tokens");
    EXPECT_THROW(Usage::fromJson({{"ms", 1}}), DecodingError);
}

TEST(ArchivedMessage, placeAndConversation)
{
    EXPECT_EQ(hit("app").place(), "Zuv");
    EXPECT_EQ(hit("app:c123").place(), "Zuv");
    EXPECT_EQ(hit("telegram:42").place(), "Telegram");
    EXPECT_EQ(hit("xchat:1:2").place(), "X");
    EXPECT_EQ(hit("slack:9").place(), "slack:9");

    EXPECT_EQ(hit("app").conversation(), "main");
    EXPECT_EQ(hit("app:c123").conversation(), "c123");
    EXPECT_EQ(hit("telegram:42").conversation(), "tg-42");
    EXPECT_EQ(hit("telegram::42").conversation(), "tg-42") << "empty pieces are dropped";
    EXPECT_EQ(hit("telegram:42:7").conversation(), std::nullopt);
    EXPECT_EQ(hit("xchat:1:2").conversation(), "x-1-2");
    EXPECT_EQ(hit("xchat:1").conversation(), std::nullopt);
    EXPECT_EQ(hit("other").conversation(), std::nullopt);
}

TEST(Conversation, plainStripsMarkdown)
{
    EXPECT_EQ(Conversation::plain("**Bold** and __under__ and `code`"), "Bold and under and code");
    EXPECT_EQ(Conversation::plain("- one\n* two\n• three"), "one\ntwo\nthree");
    EXPECT_EQ(Conversation::plain("## Title and x# y"), "Title and xy");
    EXPECT_EQ(Conversation::plain("text ### mid"), "text mid") << "headings match anywhere";
    EXPECT_EQ(Conversation::plain("see [the docs](https://x.org/a) now"), "see the docs now");
    EXPECT_EQ(Conversation::plain("a-b"), "a-b");
}

TEST(Records, decodingRulesAndValueEquality)
{
    const QByteArray entryJson = R"({"id":"m1","role":"assistant","text":"hi","at":1.7e12,"extra":true,
        "files":[{"key":"k","name":"a.png","mime":"image/png"}],"conversation":null,
        "usage":{"ms":1,"turns":1,"input":1,"output":1,"usd":0}})";
    const Entry entry = json::decodeBody<Entry>(entryJson);
    EXPECT_EQ(entry.files->at(0).name, "a.png");
    EXPECT_FALSE(entry.conversation);
    EXPECT_EQ(entry, json::decodeBody<Entry>(entryJson));
    EXPECT_EQ(entry.hash(), json::decodeBody<Entry>(entryJson).hash());
    Entry other = entry;
    other.usage->cached = 5;
    EXPECT_NE(entry, other);
    EXPECT_NE(entry.hash(), other.hash());

    // One malformed record fails the reply that holds it.
    EXPECT_THROW(json::decodeBody<std::vector<Conversation>>(
                     R"([{"id":"main","title":"","createdAt":1,"updatedAt":2,"preview":""},{"id":"c"}])"),
                 DecodingError);

    const auto changes = json::decodeBody<CcChanges>(
        R"({"git":true,"cwd":"/p","ahead":2,"files":[{"path":"a","status":"M","added":3,"removed":1,
            "binary":false,"truncated":false,"diff":"@@"}]})");
    EXPECT_EQ(changes.ahead, 2);
    EXPECT_EQ(changes.files.at(0).added, 3);
    EXPECT_FALSE(changes.branch);
    EXPECT_THROW(json::decodeBody<CcChange>(R"({"path":"a","status":"M","added":1.5,"removed":1,
        "binary":false,"truncated":false,"diff":""})"), DecodingError);

    const auto permission = json::decodeBody<CcPermission>(
        R"({"id":"p","sessionId":"s","project":"x","tool":"ExitPlanMode","summary":"s","detail":"d","at":5,
            "status":"pending"})");
    EXPECT_FALSE(permission.title);
    EXPECT_EQ(permission.tool, "ExitPlanMode");
}

TEST(Lenient, aMalformedSessionKeepsTheItems)
{
    const auto detail = json::decodeBody<Detail>(
        R"({"items":[{"role":"user","text":"go"},{"role":"tool","text":"ls","at":3}],
            "session":{"id":"s","cwd":"/p","project":"p","status":"busy","startedAt":"yesterday"}})");
    EXPECT_EQ(detail.items.size(), 2u);
    EXPECT_FALSE(detail.session.value);

    const auto good = json::decodeBody<Detail>(
        R"({"items":[],"session":{"id":"s","cwd":"/p","project":"p","status":"busy","startedAt":1,"agent":"codex"}})");
    ASSERT_TRUE(good.session.value);
    EXPECT_EQ(good.session.value->agent, "codex");
    EXPECT_FALSE(json::decodeBody<Detail>(R"({"items":[]})").session.value);
}

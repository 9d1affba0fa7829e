// Agent sessions, tool requests and what needs the person.
#include "ChatFixture.h"

using namespace zuv;
using namespace zuv::test;

namespace {

struct Sessions : ChatFixture, ::testing::Test {
    void sessions(QJsonArray items) { list("/app/cc/sessions", "sessions", std::move(items)); }
    const CcSession &listedSession(const QString &id) const
    {
        for (const CcSession &s : chat->sessions())
            if (s.id == id)
                return s;
        throw std::out_of_range("no such session");
    }
};

QCoro::Task<void> reloadInBackground(ChatModel *chat, bool *done)
{
    co_await chat->reloadSessions();
    *done = true;
}

} // namespace

TEST_F(Sessions, aFirstRunSeesEverythingAndTheBadgeCountsWhatCameSince)
{
    sessions({sessionJson("s1", "idle", 1000, 2000), sessionJson("s2", "idle", 1500), sessionJson("s3", "failed", 10),
              sessionJson("s4", "busy", 10, 20), sessionJson("s5", "idle", 10)});
    await(chat->reloadSessions());
    EXPECT_TRUE(chat->sessionsLoaded());
    EXPECT_EQ(badge.value, 0);
    EXPECT_EQ(chat->seen().value("s1"), 2000);
    EXPECT_EQ(chat->seen().value("s2"), 1500) << "no updatedAt: counted by startedAt";
    EXPECT_EQ(defaults.object(ChatModel::seenKey).value.size(), 5);

    // Newer activity in the background counts; on screen in the active app it is seen at once.
    sessions({sessionJson("s1", "idle", 1000, 3000), sessionJson("s2", "idle", 1500, 4000),
              sessionJson("s3", "failed", 10, 50), sessionJson("s4", "busy", 10, 90), sessionJson("s5", "idle", 10)});
    chat->setVisibleSession(QStringLiteral("s2"));
    await(chat->reloadSessions());
    EXPECT_EQ(badge.value, 3) << "s1 replied, s2 replied, s3 failed; s4 is working";
    EXPECT_EQ(chat->needsYou(listedSession("s3")), ChatModel::NeedsYou::failed);
    EXPECT_FALSE(chat->needsYou(listedSession("s4"))) << "busy never reads as a reply";
    activity.setActive(true);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") >= 2; }));
    await(chat->reloadSessions());
    EXPECT_EQ(badge.value, 2) << "the visible one is marked once the app is in front";
    chat->markSessionSeen("s3");
    EXPECT_FALSE(chat->needsYou(listedSession("s3")));
    EXPECT_EQ(chat->seen().value("s3"), 50);
    EXPECT_EQ(badge.value, 1);

    // The mark never moves backwards, and a session at time 0 with no mark needs nothing.
    sessions({sessionJson("s1", "idle", 1000, 100), sessionJson("s0", "idle", 0)});
    await(chat->reloadSessions());
    chat->markSessionSeen("s1");
    EXPECT_EQ(chat->seen().value("s1"), 2000);
    EXPECT_FALSE(chat->needsYou(listedSession("s0")));
    EXPECT_FALSE(chat->seen().contains("s0"));
}

TEST_F(Sessions, theListIsTriedSixTimesOverAMinuteThenLeftAlone)
{
    sessions({sessionJson("s1", "idle", 10)});
    await(chat->reloadSessions());
    hub.sequence("GET", "/app/cc/sessions",
                 {TestHub::error(502), TestHub::error(502), TestHub::json(QJsonObject{{"sessions", QJsonArray()}})});
    bool done = false;
    auto reload = reloadInBackground(chat.get(), &done);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") == 2 && clock.sleepers() == 1; }));
    EXPECT_DOUBLE_EQ(clock.nextDeadline(), 2);
    clock.advance(2);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") == 3 && clock.sleepers() == 1; }));
    EXPECT_DOUBLE_EQ(clock.nextDeadline(), 4);
    clock.advance(4);
    ASSERT_TRUE(waitUntil([&] { return done; })) << "the third try, six seconds on";
    EXPECT_TRUE(chat->sessions().empty());

    sessions({sessionJson("s1", "idle", 10)});
    await(chat->reloadSessions());
    hub.on("GET", "/app/cc/sessions", TestHub::json(QJsonValue(QJsonValue::Null)));
    done = false;
    auto failing = reloadInBackground(chat.get(), &done);
    for (const double wait : {2.0, 4.0, 8.0, 15.0, 30.0}) {
        ASSERT_TRUE(waitUntil([&] { return clock.sleepers() == 1; }));
        EXPECT_DOUBLE_EQ(clock.nextDeadline(), wait);
        clock.advance(wait);
    }
    ASSERT_TRUE(waitUntil([&] { return done; }));
    EXPECT_EQ(chat->sessions().size(), 1u) << "six failures change nothing";
}

TEST_F(Sessions, detailsRemovalsAndTheDeviceQuery)
{
    QJsonObject s1 = sessionJson("s1", "busy", 10);
    s1.insert("device", "Mac #2/ü");
    sessions({s1, sessionJson("s2", "idle", 10)});
    await(chat->reloadSessions());

    hub.on("GET", "/app/cc/session",
           TestHub::json(QJsonObject{{"result", QJsonObject{{"items", QJsonArray{QJsonObject{{"role", "user"}, {"text", "go"}}}},
                                                            {"session", QJsonObject{{"id", 5}}}}}}));
    ChatModel::Detail detail = await(chat->sessionDetail("s1"));
    EXPECT_EQ(detail.kind, ChatModel::Detail::Kind::loaded);
    EXPECT_EQ(detail.items.size(), 1u);
    EXPECT_FALSE(detail.session) << "a session that does not decode is left out, not the detail";
    EXPECT_EQ(hub.requests("GET", "/app/cc/session").last().rawTarget,
              "/app/cc/session?id=s1&device=Mac%20%232%2F%C3%BC");
    hub.on("GET", "/app/cc/session", TestHub::error(404, "Gone", "SESSION_GONE"));
    EXPECT_EQ(await(chat->sessionDetail("s2")).kind, ChatModel::Detail::Kind::gone);
    EXPECT_EQ(hub.requests("GET", "/app/cc/session").last().rawTarget, "/app/cc/session?id=s2");
    hub.on("GET", "/app/cc/session", TestHub::error(404, "Other", "ELSE"));
    detail = await(chat->sessionDetail("s2"));
    EXPECT_EQ(detail.kind, ChatModel::Detail::Kind::failed);
    ASSERT_TRUE(detail.failure);
    EXPECT_EQ(detail.failure->status(), 404);

    // A detail that disagrees with the list repairs it, once per ten seconds.
    CcSession idle = chat->sessions()[0];
    idle.status = QStringLiteral("idle");
    const int reloads = hub.count("GET", "/app/cc/sessions");
    chat->noteDetail(idle);
    chat->noteDetail(idle);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") == reloads + 1; }));
    clock.advance(10);
    chat->noteDetail(idle);
    clock.advance(0.5);
    chat->noteDetail(idle);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") == reloads + 2; }));
    drain();
    EXPECT_EQ(hub.count("GET", "/app/cc/sessions"), reloads + 2);

    // Removing a session whose computer is gone succeeds here; another failure says why.
    hub.on("POST", "/app/cc/remove", TestHub::error(404, "No device", "DEVICE_NOT_FOUND"));
    EXPECT_TRUE(await(chat->removeSession("s1")));
    EXPECT_EQ(hub.requests("POST", "/app/cc/remove")[0].json()["device"].toString(), "Mac #2/ü");
    hub.on("POST", "/app/cc/remove", TestHub::error(500, "Broken"));
    EXPECT_FALSE(await(chat->removeSession("s2")));
    EXPECT_EQ(chat->error(), "Broken");

    hub.on("GET", "/app/cc/projects", TestHub::json(QJsonObject{{"result", QJsonArray{QJsonObject{{"name", "w"}, {"cwd", "/w"}}}}}));
    EXPECT_EQ(await(chat->projects(QStringLiteral("a b"))).size(), 1u);
    EXPECT_EQ(hub.requests("GET", "/app/cc/projects").last().rawTarget, "/app/cc/projects?device=a%20b");
    hub.on("POST", "/app/cc/terminal", TestHub::json(QJsonObject{{"result", QJsonValue::Null}}));
    EXPECT_EQ(await(chat->openInTerminal("s2")), "Terminal");
}

TEST_F(Sessions, newSessionsRepliesAndAnswers)
{
    hub.on("POST", "/app/cc/new", TestHub::json(QJsonObject{{"result", QJsonObject{{"id", "n1"}}}}));
    EXPECT_EQ(await(chat->newSession("/w", "go", "claude", "opus", "high", std::nullopt)), "n1");
    const QJsonObject created = hub.requests("POST", "/app/cc/new")[0].json().toObject();
    EXPECT_EQ(created["prompt"].toString(), "go");
    EXPECT_FALSE(created.contains("device")) << "empty optional keys are left out";
    hub.on("POST", "/app/cc/new", TestHub::error(409, "Busy"));
    EXPECT_FALSE(await(chat->newSession("/w", "go", "claude", "opus", "high", "d1")));
    EXPECT_EQ(chat->error(), "Busy");

    hub.on("POST", "/app/cc/reply", TestHub::json(QJsonObject()));
    EXPECT_TRUE(await(chat->reply("more", {}, "n1")));
    EXPECT_FALSE(hub.requests("POST", "/app/cc/reply")[0].json().toObject().contains("files"));

    sessions({sessionJson("s1", "busy", 10)});
    list("/app/cc/permissions", "permissions", {permissionJson("p1", "s1"), permissionJson("p0", "s1", "allowed")});
    await(chat->reloadSessions());
    await(chat->reloadPermissions());
    ASSERT_EQ(chat->permissions().size(), 1u) << "only pending requests are kept";
    EXPECT_EQ(badge.value, 1);
    hub.on("GET", "/app/cc/permissions", TestHub::error(500));
    await(chat->reloadPermissions());
    EXPECT_EQ(chat->permissions().size(), 1u) << "a failed reload keeps the list";

    chat->handle(QJsonDocument(QJsonObject{{"kind", "perm"}, {"request", permissionJson("p1", "s1")}}).toJson());
    ASSERT_EQ(center.shown.count("perm-p1"), 1u);
    hub.on("POST", "/app/cc/permission", TestHub::error(500, "Not now"));
    await(chat->answer("p1", true));
    const QJsonObject answered = hub.requests("POST", "/app/cc/permission")[0].json().toObject();
    EXPECT_EQ(answered, (QJsonObject{{"id", "p1"}, {"allow", true}}));
    EXPECT_EQ(chat->error(), "Not now");
    EXPECT_TRUE(chat->permissions().empty()) << "a failed answer takes the card away too";
    EXPECT_EQ(center.shown.count("perm-p1"), 0u);
    EXPECT_EQ(badge.value, 0);
}

// The whole road of a banner: a frame from the hub, a freedesktop notification
// on a bus of the test's own, the person's answer back to the hub.
#include "app/AppDelegate.h"
#include "app/WindowOpener.h"
#include "platform/linux/DBusNotificationCenter.h"

#include "ChatFixture.h"
#include "MockNotificationDaemon.h"

using namespace zuv;
using namespace zuv::test;

TEST(ChatBanners, aToolRequestIsAnsweredFromItsBannerAndAReplyOnScreenRaisesNothing)
{
    MockNotificationDaemon daemon;
    ASSERT_TRUE(daemon.up());
    HubFixture f;
    f.keychain.setToken(QStringLiteral("agent"));
    f.hub.grantTokens();
    f.hub.on("GET", "/app/conversations",
             TestHub::json(QJsonObject{{"conversations", QJsonArray{conversationJson("c1", "One"), conversationJson("c2", "Two")}}}));
    f.hub.on("GET", "/app/cc/sessions", TestHub::json(QJsonObject{{"sessions", QJsonArray{sessionJson("s1", "busy", 1)}}}));
    f.hub.on("GET", "/app/cc/permissions", TestHub::json(QJsonObject{{"permissions", QJsonArray()}}));
    f.hub.on("POST", "/app/cc/permission", TestHub::json(QJsonObject()));
    DBusNotificationCenter center(daemon.bus());
    Notifier notifier(f.clock, f.defaults, center);
    FakeBadge badge;
    AppActivity activity;
    auto model = f.makeModel();
    auto chat = std::make_unique<ChatModel>(f.clock, f.defaults, f.keychain, f.api, notifier, badge, activity);
    WindowOpener opener;
    std::vector<std::optional<QString>> shown;
    QObject::connect(&opener, &WindowOpener::showItem,
                     [&](const std::optional<QString> &conversation, const auto &) { shown.push_back(conversation); });
    QObject context;
    AppDelegate::connectChat(*model, *chat, notifier, opener, &context);
    QWebSocket *server = nullptr;
    QObject::connect(&f.hub, &TestHub::socketConnected, [&](QWebSocket *s) { server = s; });

    int sessionLists = 0;
    QObject::connect(chat.get(), &ChatModel::sessionsChanged, [&] { ++sessionLists; });
    emit model->chatStartWanted(); // paired
    // Sessions and requests loaded, so that the request below is not undone by the first load.
    ASSERT_TRUE(waitUntil([&] { return server && chat->conversations().size() == 2 && sessionLists == 2; }));
    server->sendTextMessage(QJsonDocument(QJsonObject{{"kind", "perm"}, {"request", permissionJson("p1", "s1")}}).toJson());
    ASSERT_TRUE(waitUntil([&] { return daemon.calls("Notify").size() == 1; }));
    const auto notify = daemon.calls("Notify")[0].args;
    EXPECT_EQ(strings(notify[5]), (QStringList{"ALLOW", "Allow", "DENY", "Deny", "default", ""}));
    EXPECT_EQ(hints(notify[6]).value("urgency").toInt(), 2);
    EXPECT_EQ(badge.value, 1);
    ASSERT_TRUE(waitUntil([&] { return center.delivered("cc-s1").size() == 1; }));

    daemon.emitSignal("ActionInvoked", "us", {QVariant::fromValue(1u), QStringLiteral("ALLOW")});
    ASSERT_TRUE(waitUntil([&] { return f.hub.count("POST", "/app/cc/permission") == 1; }));
    EXPECT_EQ(f.hub.requests("POST", "/app/cc/permission")[0].json().toObject(),
              (QJsonObject{{"id", "p1"}, {"allow", true}}));
    ASSERT_TRUE(waitUntil([&] { return daemon.calls("CloseNotification").size() == 1; }));
    EXPECT_EQ(plainValue(daemon.calls("CloseNotification")[0].args[0]).toUInt(), 1u);
    EXPECT_TRUE(chat->permissions().empty());
    EXPECT_EQ(badge.value, 0);
    drain();
    EXPECT_TRUE(shown.empty()) << "an answer opens nothing";

    // The conversation on screen in the active app raises nothing; another one does,
    // and a click on its banner opens it.
    activity.setActive(true);
    chat->setVisible(QStringLiteral("c1"));
    for (const QString conv : {"c1", "c2"})
        server->sendTextMessage(QJsonDocument(QJsonObject{{"kind", "message"},
                                                          {"entry", entryJson("r-" + conv, "assistant", "Hi " + conv, 9, conv)}})
                                    .toJson());
    ASSERT_TRUE(waitUntil([&] { return daemon.calls("Notify").size() == 2; }));
    drain();
    ASSERT_EQ(daemon.calls("Notify").size(), 2u);
    EXPECT_EQ(plainValue(daemon.calls("Notify")[1].args[3]).toString(), "Two");
    daemon.emitSignal("ActionInvoked", "us", {QVariant::fromValue(2u), QStringLiteral("default")});
    ASSERT_TRUE(waitUntil([&] { return shown.size() == 1; }));
    EXPECT_EQ(shown[0], "c2");

    // The agent reaching the hub reloads sessions; unpairing ends the socket.
    const int reloads = f.hub.count("GET", "/app/cc/sessions");
    emit model->sessionsReloadWanted();
    ASSERT_TRUE(waitUntil([&] { return f.hub.count("GET", "/app/cc/sessions") == reloads + 1; }));
    emit model->chatStopWanted();
    ASSERT_TRUE(waitUntil([&] { return server->state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_EQ(server->closeCode(), QWebSocketProtocol::CloseCodeGoingAway);
    chat.reset();
    drain();
}

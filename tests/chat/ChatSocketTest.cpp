// The chat socket over a real WebSocket to the in-process hub, in virtual time.
#include "ChatFixture.h"

#include <QTcpServer>
#include <QTcpSocket>

using namespace zuv;
using namespace zuv::test;

namespace {

const QString ping = QStringLiteral("{\"kind\":\"ping\"}");

struct ChatSocket : ChatFixture, ::testing::Test {};

} // namespace

TEST_F(ChatSocket, opensOnceGoesLiveAtTheFirstFrameAndStopClosesWithGoingAway)
{
    ASSERT_TRUE(connectSocket());
    chat->start(); // a second start keeps the one socket
    drain();
    EXPECT_EQ(hub.sockets().size(), 1u);
    EXPECT_EQ(hub.sockets()[0]->request().url().path(), "/app/ws");
    EXPECT_FALSE(chat->live()) << "a handshake alone is not a live link";
    ASSERT_TRUE(send({}));
    EXPECT_TRUE(chat->live());
    // The first connection loads the list loudly, and sessions and requests once.
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/permissions") == 1; }));
    EXPECT_GE(hub.count("GET", "/app/conversations"), 2);
    EXPECT_EQ(hub.count("GET", "/app/cc/sessions"), 1);

    chat->stop();
    EXPECT_FALSE(chat->live());
    server->sendTextMessage(R"({"kind":"step","target":"cc","ref":"late","step":"x"})");
    ASSERT_TRUE(waitUntil([&] { return server->state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_FALSE(chat->live()) << "a frame after the stop changes nothing";
    EXPECT_FALSE(chat->sessionSteps().contains("late"));
    EXPECT_EQ(server->closeCode(), QWebSocketProtocol::CloseCodeGoingAway);
    drain();
    EXPECT_EQ(clock.sleepers(), 0) << "a stopped loop waits for nothing";
    clock.advance(120);
    drain();
    EXPECT_EQ(hub.sockets().size(), 1u);

    ASSERT_TRUE(connectSocket()) << "started again after a stop";
    EXPECT_EQ(hub.sockets().size(), 2u);
}

TEST_F(ChatSocket, backsOffOneTwoFourEightSixteenThirtyAndStartsOverAtTheFirstFrame)
{
    hub.on("POST", "/agent/app-token", TestHub::error(503, "down"));
    chat->start();
    std::vector<double> waits;
    // The first list load exchanges a token too.
    ASSERT_TRUE(waitUntil([&] { return hub.count("POST", "/agent/app-token") == 2 && clock.sleepers() == 1; }));
    for (int i = 0; i < 7; ++i) {
        const int exchanges = hub.count("POST", "/agent/app-token");
        waits.push_back(clock.nextDeadline());
        clock.advance(waits.back());
        ASSERT_TRUE(waitUntil([&] {
            return hub.count("POST", "/agent/app-token") == exchanges + 1 && clock.sleepers() == 1;
        }));
    }
    EXPECT_EQ(waits, (std::vector<double>{1, 2, 4, 8, 16, 30, 30}));

    // The hub comes back: the handshake alone does not end the back-off, a frame does.
    hub.grantTokens();
    const auto nextWait = [&] {
        EXPECT_TRUE(waitUntil([&] {
            drain(); // a cancelled heartbeat leaves on the next turn
            return !chat->live() && clock.sleepers() == 1;
        }));
        return clock.nextDeadline();
    };
    EXPECT_DOUBLE_EQ(nextWait(), 30);
    clock.advance(30);
    ASSERT_TRUE(waitUntil([&] { return hub.sockets().size() == 1 && received.count(ping) == 1; }));
    server->close();
    EXPECT_DOUBLE_EQ(nextWait(), 30) << "nothing was heard";
    clock.advance(30);
    ASSERT_TRUE(waitUntil([&] { return hub.sockets().size() == 2 && received.count(ping) == 2; }));
    ASSERT_TRUE(send({}));
    server->close();
    EXPECT_DOUBLE_EQ(nextWait(), 1) << "a frame heard starts the back-off over";
}

// The worst case of the stall rule: a frame just after a beat that found 70
// seconds of silence not yet passed ends the link 95 seconds after it.
TEST_F(ChatSocket, aSilentHubIsLeftAfterNinetyFiveSecondsAtMostWithPingsMeanwhile)
{
    ASSERT_TRUE(connectSocket());
    clock.advance(5);
    ASSERT_TRUE(send({}));
    clock.advance(94.875);
    drain();
    EXPECT_EQ(server->state(), QAbstractSocket::ConnectedState);
    EXPECT_TRUE(chat->live());
    ASSERT_TRUE(waitUntil([&] { return received.count(ping) == 4; })) << "the first and one per 25 s";
    clock.advance(0.125);
    ASSERT_TRUE(waitUntil([&] { return server->state() == QAbstractSocket::UnconnectedState; }));
    EXPECT_EQ(server->closeCode(), QWebSocketProtocol::CloseCodeGoingAway);
    EXPECT_FALSE(chat->live());
    clock.advance(1);
    ASSERT_TRUE(waitUntil([&] { return hub.sockets().size() == 2; })) << "dialled again after one second";
}

TEST_F(ChatSocket, badFramesChangeNothingAndLeaveTheSocketOpen)
{
    list("/app/conversations", "conversations", {conversationJson("c1", "Old")});
    ASSERT_TRUE(connectSocket());
    ASSERT_TRUE(waitUntil([&] { return listed("c1"); }));
    // A user's message from elsewhere in a listed chat: it bumps the list and reloads nothing.
    const QString huge = QStringLiteral("{\"kind\":\"message\",\"entry\":{\"id\":\"h\",\"role\":\"user\",\"text\":\"%1\","
                                        "\"at\":5,\"conversation\":\"c1\",\"channel\":\"telegram\"}}")
                             .arg(QString(6 * 1024 * 1024, QLatin1Char('x')));
    server->sendBinaryMessage(QByteArray(1000, '\1'));
    ASSERT_TRUE(send({"not json", "[1,2]", "{\"kind\":\"nope\"}", "{\"kind\":\"message\"}", "{\"kind\":5}",
                      "{\"kind\":\"message\",\"entry\":{\"id\":\"x\"}}", "{\"kind\":\"titles\",\"titles\":[{\"id\":\"c1\"}]}",
                      "{\"kind\":\"perm\",\"request\":{\"id\":\"p\"}}", "{\"kind\":\"deleted\",\"conversation\":7}",
                      "{\"kind\":\"titles\",\"titles\":[{\"id\":\"c1\",\"title\":\"\"}]}", huge}));
    EXPECT_EQ(listed("c1")->title, "Old");
    EXPECT_EQ(listed("c1")->preview.size(), 140);
    EXPECT_TRUE(chat->entries().empty());
    EXPECT_TRUE(chat->permissions().empty());
    EXPECT_TRUE(chat->deleted().isEmpty());
    ASSERT_TRUE(frame({{"kind", "titles"}, {"titles", QJsonArray{QJsonObject{{"id", "c1"}, {"title", "New"}}}}}));
    EXPECT_EQ(listed("c1")->title, "New");
    EXPECT_EQ(hub.sockets().size(), 1u);
    EXPECT_EQ(server->state(), QAbstractSocket::ConnectedState);
}

// What a dead socket let slip is repaired by the quiet reloads of the next connection.
TEST_F(ChatSocket, aReconnectRepairsWhatWasMissed)
{
    hub.on("GET", "/app/history", TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("u1", "user", "hi", 1000, "c1")}}}));
    list("/app/conversations", "conversations", {conversationJson("c1")});
    ASSERT_TRUE(connectSocket());
    await(chat->refresh("c1"));
    ASSERT_TRUE(frame({{"kind", "message"}, {"entry", entryJson("u2", "user", "more", 2000, "c1")}}));
    EXPECT_TRUE(chat->waiting().contains("c1"));
    EXPECT_EQ(ids("c1"), (QStringList{"u1", "u2"}));

    hub.on("GET", "/app/history",
           TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("u1", "user", "hi", 1000, "c1"),
                                                             entryJson("u2", "user", "more", 2000, "c1"),
                                                             entryJson("a1", "assistant", "answer", 3000, "c1")}}}));
    const int loads = hub.count("GET", "/app/history");
    server->close();
    ASSERT_TRUE(waitUntil([&] { return !chat->live() && clock.sleepers() > 0; }));
    clock.advance(1);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/history") > loads && !chat->waiting().contains("c1"); }));
    EXPECT_EQ(ids("c1"), (QStringList{"u1", "u2", "a1"}));
    EXPECT_FALSE(chat->error()) << "reloads after the first connection are quiet";
}

TEST_F(ChatSocket, aRefusedHandshakeWith401ForgetsTheAccessToken)
{
    QTcpServer raw;
    ASSERT_TRUE(raw.listen(QHostAddress::LocalHost, 0));
    // Every exchange hands out a new token; the upgrades say which one they bring.
    int exchanges = 0;
    QList<QByteArray> upgrades;
    QObject::connect(&raw, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *peer = raw.nextPendingConnection()) {
            QObject::connect(peer, &QTcpSocket::readyRead, peer, [&exchanges, &upgrades, peer] {
                const QByteArray request = peer->readAll();
                QByteArray status = "500 Internal Server Error", body = "{}";
                if (request.contains("/agent/app-token")) {
                    status = "200 OK";
                    body = QByteArray(R"({"accessToken":"a)") + QByteArray::number(++exchanges) + R"(","expiresAt":4e12})";
                } else if (request.contains("/app/ws")) {
                    upgrades << request.mid(request.indexOf("Bearer "), 9);
                    status = "401 Unauthorized";
                }
                peer->write("HTTP/1.1 " + status + "\r\nContent-Type: application/json\r\nConnection: close\r\n"
                            "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
                peer->disconnectFromHost();
            });
        }
    });
    ChatFixture f(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(raw.serverPort())));
    await(f.api.token()); // held before the start, so that only a cleared token makes a new exchange
    f.chat->start();
    ASSERT_TRUE(waitUntil([&] { return upgrades.size() == 1 && f.clock.sleepers() == 1; }));
    f.clock.advance(1);
    ASSERT_TRUE(waitUntil([&] { return upgrades.size() == 2; }));
    EXPECT_EQ(upgrades[0], "Bearer a1");
    EXPECT_EQ(upgrades[1], "Bearer a2") << "the refused token is not offered again";
    EXPECT_FALSE(f.chat->live());
}

TEST_F(ChatSocket, comingForwardCatchesUpOnceAtATime)
{
    int sessionLists = 0;
    QObject::connect(chat.get(), &ChatModel::sessionsChanged, [&] { ++sessionLists; });
    ASSERT_TRUE(connectSocket());
    ASSERT_TRUE(waitUntil([&] { return sessionLists == 2; })) << "sessions and requests loaded";
    drain();
    hub.on("GET", "/app/conversations", [](const TestHub::Request &) {
        TestHub::Response r = TestHub::json(QJsonObject{{"conversations", QJsonArray()}});
        r.delayMs = 300;
        return r;
    });
    const int lists = hub.count("GET", "/app/conversations");
    const int sessions = hub.count("GET", "/app/cc/sessions");
    activity.setActive(true);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/conversations") == lists + 1; }));
    activity.setActive(false);
    activity.setActive(true);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/cc/sessions") == sessions + 1; }));
    EXPECT_EQ(hub.count("GET", "/app/conversations"), lists + 1) << "no second catch-up while one runs";
    ASSERT_TRUE(waitUntil([&] { return sessionLists == 3; })) << "the catch-up's last step";
    drain();
    activity.setActive(false);
    activity.setActive(true);
    ASSERT_TRUE(waitUntil([&] { return hub.count("GET", "/app/conversations") == lists + 2; }));
}

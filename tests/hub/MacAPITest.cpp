#include "base/Clock.h"
#include "hub/MacAPI.h"
#include "base/Keychain.h"

#include "Fixture.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QTcpServer>
#include <QTcpSocket>

#include <QDateTime>
#include <QFile>
#include <QNetworkAccessManager>
#include <QWebSocket>

using namespace zuv;
using test::TestHub;

namespace {

struct Thing {
    QString name;
    static Thing fromJson(const QJsonObject &o) { return {json::required<QString>(o, "name")}; }
};

class MacAPITest : public ::testing::Test, protected test::HubFixture {
protected:
    MacAPITest() : HubFixture(std::nullopt, nullptr, 1.8e9)
    {
        keychain.setToken(QStringLiteral("agent-secret"));
        hub.on("POST", "/agent/app-token", [this](const TestHub::Request &request) {
            ++exchanges;
            lastExchangeAuth = request.header("authorization");
            QJsonObject reply{{"accessToken", QStringLiteral("access-%1").arg(exchanges)},
                              {"expiresAt", (clock.now() + tokenLife) * 1000}};
            if (!device.isEmpty())
                reply.insert("device", device);
            return TestHub::json(reply);
        });
    }

    template<class T>
    T get(const QString &path) { return test::await(api.get<T>(path)); }

    // The failure a call ends with; fails the test when it succeeds.
    template<class F>
    MacAPI::Failure failureOf(F &&call)
    {
        try {
            call();
        } catch (const MacAPI::Failure &failure) {
            return failure;
        }
        ADD_FAILURE() << "no failure";
        return MacAPI::Failure::notPaired();
    }

    int exchanges = 0;
    double tokenLife = 3600;
    QString device;
    QByteArray lastExchangeAuth;
};

} // namespace

TEST_F(MacAPITest, aStaleTokenIsRenewedAndTheRequestRepeatedOnce)
{
    hub.sequence("GET", "/app/thing", {TestHub::error(401, "expired"), TestHub::json(QJsonObject{{"name", "ok"}})});
    EXPECT_EQ(get<Thing>("/app/thing").name, "ok");
    const auto calls = hub.requests("GET", "/app/thing");
    ASSERT_EQ(calls.size(), 2);
    EXPECT_EQ(calls[0].header("authorization"), "Bearer access-1");
    EXPECT_EQ(calls[1].header("authorization"), "Bearer access-2");
    EXPECT_EQ(lastExchangeAuth, "Bearer agent-secret");
    EXPECT_EQ(exchanges, 2);
}

TEST_F(MacAPITest, aSecond401ReachesTheCaller)
{
    hub.on("GET", "/app/thing", TestHub::error(401, "Token revoked", "REVOKED"));
    const auto failure = failureOf([&] { get<Thing>("/app/thing"); });
    EXPECT_EQ(failure.kind(), MacAPI::Failure::Kind::http);
    EXPECT_EQ(failure.status(), 401);
    EXPECT_EQ(failure.code(), "REVOKED");
    EXPECT_EQ(failure.localizedDescription(), "Token revoked");
    EXPECT_EQ(hub.count("GET", "/app/thing"), 2);
}

TEST_F(MacAPITest, failuresKeepTheHubsWordsOrSayTheStatus)
{
    TestHub::Response bare;
    bare.status = 502;
    bare.body = "<html>bad gateway</html>";
    hub.on("GET", "/app/thing", bare);
    auto failure = failureOf([&] { get<Thing>("/app/thing"); });
    EXPECT_EQ(failure.status(), 502);
    EXPECT_TRUE(failure.message().isEmpty());
    EXPECT_TRUE(failure.code().isEmpty());
    EXPECT_EQ(failure.localizedDescription(), "Zuv server error 502");
    EXPECT_EQ(hub.count("GET", "/app/thing"), 1) << "only 401 is repeated";

    hub.on("DELETE", "/app/conversations/x", TestHub::error(404, "No such conversation", "SESSION_GONE"));
    failure = failureOf([&] { test::await(api.call<MacAPI::Ignored>("/app/conversations/x", "DELETE")); });
    EXPECT_EQ(failure.code(), "SESSION_GONE");

    // A 2xx body of the wrong shape is a decoding error, not a hub failure.
    hub.on("GET", "/app/thing", TestHub::json(QJsonObject{{"other", 1}}));
    EXPECT_THROW(get<Thing>("/app/thing"), DecodingError);

    // No HTTP answer at all is the transport's own error.
    MacAPI dead(clock, keychain, network, QUrl("http://127.0.0.1:1"));
    EXPECT_THROW(test::await(dead.get<Thing>("/app/thing")), NetworkError);
}

TEST_F(MacAPITest, bodiesAndVerbsGoOutAsGiven)
{
    hub.on("POST", "/app/seen", TestHub::json(QJsonObject{}));
    test::await(api.call<MacAPI::Ignored>("/app/seen", "POST", QJsonObject{{"conversation", "main"}}));
    const auto sent = hub.requests("POST", "/app/seen").at(0);
    EXPECT_EQ(sent.header("content-type"), "application/json");
    EXPECT_EQ(sent.json().toObject().value("conversation").toString(), "main");

    hub.on("GET", "/app/search", TestHub::json(QJsonValue::Null));
    EXPECT_FALSE(get<std::optional<Thing>>("/app/search?q=a%20b&limit=30"));
    EXPECT_EQ(hub.requests("GET", "/app/search").at(0).query("q"), "a b");
}

TEST_F(MacAPITest, tokensAreReusedWhileTheyLiveMoreThan120Seconds)
{
    hub.on("GET", "/app/thing", TestHub::json(QJsonObject{{"name", "x"}}));
    tokenLife = 121;
    get<Thing>("/app/thing");
    get<Thing>("/app/thing");
    EXPECT_EQ(exchanges, 1);

    tokenLife = 119;
    api.clearAccess();
    get<Thing>("/app/thing"); // fetches a token with 119 s to live
    get<Thing>("/app/thing"); // which is too short: fetches again
    EXPECT_EQ(exchanges, 3);

    // expiresAt counts milliseconds since 1970.
    hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"accessToken", "t"}, {"expiresAt", 1.7e12}}));
    api.clearAccess();
    test::await(api.token());
    ASSERT_TRUE(api.access());
    EXPECT_DOUBLE_EQ(api.access()->until, 1.7e9);
    EXPECT_EQ(QDateTime::fromSecsSinceEpoch(qint64(api.access()->until), Qt::UTC).date(), QDate(2023, 11, 14));
}

TEST_F(MacAPITest, theExchangeFailsOnAnythingBut200AndABadBodyKeepsTheOldToken)
{
    test::await(api.token());
    const auto held = api.access();
    hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"accessToken", "x"}}, 201));
    api.clearAccess();
    auto failure = failureOf([&] { test::await(api.token()); });
    EXPECT_EQ(failure.status(), 201);
    EXPECT_TRUE(failure.message().isEmpty());

    // Put the old token back by hand through a good exchange, then break the body.
    hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"accessToken", "kept"}, {"expiresAt", 1.81e12}}));
    test::await(api.token());
    clock.advance(1e7);
    hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"expiresAt", 5}}));
    EXPECT_THROW(test::await(api.token()), DecodingError);
    ASSERT_TRUE(api.access());
    EXPECT_EQ(api.access()->token, "kept");
    Q_UNUSED(held);
}

TEST_F(MacAPITest, withoutAnAgentTokenNothingTouchesTheNetwork)
{
    keychain.setToken(std::nullopt);
    hub.on("GET", "/app/thing", TestHub::json(QJsonObject{{"name", "x"}}));
    const auto failure = failureOf([&] { get<Thing>("/app/thing"); });
    EXPECT_EQ(failure.kind(), MacAPI::Failure::Kind::notPaired);
    EXPECT_EQ(failure.localizedDescription(), "This computer isn't paired with a Zuv account.");
    EXPECT_TRUE(hub.requests().isEmpty());
    EXPECT_THROW(test::await(api.upload("/etc/hostname", "h", "text/plain")), MacAPI::Failure);
    EXPECT_TRUE(hub.requests().isEmpty());

    // An unexpired access token still serves after unpairing, until it runs out.
    keychain.setToken(QStringLiteral("agent-secret"));
    get<Thing>("/app/thing");
    keychain.setToken(std::nullopt);
    EXPECT_EQ(get<Thing>("/app/thing").name, "x");
    clock.advance(3600);
    EXPECT_THROW(get<Thing>("/app/thing"), MacAPI::Failure);
}

TEST_F(MacAPITest, uploadsStreamTheFileAndNameTheirFailures)
{
    test::TempHome home;
    const QString path = home.file("photo & notes.bin");
    QByteArray content(3 * 1024 * 1024, '\0');
    for (int i = 0; i < content.size(); ++i)
        content[i] = char(i * 7);
    test::writeText(path, content);

    hub.on("PUT", "/app/media", [](const TestHub::Request &r) {
        return TestHub::json(QJsonObject{{"key", "k1"}, {"name", r.query("name")}, {"mime", QString::fromUtf8(r.header("content-type"))}});
    });
    const QString name = "a&b=c?d #1 é.bin";
    const Entry::File file = test::await(api.upload(path, name, "application/x-test"));
    EXPECT_EQ(file.key, "k1");
    EXPECT_EQ(file.name, name);
    EXPECT_EQ(file.mime, "application/x-test");
    const auto sent = hub.requests("PUT", "/app/media").at(0);
    EXPECT_EQ(sent.body, content);
    EXPECT_TRUE(sent.rawTarget.contains("name=a%26b%3Dc%3Fd%20%231%20%C3%A9.bin")) << sent.rawTarget.constData();

    hub.on("PUT", "/app/media", TestHub::error(413, "too big"));
    auto failure = failureOf([&] { test::await(api.upload(path, "x", "image/png")); });
    EXPECT_EQ(failure.status(), 413);
    EXPECT_EQ(failure.localizedDescription(), "Larger than 100 MB");

    hub.on("PUT", "/app/media", TestHub::error(500, "disk full"));
    failure = failureOf([&] { test::await(api.upload(path, "x", "image/png")); });
    EXPECT_EQ(failure.status(), 500);
    EXPECT_EQ(failure.localizedDescription(), "Upload failed");

    hub.on("PUT", "/app/media", TestHub::error(401, "stale"));
    hub.clear();
    EXPECT_THROW(test::await(api.upload(path, "x", "image/png")), MacAPI::Failure);
    EXPECT_EQ(hub.count("PUT", "/app/media"), 1) << "uploads are not repeated on 401";

    EXPECT_THROW(test::await(api.upload(home.file("missing"), "x", "image/png")), Error);
}

TEST_F(MacAPITest, mediaLinksAreCachedFor720Seconds)
{
    int served = 0;
    hub.on("GET", "/app/media-url", [&](const TestHub::Request &r) {
        ++served;
        return TestHub::json(QJsonObject{{"url", QStringLiteral("https://media.example/%1?sig=%2").arg(r.query("key")).arg(served)}});
    });
    const auto first = test::await(api.mediaURL("a/b&c"));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->toString(), "https://media.example/a/b&c?sig=1");
    clock.advance(719);
    EXPECT_EQ(test::await(api.mediaURL("a/b&c")), first);
    EXPECT_EQ(served, 1);
    clock.advance(2);
    EXPECT_EQ(test::await(api.mediaURL("a/b&c"))->toString(), "https://media.example/a/b&c?sig=2");
    EXPECT_EQ(served, 2);

    // Failures give none and leave nothing behind.
    hub.on("GET", "/app/media-url", TestHub::error(500, "down"));
    EXPECT_FALSE(test::await(api.mediaURL("other")));
    hub.on("GET", "/app/media-url", TestHub::json(QJsonValue::Null));
    EXPECT_FALSE(test::await(api.mediaURL("other")));
    hub.on("GET", "/app/media-url", TestHub::json(QJsonObject{{"url", "not a url with spaces"}}));
    EXPECT_FALSE(test::await(api.mediaURL("other")));
    EXPECT_EQ(hub.count("GET", "/app/media-url"), 5);
    MacAPI dead(clock, keychain, network, QUrl("http://127.0.0.1:1"));
    EXPECT_FALSE(test::await(dead.mediaURL("x")));
}

TEST_F(MacAPITest, theQueryValueSetLeavesNoDelimiterBare)
{
    EXPECT_EQ(MacAPI::encodeQueryValue("a&b+c=d?e#f"), "a%26b%2Bc%3Dd%3Fe%23f");
    EXPECT_EQ(MacAPI::encodeQueryValue("x/y:z@w!$'()*,;~._-"), "x/y:z@w!$'()*,;~._-");
    EXPECT_EQ(MacAPI::encodeQueryValue("ü %"), "%C3%BC%20%25");
}

TEST_F(MacAPITest, thisMacAsksForAnExchangeUntilTheDeviceIsKnown)
{
    EXPECT_EQ(test::await(api.thisMac()), std::nullopt);
    EXPECT_EQ(exchanges, 1);
    EXPECT_EQ(test::await(api.thisMac()), std::nullopt);
    EXPECT_EQ(exchanges, 2) << "an unknown device forces a new exchange";

    device = "dev-1";
    EXPECT_EQ(test::await(api.thisMac()), "dev-1");
    device.clear(); // a reply without a device keeps the old one
    api.clearAccess();
    test::await(api.token());
    EXPECT_EQ(test::await(api.thisMac()), "dev-1");
    EXPECT_EQ(exchanges, 4);

    keychain.setToken(std::nullopt);
    api.clearAccess();
    EXPECT_EQ(test::await(api.thisMac()), "dev-1") << "never throws";
}

TEST_F(MacAPITest, theSocketOpensOnAppWsWithTheAccessToken)
{
    QWebSocket *server = nullptr;
    QObject::connect(&hub, &TestHub::socketConnected, [&](QWebSocket *s) { server = s; });
    auto socket = test::await(api.socket());
    ASSERT_TRUE(socket);
    ASSERT_TRUE(test::waitUntil([&] { return server && socket->state() == QAbstractSocket::ConnectedState; }));
    EXPECT_EQ(server->requestUrl().path(), "/app/ws");
    EXPECT_EQ(server->request().rawHeader("authorization"), "Bearer access-1");

    QString received;
    QObject::connect(socket.get(), &QWebSocket::textMessageReceived, [&](const QString &m) { received = m; });
    server->sendTextMessage("hello");
    EXPECT_TRUE(test::waitUntil([&] { return received == "hello"; }));
}

// A hub that takes the connection and never finishes the handshake: the socket
// gives up after 60 seconds of (virtual) time, and not a moment before.
TEST(MacAPISocket, aHandshakeThatNeverFinishesIsAbortedAfterSixtySeconds)
{
    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    int upgrades = 0;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *peer = server.nextPendingConnection()) {
            QObject::connect(peer, &QTcpSocket::readyRead, peer, [&upgrades, peer] {
                const QByteArray request = peer->readAll();
                if (request.contains("/agent/app-token")) {
                    const QByteArray body = R"({"accessToken":"a","expiresAt":4e12})";
                    peer->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                                + QByteArray::number(body.size()) + "\r\n\r\n" + body);
                } else if (request.contains("/app/ws")) {
                    ++upgrades; // and never a word back
                }
            });
        }
    });
    test::HubFixture f(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort())));
    f.keychain.setToken(QStringLiteral("agent"));
    auto socket = test::await(f.api.socket());
    ASSERT_TRUE(test::waitUntil([&] { return upgrades == 1; }));
    bool ended = false;
    QObject::connect(socket.get(), &QWebSocket::disconnected, [&] { ended = true; });
    f.clock.advance(59.875);
    test::drain();
    EXPECT_FALSE(ended);
    EXPECT_NE(socket->state(), QAbstractSocket::UnconnectedState);
    f.clock.advance(0.125);
    ASSERT_TRUE(test::waitUntil([&] { return ended || socket->state() == QAbstractSocket::UnconnectedState; }));
}

TEST(TestHubItself, aBodyThatIsNoDocumentFailsLoudly)
{
    EXPECT_THROW(test::TestHub::json(QJsonValue(5)), std::invalid_argument);
    EXPECT_THROW(test::TestHub::json(QJsonValue(QStringLiteral("x"))), std::invalid_argument);
    EXPECT_THROW(test::TestHub::json(QJsonValue(QJsonValue::Undefined)), std::invalid_argument);
    EXPECT_EQ(test::TestHub::json(QJsonValue::Null).body, "null");
}

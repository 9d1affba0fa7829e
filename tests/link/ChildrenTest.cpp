// The agent and screen helper as the app starts them: their environment, and the
// real programs against the test hub.
#include "base/Clock.h"
#include "base/Defaults.h"
#include "hub/MacAPI.h"
#include "install/Updates.h"
#include "base/Build.h"
#include "link/AppModel.h"
#include "base/Keychain.h"
#include "link/LoginShell.h"

#include "Fixture.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>

#include <QDir>
#include <QFile>
#include <QLocalSocket>
#include <QNetworkAccessManager>
#include <QWebSocket>

using namespace zuv;
using test::TestHub;

namespace {

class ChildrenTest : public ::testing::Test, protected test::HubFixture {
protected:
    explicit ChildrenTest(QUrl server = QUrl("https://hub.zuv.invalid")) : HubFixture(server)
    {
        qputenv("HOME", home.path().toUtf8());
        qunsetenv("TMPDIR");
        qputenv("SHELL", "/bin/sh");
        LoginShell::clearCache();
    }

    std::unique_ptr<AppModel> makeModel(const QUrl &server, const QString &build = QStringLiteral(ZUV_BUILD_TREE))
    {
        return std::make_unique<AppModel>(
            clock, defaults, keychain, api, network, server,
            AppModel::Locations{build + "/libexec/zuv", build + "/share/zuv/agent", home.file("data"),
                                home.file("logs")});
    }

};

} // namespace

TEST_F(ChildrenTest, theAgentsEnvironmentIsExactlyTheTable)
{
    keychain.setToken(QStringLiteral("tok"));
    auto model = makeModel(QUrl("https://hub.example.org"));
    auto env = model->agentEnvironment();
    EXPECT_EQ(env["ZUV_HUB_URL"], "wss://hub.example.org/agent/ws");
    EXPECT_EQ(env["ZUV_API_URL"], "https://hub.example.org");
    EXPECT_EQ(env["ZUV_AGENT_TOKEN"], "tok");
    EXPECT_EQ(env["ZUV_SITE"], "mac");
    EXPECT_EQ(env["ZUV_NO_ENV_FILE"], "1");
    EXPECT_EQ(env["ZUV_PREBUILT"], "1");
    EXPECT_EQ(env["ZUV_APP_CONTROL"], "1");
    EXPECT_EQ(env["ZUV_BIN_DIR"], model->locations().helpers);
    EXPECT_EQ(env["ZUV_WORK_DIR"], home.file("data") + "/work");
    EXPECT_EQ(env["ZUV_SCREEN_SOCKET"], home.file("data") + "/screen.sock");
    EXPECT_EQ(env["ZUV_AWAKE_STATUS"], home.file("data") + "/awake-helper.json");
    EXPECT_EQ(env["ZUV_BUILD"], Build::number());
    EXPECT_EQ(env["ZUV_VERSION"], Build::version());
    EXPECT_EQ(env["HOME"], home.path());
    EXPECT_EQ(env["SHELL"], "/bin/sh");
    EXPECT_EQ(env["PATH"], LoginShell::path());
    EXPECT_EQ(env.count("TMPDIR"), 0u) << "missing in ours: absent in the child's, not empty";
    const QStringList expected{"HOME", "LANG", "LOGNAME", "PATH", "SHELL", "USER", "ZUV_AGENT_TOKEN",
                               "ZUV_API_URL", "ZUV_APP_CONTROL", "ZUV_AWAKE_STATUS", "ZUV_BIN_DIR", "ZUV_BUILD",
                               "ZUV_HUB_URL", "ZUV_NO_ENV_FILE", "ZUV_PREBUILT", "ZUV_SCREEN_SOCKET", "ZUV_SITE",
                               "ZUV_VERSION", "ZUV_WORK_DIR",
                               // the desktop's, when set
                               "DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "DBUS_SESSION_BUS_ADDRESS",
                               "DBUS_SYSTEM_BUS_ADDRESS"};
    for (const auto &[key, value] : env)
        EXPECT_TRUE(expected.contains(key)) << key.toStdString();

    keychain.setToken(std::nullopt);
    EXPECT_EQ(model->agentEnvironment()["ZUV_AGENT_TOKEN"], "");
    EXPECT_EQ(makeModel(QUrl("http://127.0.0.1:9"))->agentEnvironment()["ZUV_HUB_URL"], "http://127.0.0.1:9/agent/ws");
}

TEST_F(ChildrenTest, theOwnersEnvFileNeedsBothTheFlagAndTheFile)
{
    auto model = makeModel(QUrl("https://hub.example.org"));
    const QString envFile = home.file(".config/zuv-agent/agent.env");
    test::writeText(envFile, "X=1\n");
    EXPECT_EQ(model->agentEnvironment()["ZUV_NO_ENV_FILE"], "1") << "file without pairedOwner";
    defaults.set("pairedOwner", true);
    EXPECT_EQ(model->agentEnvironment().count("ZUV_NO_ENV_FILE"), 0u);
    QFile::remove(envFile);
    EXPECT_EQ(model->agentEnvironment()["ZUV_NO_ENV_FILE"], "1") << "pairedOwner without file";
}

TEST_F(ChildrenTest, theAgentSourceSettingNeedsAMainModule)
{
    auto model = makeModel(QUrl("https://hub.example.org"));
    EXPECT_EQ(model->agentSource(), model->locations().agentRoot);
    test::writeText(home.file("dev-agent/src/main.mjs"), "");
    defaults.set("agentSource", "~/dev-agent");
    EXPECT_EQ(model->agentSource(), home.file("dev-agent"));
    defaults.set("agentSource", home.file("empty"));
    EXPECT_EQ(model->agentSource(), model->locations().agentRoot);
    defaults.set("agentSource", 5);
    EXPECT_EQ(model->agentSource(), model->locations().agentRoot);
}

// As a new user meets it: the real agent on node and the real screen helper.
TEST_F(ChildrenTest, theRealAgentFollowsTheHubAndARevocationStopsOnlyIt)
{
    TestHub hub;
    QWebSocket *agentSocket = nullptr;
    QObject::connect(&hub, &TestHub::socketConnected, [&](QWebSocket *s) { agentSocket = s; });
    keychain.setToken(QStringLiteral("agent-token-9"));
    MacAPI hubApi(clock, keychain, network, hub.url());
    AppModel model(clock, defaults, keychain, hubApi, network, hub.url(),
                   {QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv", QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent",
                    home.file("data"), home.file("logs")});
    ASSERT_EQ(model.pairing().state, AppModel::Pairing::State::paired);
    model.startChildren();

    ASSERT_TRUE(test::waitUntil([&] { return model.connected(); }, 20000))
        << test::readText(home.file("logs/agent.log")).toStdString();
    ASSERT_TRUE(agentSocket);
    EXPECT_EQ(agentSocket->requestUrl().path(), "/agent/ws");
    EXPECT_EQ(agentSocket->request().rawHeader("authorization"), "Bearer agent-token-9");
    EXPECT_EQ(model.agentState(), Child::State::running);
    ASSERT_TRUE(test::waitUntil([&] { return model.screenState() == Child::State::running; }));

    agentSocket->close(QWebSocketProtocol::CloseCode(4401));
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == AppModel::Pairing::State::unpaired; }, 10000));
    EXPECT_FALSE(keychain.token());
    EXPECT_EQ(model.lastError(), AppModel::revokedText());
    ASSERT_TRUE(test::waitUntil([&] { return model.agentState() == Child::State::stopped; }, 10000));
    EXPECT_FALSE(model.connected());
    clock.advance(120);
    test::drain();
    EXPECT_EQ(model.agent().process(), nullptr) << "not restarted";

    // The screen helper runs on and answers on its socket.
    EXPECT_EQ(model.screenState(), Child::State::running);
    QLocalSocket screen;
    screen.connectToServer(model.screenSocket());
    ASSERT_TRUE(screen.waitForConnected(3000));
    screen.write("ping\n");
    ASSERT_TRUE(test::waitUntil([&] { return screen.canReadLine(); }));
    EXPECT_EQ(screen.readLine(), "pong\n");

    model.stopChildren();
    ASSERT_TRUE(test::waitUntil([&] { return model.screenState() == Child::State::stopped; }));
    EXPECT_FALSE(QFile::exists(model.screenSocket())) << "the helper removes its socket";
    EXPECT_TRUE(test::readText(home.file("logs/screen.log")).contains("zuv-screen listening on"));
}

namespace {

// A hub that completes the WebSocket handshake and then says nothing, not even
// the pong a ping asks for: what a link looks like after a suspend.
class SilentHub : public QObject {
public:
    SilentHub()
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    const QByteArray request = socket->peek(8192);
                    if (!request.contains("\r\n\r\n") || socket->property("open").toBool())
                        return socket->readAll(), void();
                    socket->readAll();
                    QByteArray key;
                    for (const QByteArray &line : request.split('\n'))
                        if (line.toLower().startsWith("sec-websocket-key:"))
                            key = line.mid(18).trimmed();
                    const QByteArray accept =
                        QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11", QCryptographicHash::Sha1)
                            .toBase64();
                    socket->write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                  "Sec-WebSocket-Accept: " + accept + "\r\n\r\n");
                    socket->setProperty("open", true);
                    ++handshakes;
                });
            }
        });
    }
    quint16 port() const { return m_server.serverPort(); }
    int handshakes = 0;

private:
    QTcpServer m_server;
};

} // namespace

// The agent itself, run by hand: no pong within the wait after a ping drops the
// link and dials again, so "connected" never lies for long.
TEST(Agent, aLinkThatStopsAnsweringPingsIsDroppedAndDialledAgain)
{
    SilentHub hub;
    QProcess agent;
    QProcessEnvironment env;
    env.insert("PATH", "/usr/bin:/bin");
    env.insert("ZUV_HUB_URL", QStringLiteral("ws://127.0.0.1:%1/agent/ws").arg(hub.port()));
    env.insert("ZUV_AGENT_TOKEN", "t");
    env.insert("ZUV_AGENT_PING_MS", "100");
    env.insert("ZUV_AGENT_PONG_WAIT_MS", "300");
    agent.setProcessEnvironment(env);
    agent.setProcessChannelMode(QProcess::MergedChannels);
    agent.start(QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv/node",
                {QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent/src/main.mjs"});
    ASSERT_TRUE(agent.waitForStarted(5000));
    QByteArray output;
    ASSERT_TRUE(test::waitUntil([&] { output += agent.readAll(); return hub.handshakes >= 2; }, 15000))
        << output.toStdString();
    output += agent.readAll();
    EXPECT_TRUE(output.contains("hub connected"));
    EXPECT_TRUE(output.contains("hub silent")) << output.toStdString();
    EXPECT_TRUE(output.contains("hub closed 1006")) << output.toStdString();

    // The app's end of stdin closing is the agent's cue to go.
    agent.closeWriteChannel();
    ASSERT_TRUE(agent.waitForFinished(5000));
    EXPECT_EQ(agent.exitCode(), 0);
}

// The real executable, started the way a user starts it, against the test hub.
#include "MockNotificationDaemon.h"
#include "PrivateSystemBus.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSysInfo>
#include <QLockFile>
#include <QProcess>
#include <QWebSocket>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusVariant>

#include <optional>

#include <csignal>

using namespace zuv;
using test::TestHub;

namespace {

class AppTest : public ::testing::Test {
protected:
    AppTest()
    {
        for (const char *dir : {"data", "state", "config", "run"})
            QDir().mkpath(home.file(dir));
        QFile::setPermissions(home.file("run"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        writeDefaults(QJsonObject{{"server", hub.url().toString()}});
        hub.on("POST", "/pair/start", TestHub::json(QJsonObject{{"code", "Q7X2"}, {"secret", "s"}, {"expiresAt", 1.9e12}}));
        hub.on("POST", "/pair/poll", TestHub::json(QJsonObject{{"status", "pending"}}));
    }

    ~AppTest() override
    {
        for (auto &process : processes) {
            process->terminate();
            if (!process->waitForFinished(5000))
                process->kill();
            process->waitForFinished(2000);
        }
    }

    void writeDefaults(const QJsonObject &values)
    {
        test::writeText(home.file("config/Zuv/defaults.json"), QJsonDocument(values).toJson());
    }

    QProcessEnvironment environment() const
    {
        auto env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", home.file("data"));
        env.insert("XDG_STATE_HOME", home.file("state"));
        env.insert("XDG_CONFIG_HOME", home.file("config"));
        env.insert("XDG_RUNTIME_DIR", home.file("run"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        // Keep the token out of the developer's own keyring.
        env.insert("DBUS_SESSION_BUS_ADDRESS", bus.isEmpty() ? QStringLiteral("unix:path=/nonexistent/bus") : bus);
        env.remove("DISPLAY");
        return env;
    }

    QProcess *launch(const QStringList &arguments, std::optional<QProcessEnvironment> env = std::nullopt)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(env.value_or(environment()));
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process->start(QStringLiteral(ZUV_EXECUTABLE), arguments);
        EXPECT_TRUE(process->waitForStarted(5000));
        processes.push_back(std::move(process));
        return processes.back().get();
    }

    QString appLog() const { return test::readText(home.file("state/Zuv/logs/app.log")); }

    bool logSays(const QString &text, int timeoutMs = 15000) const
    {
        return test::waitUntil([&] { return appLog().contains(text); }, timeoutMs);
    }

    test::TempHome home;
    TestHub hub;
    QString bus; // a session bus of the test's own, if any
    std::vector<std::unique_ptr<QProcess>> processes;
};

} // namespace

TEST_F(AppTest, startsLogsAndPairsWithThePairFlag)
{
    QProcess *app = launch({"--pair"});
    ASSERT_TRUE(logSays(" started, pid ")) << appLog().toStdString();
    ASSERT_TRUE(logSays("pairing code Q7X2")) << appLog().toStdString();
    ASSERT_TRUE(logSays("pairing link zuvkel://pair/Q7X2"));
    EXPECT_EQ(hub.count("POST", "/pair/start"), 1);
    // Lines read "<ISO 8601 time> <text>".
    EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ Zuv ").match(appLog()).hasMatch());
    // The app polls every two seconds in real time.
    EXPECT_TRUE(test::waitUntil([&] { return hub.count("POST", "/pair/poll") >= 1; }, 8000));
    EXPECT_EQ(app->state(), QProcess::Running);
}

TEST_F(AppTest, aSecondLaunchHandsItsArgumentsToTheFirstAndExits)
{
    QProcess *first = launch({});
    ASSERT_TRUE(logSays(" started, pid "));
    EXPECT_EQ(hub.count("POST", "/pair/start"), 0);

    QProcess *second = launch({"--pair"});
    ASSERT_TRUE(test::waitUntil([&] { return second->state() == QProcess::NotRunning; }, 15000));
    EXPECT_EQ(second->exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second->exitCode(), 0);
    ASSERT_TRUE(logSays("another launch handed over: --pair"));
    ASSERT_TRUE(logSays("pairing code Q7X2"));
    EXPECT_EQ(first->state(), QProcess::Running);
    EXPECT_EQ(appLog().count(" started, pid "), 1) << "the second launch never started a second app";
}

TEST_F(AppTest, aLockLeftByADeadProcessDoesNotBlockTheStart)
{
    // What a crashed app leaves: a lock naming a process that no longer runs.
    QProcess dead;
    dead.start("/bin/true");
    dead.waitForFinished();
    const qint64 gonePid = dead.processId() ? dead.processId() : 999999;
    QDir().mkpath(home.file("run/zuv"));
    QFile::setPermissions(home.file("run/zuv"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    test::writeText(home.file("run/zuv/zuv.lock"), QByteArray::number(gonePid) + "\nzuv\n" + QSysInfo::machineHostName().toUtf8() + "\n");
    launch({});
    EXPECT_TRUE(logSays(" started, pid "));
}

TEST_F(AppTest, aPairedAppRunsTheAgentUntilTheHubRevokesIt)
{
    // Without a Secret Service the token lives in a private file.
    const QString tokenFile = home.file("data/Zuv/agent-token");
    test::writeText(tokenFile, "agent-token-e2e");
    QFile::setPermissions(tokenFile, QFile::ReadOwner | QFile::WriteOwner);
    QWebSocket *agentSocket = nullptr;
    QObject::connect(&hub, &TestHub::socketConnected, [&](QWebSocket *s) {
        if (s->request().url().path() == "/agent/ws")
            agentSocket = s; // the app's own chat socket comes too
    });

    QProcess *app = launch({});
    ASSERT_TRUE(logSays("agent connected to the hub", 20000)) << appLog().toStdString();
    ASSERT_TRUE(agentSocket);
    EXPECT_EQ(agentSocket->request().rawHeader("authorization"), "Bearer agent-token-e2e");
    ASSERT_TRUE(test::waitUntil([&] { return QFile::exists(home.file("data/Zuv/screen.sock")); }));

    // What the hub sends is never echoed: a message holding the markers the app
    // reads must not unpair it.
    agentSocket->sendTextMessage(
        R"({"type":"chat","text":"hub closed 4401 and closed 4409, Unexpected server response: 403"})");
    const QString agentLog = home.file("state/Zuv/logs/agent.log");
    ASSERT_TRUE(test::waitUntil([&] { return test::readText(agentLog).contains("hub message chat"); }));
    agentSocket->sendTextMessage("closed 4401");
    ASSERT_TRUE(test::waitUntil([&] { return test::readText(agentLog).count("hub message") == 2; }));
    test::drain();
    EXPECT_FALSE(test::readText(agentLog).contains("4401")) << test::readText(agentLog).toStdString();
    EXPECT_TRUE(QFile::exists(tokenFile));
    EXPECT_FALSE(appLog().contains("disconnected from your Zuv account"));

    agentSocket->close(QWebSocketProtocol::CloseCode(4401));
    ASSERT_TRUE(logSays("This computer was disconnected from your Zuv account.")) << appLog().toStdString();
    EXPECT_TRUE(test::waitUntil([&] { return !QFile::exists(tokenFile); }));
    EXPECT_TRUE(QFile::exists(home.file("data/Zuv/screen.sock"))) << "the screen helper runs on";
    EXPECT_TRUE(test::readText(home.file("state/Zuv/logs/agent.log")).contains("hub closed 4401"));

    // Quitting stops the helper, which removes its socket.
    app->terminate();
    ASSERT_TRUE(app->waitForFinished(10000));
    EXPECT_EQ(app->exitCode(), 0);
    EXPECT_FALSE(QFile::exists(home.file("data/Zuv/screen.sock")));
    EXPECT_TRUE(logSays("Zuv quit"));
}

// The chat engine in the real app: the socket held and dialled again, a reply and
// a tool request raised as freedesktop banners, and "Allow" on the banner
// answering the request at the hub.
TEST_F(AppTest, aPairedAppHoldsTheChatSocketAndAnswersFromItsBanners)
{
    test::MockNotificationDaemon daemon;
    ASSERT_TRUE(daemon.up());
    bus = daemon.address();
    const QString tokenFile = home.file("data/Zuv/agent-token");
    test::writeText(tokenFile, "agent-token-e2e");
    QFile::setPermissions(tokenFile, QFile::ReadOwner | QFile::WriteOwner);
    hub.grantTokens();
    hub.on("GET", "/app/conversations", TestHub::json(QJsonObject{{"conversations", QJsonArray()}}));
    hub.on("GET", "/app/cc/sessions", TestHub::json(QJsonObject{{"sessions", QJsonArray()}}));
    hub.on("GET", "/app/cc/permissions", TestHub::json(QJsonObject{{"permissions", QJsonArray()}}));
    hub.on("POST", "/app/cc/permission", TestHub::json(QJsonObject()));
    std::vector<QWebSocket *> chats;
    QObject::connect(&hub, &TestHub::socketConnected, [&](QWebSocket *s) {
        if (s->request().url().path() == "/app/ws")
            chats.push_back(s);
    });

    launch({});
    // The agent reaching the hub may ask for another reload: at least one is enough.
    ASSERT_TRUE(test::waitUntil([&] { return chats.size() == 1 && hub.count("GET", "/app/cc/permissions") >= 1; }, 20000))
        << appLog().toStdString();
    test::drain();
    const QJsonObject request{{"id", "p1"},      {"sessionId", "s1"}, {"project", "site"}, {"tool", "Bash"},
                              {"summary", "ls"}, {"detail", "ls"},    {"at", 1},            {"status", "pending"}};
    chats[0]->sendTextMessage(QJsonDocument(QJsonObject{{"kind", "perm"}, {"request", request}}).toJson());
    const QJsonObject reply{{"id", "r1"}, {"role", "assistant"}, {"text", "All done"}, {"at", 2}, {"conversation", "c1"}};
    chats[0]->sendTextMessage(QJsonDocument(QJsonObject{{"kind", "message"}, {"entry", reply}}).toJson());
    ASSERT_TRUE(test::waitUntil([&] { return daemon.calls("Notify").size() == 2; }, 10000)) << appLog().toStdString();
    const auto first = daemon.calls("Notify")[0].args;
    EXPECT_EQ(test::plainValue(first[3]).toString(), "site: Claude wants to use Bash");
    EXPECT_EQ(test::strings(first[5]).mid(0, 4), (QStringList{"ALLOW", "Allow", "DENY", "Deny"}));
    EXPECT_EQ(test::plainValue(daemon.calls("Notify")[1].args[4]).toString(), "All done");

    daemon.emitSignal("ActionInvoked", "us", {QVariant::fromValue(1u), QStringLiteral("ALLOW")});
    ASSERT_TRUE(test::waitUntil([&] { return hub.count("POST", "/app/cc/permission") == 1; }, 10000));
    EXPECT_EQ(hub.requests("POST", "/app/cc/permission")[0].json().toObject(), (QJsonObject{{"id", "p1"}, {"allow", true}}));

    // A frame was heard, so the dropped socket is dialled again after one second.
    chats[0]->close();
    ASSERT_TRUE(test::waitUntil([&] { return chats.size() == 2; }, 10000));
}

namespace {

QList<qint64> childrenOf(qint64 pid)
{
    QList<qint64> out;
    for (const QString &task : QDir(QStringLiteral("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        for (const QByteArray &child : test::readText(QStringLiteral("/proc/%1/task/%2/children").arg(pid).arg(task))
                                           .toUtf8()
                                           .split(' '))
            if (!child.trimmed().isEmpty())
                out << child.trimmed().toLongLong();
    return out;
}

// Gone, or a zombie waiting for a reaper that a container may not have.
bool ended(qint64 pid)
{
    const QString stat = test::readText(QStringLiteral("/proc/%1/stat").arg(pid));
    if (stat.isEmpty())
        return true;
    const qsizetype close = stat.lastIndexOf(QLatin1Char(')'));
    return close >= 0 && stat.mid(close + 2, 1) == QLatin1String("Z");
}

} // namespace

// kill -9 gives the app no chance to stop its children: the kernel must.
TEST_F(AppTest, childrenDoNotOutliveAnAppKilledOutright)
{
    const QString tokenFile = home.file("data/Zuv/agent-token");
    test::writeText(tokenFile, "agent-token-e2e");
    QFile::setPermissions(tokenFile, QFile::ReadOwner | QFile::WriteOwner);
    QProcess *app = launch({});
    ASSERT_TRUE(logSays("agent connected to the hub", 20000)) << appLog().toStdString();
    ASSERT_TRUE(test::waitUntil([&] { return QFile::exists(home.file("data/Zuv/screen.sock")); }));
    QList<qint64> children;
    ASSERT_TRUE(test::waitUntil([&] { return (children = childrenOf(app->processId())).size() >= 2; }));

    ::kill(pid_t(app->processId()), SIGKILL);
    ASSERT_TRUE(app->waitForFinished(5000));
    for (qint64 child : children)
        EXPECT_TRUE(test::waitUntil([&] { return ended(child); }, 10000)) << "orphan " << child;
}

// The lock and socket folder must be ours alone; a folder others can enter is refused.
TEST_F(AppTest, aRuntimeFolderOthersCanUseIsRefused)
{
    QDir().mkpath(home.file("run/zuv"));
    QFile::setPermissions(home.file("run/zuv"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                    | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther);
    QProcess app;
    app.setProcessEnvironment(environment());
    app.setProcessChannelMode(QProcess::MergedChannels);
    app.start(QStringLiteral(ZUV_EXECUTABLE), {});
    ASSERT_TRUE(app.waitForFinished(15000));
    EXPECT_EQ(app.exitCode(), 1);
    const QString said = QString::fromUtf8(app.readAll());
    EXPECT_TRUE(said.contains("others may use it")) << said.toStdString();
    EXPECT_FALSE(appLog().contains(" started, pid "));
}

TEST_F(AppTest, aBrokenDefaultsFileDoesNotStopTheApp)
{
    test::writeText(home.file("config/Zuv/defaults.json"), "{ \"server\": ");
    launch({});
    ASSERT_TRUE(logSays(" started, pid "));
    ASSERT_TRUE(logSays("is not valid")) << appLog().toStdString();
    EXPECT_EQ(test::readText(home.file("config/Zuv/defaults.json.broken")), "{ \"server\": ");
}

TEST_F(AppTest, onADesktopWithATrayHostTheIconRegistersAndTheGuideShowsTheQrCode)
{
    // A session bus with a stand-in StatusNotifierWatcher: the tray host of KDE and
    // of GNOME's AppIndicator extension.
    test::MockNotificationDaemon daemon(false);
    ASSERT_TRUE(daemon.up());
    bus = daemon.address();
    QProcess watcher;
    ASSERT_TRUE(test::startSessionMock(watcher, bus,
                                       {"org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher"},
                                       "org.kde.StatusNotifierWatcher", daemon.bus()));
    const auto mock = [&](const QString &method, const QVariantList &args) {
        QDBusMessage call = QDBusMessage::createMethodCall("org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher",
                                                           "org.freedesktop.DBus.Mock", method);
        call.setArguments(args);
        return daemon.bus().call(call);
    };
    mock("AddProperty", {"org.kde.StatusNotifierWatcher", "IsStatusNotifierHostRegistered",
                         QVariant::fromValue(QDBusVariant(true))});
    mock("AddProperty", {"org.kde.StatusNotifierWatcher", "ProtocolVersion", QVariant::fromValue(QDBusVariant(0))});
    mock("AddProperty", {"org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems",
                         QVariant::fromValue(QDBusVariant(QStringList()))});
    mock("AddMethod", {"org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem", "s", "", ""});
    mock("AddMethod", {"org.kde.StatusNotifierWatcher", "RegisterStatusNotifierHost", "s", "", ""});

    // The real app on the X display, unpaired: the icon registers and the guide opens.
    auto env = environment();
    env.insert("QT_QPA_PLATFORM", "xcb");
    env.insert("DISPLAY", qEnvironmentVariable("DISPLAY"));
    ASSERT_FALSE(env.value("DISPLAY").isEmpty()) << "the tests run in a desktop session";
    QProcess *app = launch({"--pair"}, env);
    ASSERT_TRUE(logSays("pairing link zuvkel://pair/Q7X2")) << appLog().toStdString();
    const auto registered = [&] {
        const QDBusMessage calls = mock("GetMethodCalls", {"RegisterStatusNotifierItem"});
        return calls.type() == QDBusMessage::ReplyMessage
            && !qdbus_cast<QVariantList>(calls.arguments().at(0).value<QDBusArgument>()).isEmpty();
    };
    EXPECT_TRUE(test::waitUntil(registered, 15000)) << appLog().toStdString();
    EXPECT_FALSE(appLog().contains("shows no tray icons"));

    // The guide is a window of its own on the display, titled Zuv.
    QProcess list;
    list.start("xdotool", {"search", "--name", "^Zuv$"});
    list.waitForFinished(5000);
    EXPECT_FALSE(list.readAllStandardOutput().trimmed().isEmpty()) << "a window titled Zuv is on the display";
    EXPECT_EQ(app->state(), QProcess::Running);
    watcher.kill();
    watcher.waitForFinished(3000);
}

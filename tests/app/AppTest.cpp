// The real executable, started the way a user starts it, against the test hub.
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSysInfo>
#include <QLockFile>
#include <QProcess>
#include <QWebSocket>

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
        env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
        env.remove("DISPLAY");
        return env;
    }

    QProcess *launch(const QStringList &arguments)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment());
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
    QObject::connect(&hub, &TestHub::socketConnected, [&](QWebSocket *s) { agentSocket = s; });

    QProcess *app = launch({});
    ASSERT_TRUE(logSays("agent connected to the hub", 20000)) << appLog().toStdString();
    ASSERT_TRUE(agentSocket);
    EXPECT_EQ(agentSocket->request().rawHeader("authorization"), "Bearer agent-token-e2e");
    ASSERT_TRUE(test::waitUntil([&] { return QFile::exists(home.file("data/Zuv/screen.sock")); }));

    agentSocket->close(QWebSocketProtocol::CloseCode(4401));
    ASSERT_TRUE(logSays("This Mac was disconnected from your Zuv account.")) << appLog().toStdString();
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

TEST_F(AppTest, aBrokenDefaultsFileDoesNotStopTheApp)
{
    test::writeText(home.file("config/Zuv/defaults.json"), "{ \"server\": ");
    launch({});
    ASSERT_TRUE(logSays(" started, pid "));
    ASSERT_TRUE(logSays("is not valid")) << appLog().toStdString();
    EXPECT_EQ(test::readText(home.file("config/Zuv/defaults.json.broken")), "{ \"server\": ");
}

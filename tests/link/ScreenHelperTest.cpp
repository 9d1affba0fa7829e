// The screen helper as the agent meets it: a Unix socket, one line each way, and a
// real capture of the X display the tests run on.
#include "Support.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>

using namespace zuv;

namespace {

struct ScreenHelper : ::testing::Test {
    test::TempHome home;
    QProcess helper;
    QLocalSocket socket;

    void start(bool display = true)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (!display)
            env.remove("DISPLAY");
        env.insert("XDG_STATE_HOME", home.file("state"));
        helper.setProcessEnvironment(env);
        helper.start(QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv/zuv-screen", {"--socket", home.file("screen.sock")});
        ASSERT_TRUE(helper.waitForStarted(5000));
        QByteArray said;
        ASSERT_TRUE(test::waitUntil([&] {
            said += helper.readAllStandardOutput();
            return said.contains("listening");
        }, 10000));
        socket.connectToServer(home.file("screen.sock"));
        ASSERT_TRUE(socket.waitForConnected(5000));
    }
    ~ScreenHelper() override
    {
        helper.terminate();
        helper.waitForFinished(5000);
    }
    QByteArray ask(const QByteArray &line)
    {
        socket.write(line + '\n');
        socket.flush();
        if (!test::waitUntil([&] { return socket.canReadLine(); }, 10000))
            return {};
        return socket.readLine().trimmed();
    }
    QJsonObject askJson(const QByteArray &line) { return QJsonDocument::fromJson(ask(line)).object(); }
};

} // namespace

TEST_F(ScreenHelper, capturesTheXScreenAsAPngAndAnswersEveryLine)
{
    ASSERT_FALSE(qEnvironmentVariableIsEmpty("DISPLAY")) << "the tests run in a desktop session";
    start();
    EXPECT_EQ(ask("ping"), "pong");
    const QJsonObject screens = askJson("screens");
    ASSERT_TRUE(screens.value("ok").toBool()) << qPrintable(QJsonDocument(screens).toJson());
    const QJsonObject screen = screens.value("screens").toArray().at(0).toObject();
    EXPECT_GT(screen.value("width").toInt(), 0);

    const QJsonObject shot = askJson("capture");
    ASSERT_TRUE(shot.value("ok").toBool()) << qPrintable(QJsonDocument(shot).toJson());
    const QImage image(shot.value("path").toString());
    EXPECT_EQ(image.width(), screen.value("width").toInt());
    EXPECT_EQ(image.height(), screen.value("height").toInt());
    EXPECT_TRUE(shot.value("path").toString().startsWith(home.file("captures/")));
    EXPECT_EQ(QFileInfo(home.file("captures")).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0)
        << "the pictures are the user's alone";

    EXPECT_EQ(askJson("format-disk").value("error").toString(), "unknown request");
    // A line that never ends is no request: the helper hangs up.
    socket.write(QByteArray(64 * 1024, 'x'));
    socket.flush();
    EXPECT_TRUE(test::waitUntil([&] { return socket.state() == QLocalSocket::UnconnectedState; }, 10000));
    EXPECT_EQ(helper.state(), QProcess::Running);
}

TEST_F(ScreenHelper, withoutADisplayItSaysWhyAndKeepsAnswering)
{
    start(false);
    const QJsonObject shot = askJson("capture");
    EXPECT_FALSE(shot.value("ok").toBool());
    EXPECT_TRUE(shot.value("error").toString().startsWith("There is no X11 display to capture")) << qPrintable(shot.value("error").toString());
    EXPECT_FALSE(askJson("screens").value("ok").toBool());
    EXPECT_EQ(ask("ping"), "pong");
}

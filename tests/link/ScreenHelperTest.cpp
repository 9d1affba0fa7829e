// The screen helper as the agent meets it: a Unix socket, one line each way, and a
// real capture of the X display the tests run on.
#include "PrivateSystemBus.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QDBusConnectionInterface>

using namespace zuv;

namespace {

struct ScreenHelper : ::testing::Test {
    test::TempHome home;
    QProcess helper;
    QLocalSocket socket;

    void start(bool display = true, const QProcessEnvironment &extra = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (!display)
            env.remove("DISPLAY");
        env.remove("WAYLAND_DISPLAY");
        env.insert(extra);
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

TEST_F(ScreenHelper, sharedMemoryAndGetImageGiveTheSamePicture)
{
    start();
    // A second helper that may not use shared memory, asked right after the first.
    QProcess plain;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("ZUV_SCREEN_NO_SHM", "1");
    plain.setProcessEnvironment(env);
    QDir().mkpath(home.file("plain"));
    plain.start(QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv/zuv-screen", {"--socket", home.file("plain/screen.sock")});
    ASSERT_TRUE(test::waitUntil([&] { return QFileInfo::exists(home.file("plain/screen.sock")); }, 10000));
    QLocalSocket other;
    other.connectToServer(home.file("plain/screen.sock"));
    ASSERT_TRUE(other.waitForConnected(5000));
    const auto askOther = [&] {
        other.write("capture\n");
        other.flush();
        test::waitUntil([&] { return other.canReadLine(); }, 10000);
        return QJsonDocument::fromJson(other.readLine()).object();
    };
    // Other tests may draw on the shared display meanwhile: a few tries find a still moment.
    bool same = false;
    for (int attempt = 0; attempt < 10 && !same; ++attempt) {
        const QJsonObject shared = askJson("capture");
        const QJsonObject copied = askOther();
        ASSERT_TRUE(shared.value("ok").toBool()) << qPrintable(QJsonDocument(shared).toJson());
        ASSERT_TRUE(copied.value("ok").toBool()) << qPrintable(QJsonDocument(copied).toJson());
        ASSERT_EQ(shared.value("method"), "xshm") << "Xvfb has the MIT-SHM extension";
        ASSERT_EQ(copied.value("method"), "getimage");
        same = QImage(shared.value("path").toString()).convertToFormat(QImage::Format_RGB32)
            == QImage(copied.value("path").toString()).convertToFormat(QImage::Format_RGB32);
    }
    EXPECT_TRUE(same) << "the two ways read the same pixels";
    plain.terminate();
    plain.waitForFinished(5000);
}

// Wayland: the desktop's screenshot portal, stood in for by dbusmock on a session
// bus of the test's own. It answers on the request object it names, as an older
// portal does, after a moment.
TEST_F(ScreenHelper, onWaylandTheDesktopsPortalTakesThePicture)
{
    QProcess bus;
    const QString address = test::startPrivateBus(bus, home, "session");
    ASSERT_FALSE(address.isEmpty());
    QProcess mock;
    QDBusConnection connection = QDBusConnection::connectToBus(address, "portal-test");
    ASSERT_TRUE(test::startSessionMock(mock, address,
                                       {"org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                                        "org.freedesktop.portal.Screenshot"},
                                       "org.freedesktop.portal.Desktop", connection));
    const auto answerWith = [&](int response, const QString &file) {
        QDBusMessage add = QDBusMessage::createMethodCall("org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                                                          "org.freedesktop.DBus.Mock", "AddMethod");
        add << "org.freedesktop.portal.Screenshot" << "Screenshot" << "sa{sv}" << "o"
            << QStringLiteral("from gi.repository import GLib\n"
                              "path = '/org/freedesktop/portal/desktop/request/mock/' + args[1]['handle_token']\n"
                              "def respond(path=path, bus=self.connection):\n"
                              "    m = dbus.lowlevel.SignalMessage(path, 'org.freedesktop.portal.Request', 'Response')\n"
                              "    m.append(dbus.UInt32(%1), dbus.Dictionary({'uri': 'file://%2'}, signature='sv'), signature='ua{sv}')\n"
                              "    bus.send_message(m)\n"
                              "    return False\n"
                              "GLib.timeout_add(300, respond)\n"
                              "ret = dbus.ObjectPath(path)\n").arg(response).arg(file);
        return connection.call(add).type() == QDBusMessage::ReplyMessage;
    };
    QImage taken(40, 30, QImage::Format_RGB32);
    taken.fill(Qt::blue);
    ASSERT_TRUE(taken.save(home.file("Screenshot.png")));
    ASSERT_TRUE(answerWith(0, home.file("Screenshot.png")));

    QProcessEnvironment wayland;
    wayland.insert("WAYLAND_DISPLAY", "wayland-test");
    wayland.insert("DBUS_SESSION_BUS_ADDRESS", address);
    start(false, wayland);
    EXPECT_EQ(askJson("screens").value("display"), "wayland");
    const QJsonObject shot = askJson("capture");
    ASSERT_TRUE(shot.value("ok").toBool()) << qPrintable(QJsonDocument(shot).toJson());
    EXPECT_EQ(shot.value("method"), "portal");
    EXPECT_EQ(QImage(shot.value("path").toString()), taken);
    EXPECT_TRUE(shot.value("path").toString().startsWith(home.file("captures/")));
    EXPECT_FALSE(QFileInfo::exists(home.file("Screenshot.png"))) << "the portal's file was moved, not left in Pictures";

    // Declined on the desktop, and a file that is no picture: said plainly.
    ASSERT_TRUE(answerWith(1, home.file("none.png")));
    EXPECT_EQ(askJson("capture").value("error"), "The screenshot was declined on the desktop.");
    ASSERT_TRUE(answerWith(0, home.file("none.png")));
    EXPECT_EQ(askJson("capture").value("error"), "The desktop's screenshot could not be read.");
    EXPECT_EQ(ask("ping"), "pong");

    helper.terminate();
    helper.waitForFinished(5000);
    mock.kill();
    mock.waitForFinished(3000);
    QDBusConnection::disconnectFromBus("portal-test");
    bus.kill();
    bus.waitForFinished(3000);
}

TEST_F(ScreenHelper, withoutADisplayItSaysWhyAndKeepsAnswering)
{
    start(false);
    const QJsonObject shot = askJson("capture");
    EXPECT_FALSE(shot.value("ok").toBool());
    EXPECT_TRUE(shot.value("error").toString().startsWith("There is no display to capture")) << qPrintable(shot.value("error").toString());
    EXPECT_FALSE(askJson("screens").value("ok").toBool());
    EXPECT_EQ(ask("ping"), "pong");
}

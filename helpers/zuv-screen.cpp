// zuv-screen: the screen helper the app keeps running. It listens on a Unix
// socket for the agent and answers one line with one line (helpers/README.md):
// "ping", the screens, and a capture of the X11 screen as a PNG file.
#include "base/Paths.h"
#include "platform/linux/CrashHandler.h"
#include "zuv_version.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <xcb/xcb.h>

#include <memory>

namespace {

QByteArray reply(const QJsonObject &object) { return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'; }

QByteArray failure(const QString &why)
{
    return reply({{QStringLiteral("ok"), false}, {QStringLiteral("error"), why}});
}

// The X11 display, opened for each request: a display that went away and came
// back is met again, and nothing stays open between requests.
struct Display {
    xcb_connection_t *connection = nullptr;
    xcb_screen_t *screen = nullptr;
    QString problem;

    Display()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY")) {
            problem = QStringLiteral("There is no X11 display to capture (DISPLAY is not set); "
                                     "on Wayland the desktop's screen-sharing portal is not used by this build yet.");
            return;
        }
        int number = 0;
        connection = xcb_connect(nullptr, &number);
        if (xcb_connection_has_error(connection)) {
            problem = QStringLiteral("The X11 display %1 cannot be reached.").arg(qEnvironmentVariable("DISPLAY"));
            return;
        }
        xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection));
        for (int i = 0; i < number && it.rem; ++i)
            xcb_screen_next(&it);
        screen = it.rem ? it.data : nullptr;
        if (!screen)
            problem = QStringLiteral("The X11 display has no screen.");
    }
    ~Display()
    {
        if (connection)
            xcb_disconnect(connection);
    }
};

QByteArray screens()
{
    Display display;
    if (!display.screen)
        return failure(display.problem);
    return reply({{QStringLiteral("ok"), true},
                  {QStringLiteral("display"), QStringLiteral("x11")},
                  {QStringLiteral("screens"), QJsonArray{QJsonObject{{QStringLiteral("x"), 0},
                                                                     {QStringLiteral("y"), 0},
                                                                     {QStringLiteral("width"), display.screen->width_in_pixels},
                                                                     {QStringLiteral("height"), display.screen->height_in_pixels}}}}});
}

// The whole screen through GetImage, written as a PNG into `folder`.
QByteArray capture(const QString &folder)
{
    Display display;
    if (!display.screen)
        return failure(display.problem);
    const xcb_screen_t *screen = display.screen;
    if (screen->root_depth != 24 && screen->root_depth != 32)
        return failure(QStringLiteral("A screen of depth %1 is not captured; 24 and 32 are.").arg(screen->root_depth));
    const xcb_get_image_cookie_t cookie = xcb_get_image(display.connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, 0, 0,
                                                        screen->width_in_pixels, screen->height_in_pixels, ~0u);
    xcb_generic_error_t *error = nullptr;
    std::unique_ptr<xcb_get_image_reply_t, decltype(&std::free)> image(xcb_get_image_reply(display.connection, cookie, &error),
                                                                       &std::free);
    if (!image) {
        std::free(error);
        return failure(QStringLiteral("The X server refused to give the screen's picture."));
    }
    const int width = screen->width_in_pixels;
    const int height = screen->height_in_pixels;
    const int length = xcb_get_image_data_length(image.get());
    if (length < width * height * 4)
        return failure(QStringLiteral("The X server sent a picture of an unexpected size."));
    const QImage picture(xcb_get_image_data(image.get()), width, height, length / height, QImage::Format_RGB32);
    const QString path = folder + QStringLiteral("/capture-%1.png").arg(QDateTime::currentMSecsSinceEpoch());
    if (!picture.save(path, "PNG"))
        return failure(QStringLiteral("The picture could not be written to %1.").arg(folder));
    return reply({{QStringLiteral("ok"), true},
                  {QStringLiteral("path"), path},
                  {QStringLiteral("width"), width},
                  {QStringLiteral("height"), height}});
}

int signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

void usage()
{
    std::fprintf(stderr,
                 "usage: zuv-screen --socket PATH [--managed]\n"
                 "Listens on the Unix socket PATH for the Zuv agent. Requests, one a line:\n"
                 "  ping      answers pong\n"
                 "  screens   the X11 screen's size, as JSON\n"
                 "  capture   the screen as a PNG file beside the socket, as JSON\n"
                 "--managed: started and watched by the Zuv app; exits 0 on SIGTERM.\n");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // Crash records go where the app's reporter looks for them.
    zuv::Paths::ensure(zuv::Paths::diagnosticReports());
    const QByteArray reports = QFile::encodeName(zuv::Paths::diagnosticReports());
    zuv::CrashHandler::install(reports.constData(), "zuv-screen", ZUV_VERSION, ZUV_BUILD);
    const QStringList arguments = app.arguments();
    const qsizetype at = arguments.indexOf(QStringLiteral("--socket"));
    if (at < 0 || at + 1 >= arguments.size() || arguments.contains(QStringLiteral("--help"))) {
        usage();
        return at < 0 || at + 1 >= arguments.size() ? 64 : 0;
    }
    const QString path = arguments.at(at + 1);

    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return 71;
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    if (arguments.contains(QStringLiteral("--managed"))) {
        // The app sets this before exec too; saying it again here covers a start by
        // another supervisor, and the pid check a parent that is already gone.
        const pid_t parent = getppid();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent || parent == 1)
            return 0;
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });

    QLocalServer server;
    server.setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(path);
    if (!server.listen(path)) {
        std::fprintf(stderr, "zuv-screen: cannot listen on %s: %s\n", qPrintable(path),
                     qPrintable(server.errorString()));
        return 73;
    }
    // Captures go beside the socket, in a folder only this user may read.
    const QString captures = QFileInfo(path).absolutePath() + QStringLiteral("/captures");
    QDir().mkpath(captures);
    QFile::setPermissions(captures, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QObject::connect(&server, &QLocalServer::newConnection, &server, [&server, captures] {
        while (QLocalSocket *client = server.nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            QObject::connect(client, &QLocalSocket::readyRead, client, [client, captures] {
                // A line longer than any request is no request: the client is dropped.
                if (!client->canReadLine() && client->bytesAvailable() > 4096) {
                    client->abort();
                    return;
                }
                while (client->canReadLine()) {
                    const QByteArray request = client->readLine(4096).trimmed();
                    if (request == "ping")
                        client->write("pong\n");
                    else if (request == "screens")
                        client->write(screens());
                    else if (request == "capture")
                        client->write(capture(captures));
                    else
                        client->write(failure(QStringLiteral("unknown request")));
                }
            });
        }
    });
    std::printf("zuv-screen listening on %s\n", qPrintable(path));
    std::fflush(stdout);

    const int status = app.exec();
    server.close();
    QFile::remove(path);
    std::printf("zuv-screen stopped\n");
    return status;
}

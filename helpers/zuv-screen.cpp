// zuv-screen: the screen helper the app keeps running. It listens on a Unix
// socket for the agent and answers one line with one line (helpers/README.md):
// "ping", the screens, and a capture of the X11 screen as a PNG file.
#include "base/Paths.h"
#include "platform/linux/CrashHandler.h"
#include "zuv_version.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDateTime>
#include <QEventLoop>
#include <QRandomGenerator>
#include <QTimer>
#include <QUrl>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <xcb/shm.h>
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
            problem = QStringLiteral("There is no display to capture: neither DISPLAY nor WAYLAND_DISPLAY is set.");
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
    if (qEnvironmentVariableIsEmpty("DISPLAY") && !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return reply({{QStringLiteral("ok"), true}, {QStringLiteral("display"), QStringLiteral("wayland")},
                      {QStringLiteral("screens"), QJsonArray{}}}); // the compositor keeps the layout to itself
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

QString capturePath(const QString &folder)
{
    return folder + QStringLiteral("/capture-%1.png").arg(QDateTime::currentMSecsSinceEpoch());
}

QByteArray saved(const QImage &picture, const QString &folder, const char *method)
{
    const QString path = capturePath(folder);
    if (!picture.save(path, "PNG"))
        return failure(QStringLiteral("The picture could not be written to %1.").arg(folder));
    return reply({{QStringLiteral("ok"), true},
                  {QStringLiteral("path"), path},
                  {QStringLiteral("width"), picture.width()},
                  {QStringLiteral("height"), picture.height()},
                  {QStringLiteral("method"), QLatin1String(method)}});
}

// The root window through a shared memory segment: no copy of the picture goes
// through the X socket. Gives a null picture where XShm is missing or refused (a
// remote display), and the caller falls back on GetImage.
QImage shmCapture(const Display &display)
{
    if (qEnvironmentVariableIsSet("ZUV_SCREEN_NO_SHM"))
        return {};
    const xcb_query_extension_reply_t *extension = xcb_get_extension_data(display.connection, &xcb_shm_id);
    if (!extension || !extension->present)
        return {};
    const int width = display.screen->width_in_pixels;
    const int height = display.screen->height_in_pixels;
    const size_t size = size_t(width) * size_t(height) * 4;
    const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (id < 0)
        return {};
    void *memory = shmat(id, nullptr, SHM_RDONLY);
    shmctl(id, IPC_RMID, nullptr); // gone once both sides detach, however this ends
    if (memory == reinterpret_cast<void *>(-1))
        return {};
    const xcb_shm_seg_t segment = xcb_generate_id(display.connection);
    xcb_generic_error_t *error = xcb_request_check(display.connection,
                                                   xcb_shm_attach_checked(display.connection, segment, uint32_t(id), 0));
    QImage picture;
    if (!error) {
        const xcb_shm_get_image_cookie_t cookie = xcb_shm_get_image(display.connection, display.screen->root, 0, 0, uint16_t(width),
                                                                    uint16_t(height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment, 0);
        std::unique_ptr<xcb_shm_get_image_reply_t, decltype(&std::free)> answer(
            xcb_shm_get_image_reply(display.connection, cookie, &error), &std::free);
        if (answer && answer->size >= size)
            picture = QImage(static_cast<const uchar *>(memory), width, height, width * 4, QImage::Format_RGB32).copy();
        xcb_shm_detach(display.connection, segment);
        xcb_flush(display.connection);
    }
    std::free(error);
    shmdt(memory);
    return picture;
}

// The whole X11 screen, written as a PNG into `folder`.
QByteArray x11Capture(const QString &folder)
{
    Display display;
    if (!display.screen)
        return failure(display.problem);
    const xcb_screen_t *screen = display.screen;
    if (screen->root_depth != 24 && screen->root_depth != 32)
        return failure(QStringLiteral("A screen of depth %1 is not captured; 24 and 32 are.").arg(screen->root_depth));
    if (const QImage shared = shmCapture(display); !shared.isNull())
        return saved(shared, folder, "xshm");
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
    return saved(picture, folder, "getimage");
}

// The answer of a portal request, which comes as a signal on the request's object.
class PortalAnswer : public QObject {
    Q_OBJECT
public:
    bool answered = false;
    uint response = 2;
    QVariantMap results;
signals:
    void done();
public slots:
    void respond(uint code, const QVariantMap &values)
    {
        answered = true;
        response = code;
        results = values;
        emit done();
    }
};

// On Wayland the compositor alone may read the screen: the desktop's screenshot
// portal takes the picture (asking the person when the desktop wants to), and
// the file it names is moved into `folder`.
QByteArray portalCapture(const QString &folder)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return failure(QStringLiteral("There is no session bus to reach the desktop's screenshot portal."));
    const QString token = QStringLiteral("zuv%1").arg(QRandomGenerator::global()->generate());
    const QString sender = bus.baseService().mid(1).replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString iface = QStringLiteral("org.freedesktop.portal.Request");
    PortalAnswer answer;
    // Listen before asking, at the path the portal will use; an older portal names
    // another in its reply, which is listened to as well.
    const QString expected = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    bus.connect(QString(), expected, iface, QStringLiteral("Response"), &answer, SLOT(respond(uint, QVariantMap)));
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"),
                                                      QStringLiteral("/org/freedesktop/portal/desktop"),
                                                      QStringLiteral("org.freedesktop.portal.Screenshot"), QStringLiteral("Screenshot"));
    call << QString() << QVariantMap{{QStringLiteral("handle_token"), token}, {QStringLiteral("interactive"), false}};
    const QDBusMessage handle = bus.call(call, QDBus::Block, 10000);
    if (handle.type() != QDBusMessage::ReplyMessage || handle.arguments().isEmpty())
        return failure(QStringLiteral("The desktop's screenshot portal is not available: %1").arg(handle.errorMessage()));
    const QString path = handle.arguments().constFirst().value<QDBusObjectPath>().path();
    if (!path.isEmpty() && path != expected)
        bus.connect(QString(), path, iface, QStringLiteral("Response"), &answer, SLOT(respond(uint, QVariantMap)));
    if (!answer.answered) {
        QEventLoop loop;
        QObject::connect(&answer, &PortalAnswer::done, &loop, &QEventLoop::quit);
        QTimer::singleShot(60000, &loop, &QEventLoop::quit); // the person may be asked first
        loop.exec();
    }
    if (!answer.answered)
        return failure(QStringLiteral("The desktop did not answer the screenshot request in time."));
    if (answer.response != 0)
        return failure(answer.response == 1 ? QStringLiteral("The screenshot was declined on the desktop.")
                                            : QStringLiteral("The desktop could not take the screenshot."));
    const QUrl uri(answer.results.value(QStringLiteral("uri")).toString());
    const QImage picture(uri.isLocalFile() ? uri.toLocalFile() : QString());
    if (picture.isNull())
        return failure(QStringLiteral("The desktop's screenshot could not be read."));
    const QByteArray out = saved(picture.convertToFormat(QImage::Format_RGB32), folder, "portal");
    QFile::remove(uri.toLocalFile()); // taken for the agent, not for the person's pictures
    return out;
}

bool onWayland() { return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"); }

QByteArray capture(const QString &folder) { return onWayland() ? portalCapture(folder) : x11Capture(folder); }

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
                // A portal capture waits in an event loop of its own, where the client
                // may hang up and be deleted: it is held weakly across each request.
                const QPointer<QLocalSocket> held(client);
                while (held && held->canReadLine()) {
                    const QByteArray request = held->readLine(4096).trimmed();
                    QByteArray answer;
                    if (request == "ping")
                        answer = "pong\n";
                    else if (request == "screens")
                        answer = screens();
                    else if (request == "capture")
                        answer = capture(captures);
                    else
                        answer = failure(QStringLiteral("unknown request"));
                    if (held)
                        held->write(answer);
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

#include "zuv-screen.moc"

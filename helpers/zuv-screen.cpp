// zuv-screen: the screen helper the app keeps running. It listens on a Unix
// socket for the agent. For now it answers "ping" with "pong"; screen capture and
// input come later.
#include "base/Paths.h"
#include "platform/linux/CrashHandler.h"
#include "zuv_version.h"

#include <QCoreApplication>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

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
                 "Listens on the Unix socket PATH for the Zuv agent and answers \"ping\" with \"pong\".\n"
                 "Screen capture and input services are not part of this build yet.\n"
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
    QObject::connect(&server, &QLocalServer::newConnection, &server, [&server] {
        while (QLocalSocket *client = server.nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            QObject::connect(client, &QLocalSocket::readyRead, client, [client] {
                while (client->canReadLine()) {
                    const QByteArray request = client->readLine().trimmed();
                    client->write(request == "ping" ? "pong\n" : "error unknown request\n");
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

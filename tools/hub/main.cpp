// zuv-hub: a hub of one account on this machine, for development and tests. It
// serves the paths the desktop app and its agent use, and a phone page at "/".
#include "Hub.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStandardPaths>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {
int quitPipe[2] = {-1, -1};
// A signal only writes a byte; the event loop does the quitting.
void onSignal(int) { [[maybe_unused]] auto n = ::write(quitPipe[1], "q", 1); }
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zuv-hub"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A development hub for Zuv: one account, one owner, on this machine."));
    parser.addHelpOption();
    const QCommandLineOption listen(QStringLiteral("listen"),
                                    QStringLiteral("Where to listen, HOST:PORT (default 127.0.0.1:8765; port 0 picks a free one)."),
                                    QStringLiteral("address"), QStringLiteral("127.0.0.1:8765"));
    const QCommandLineOption data(QStringLiteral("data"), QStringLiteral("The folder of its store and files."),
                                  QStringLiteral("folder"),
                                  QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/zuv-hub"));
    const QCommandLineOption delay(QStringLiteral("turn-delay"), QStringLiteral("Seconds between the stand-in's steps."),
                                   QStringLiteral("seconds"), QStringLiteral("0.4"));
    const QCommandLineOption minimum(QStringLiteral("min-build"),
                                     QStringLiteral("The lowest desktop build the hub accepts (\"minMacBuild\" of /app/me)."),
                                     QStringLiteral("build"));
    parser.addOptions({listen, data, delay, minimum});
    parser.process(app);

    const QString where = parser.value(listen);
    const qsizetype colon = where.lastIndexOf(QLatin1Char(':'));
    bool portOk = false;
    const uint port = where.mid(colon + 1).toUInt(&portOk);
    const QHostAddress address(where.left(colon));
    if (colon <= 0 || !portOk || port > 65535 || address.isNull()) {
        std::fprintf(stderr, "zuv-hub: --listen wants HOST:PORT, such as 127.0.0.1:8765, not %s\n", qPrintable(where));
        return 2;
    }
    zuv::hub::Hub::Options options;
    options.data = parser.value(data);
    options.address = address;
    options.port = quint16(port);
    options.turnDelay = std::clamp(parser.value(delay).toDouble(), 0.0, 10.0);
    options.minimumBuild = parser.value(minimum).trimmed();
    zuv::hub::Hub hub(options);
    const quint16 bound = hub.listen();
    if (!bound) {
        std::fprintf(stderr, "zuv-hub: %s\n", qPrintable(hub.problem()));
        return 1;
    }
    const QString host = address == QHostAddress::Any ? QStringLiteral("127.0.0.1") : address.toString();
    std::printf("zuv-hub listening on http://%s:%u (data in %s)\n", qPrintable(host), unsigned(bound),
                qPrintable(options.data));
    std::fflush(stdout);
    if (::pipe(quitPipe) == 0) {
        auto *notifier = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
        std::signal(SIGTERM, onSignal);
        std::signal(SIGINT, onSignal);
    }
    return QCoreApplication::exec();
}

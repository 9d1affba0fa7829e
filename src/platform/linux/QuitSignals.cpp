#include "platform/linux/QuitSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zuv {

namespace {

int g_pipe[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the pipe.
void forward(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const auto written = ::write(g_pipe[1], &byte, 1);
}

} // namespace

QuitSignals::QuitSignals(QObject *parent) : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pipe) != 0)
        return;
    m_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        if (::read(g_pipe[0], &byte, 1) == 1)
            emit received(int(byte));
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = forward;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaction(signal, &action, nullptr);
}

QuitSignals::~QuitSignals()
{
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        std::signal(signal, SIG_DFL);
    if (g_pipe[0] >= 0) {
        ::close(g_pipe[0]);
        ::close(g_pipe[1]);
        g_pipe[0] = g_pipe[1] = -1;
    }
}

} // namespace zuv

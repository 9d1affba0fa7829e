#include "platform/linux/RealClock.h"

#include <QDateTime>
#include <QPointer>
#include <QSocketNotifier>

#include <cerrno>
#include <ctime>

#include <sys/timerfd.h>
#include <unistd.h>

namespace zuv {

namespace {

double bootTime()
{
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

} // namespace

RealClock::RealClock(QObject *parent) : Clock(parent) {}

RealClock::~RealClock() { shutDown(); }

double RealClock::now() const { return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0; }

double RealClock::uptime() const { return bootTime(); }

void RealClock::arm(quint64 id, Sleeper &sleeper)
{
    const int fd = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        // No timer to be had: wake on the next turn rather than never.
        QPointer<RealClock> guard(this);
        QMetaObject::invokeMethod(this, [guard, id] { if (guard) guard->wake(id, true); }, Qt::QueuedConnection);
        return;
    }
    const double at = std::max(sleeper.deadline, 1e-9);
    itimerspec spec{};
    spec.it_value.tv_sec = time_t(at);
    spec.it_value.tv_nsec = long((at - double(time_t(at))) * 1e9);
    if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0)
        spec.it_value.tv_nsec = 1; // zero would disarm the timer
    timerfd_settime(fd, TFD_TIMER_ABSTIME, &spec, nullptr);
    auto *notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this, id, fd] {
        quint64 expirations = 0;
        while (::read(fd, &expirations, sizeof expirations) < 0 && errno == EINTR) {
        }
        wake(id, true);
    });
    sleeper.release = [notifier, fd] {
        notifier->setEnabled(false);
        notifier->deleteLater();
        ::close(fd);
    };
}

} // namespace zuv

#pragma once

#include "base/Clock.h"

namespace zuv {

// Real time. Uptime is CLOCK_BOOTTIME, which keeps counting while the computer
// sleeps, and sleeps are timerfds on that clock: a 30-second wait across a suspend
// ends 30 seconds after it began, not 30 seconds of waking time later.
class RealClock final : public Clock {
    Q_OBJECT
public:
    explicit RealClock(QObject *parent = nullptr);
    ~RealClock() override;
    double now() const override;
    double uptime() const override;

protected:
    void arm(quint64 id, Sleeper &sleeper) override;
};

} // namespace zuv

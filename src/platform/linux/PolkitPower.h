#pragma once

#include "platform/PowerService.h"

#include <QDBusConnection>
#include <QString>
#include <QStringList>

namespace zuv {

// The stay-awake permission as polkit sees it for this process: may it take
// logind's sleep, idle and lid-switch inhibitors? Enabled when all three are
// allowed, requiring approval when polkit would ask, not found without logind or
// polkit on the system bus.
class PolkitPower final : public PowerService {
public:
    explicit PolkitPower(QDBusConnection bus = QDBusConnection::systemBus());

    QCoro::Task<Status> check(bool interactive) override;
    QString problem() const override { return m_problem; }

    static QStringList actions();

private:
    QDBusConnection m_bus;
    QString m_problem;
};

} // namespace zuv

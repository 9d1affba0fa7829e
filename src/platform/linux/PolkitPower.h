#pragma once

#include "platform/PowerService.h"

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>

namespace zuv {

// The stay-awake permission as polkit sees it for this process: may it take
// logind's sleep, idle and lid-switch inhibitors? Enabled when all three are
// allowed, requiring approval when polkit would ask, not found without logind or
// polkit on the system bus.
class PolkitPower final : public QObject, public PowerService {
    Q_OBJECT
public:
    explicit PolkitPower(QDBusConnection bus = QDBusConnection::systemBus(), QObject *parent = nullptr);

    QCoro::Task<Status> check(bool interactive) override;
    QString problem() const override { return m_problem; }

    static QStringList actions();

private:
    QDBusConnection m_bus;
    QString m_problem;
    bool m_logindSeen = false; // asked once: the check runs every few seconds
};

} // namespace zuv

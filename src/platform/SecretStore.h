#pragma once

#include <QString>
#include <QCoro/QCoroTask>

#include <optional>

namespace zuv {

// One secret string per (service, account), kept by the desktop's secret store.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    // None when there is no such secret or it cannot be read.
    virtual QCoro::Task<std::optional<QString>> read(QString service, QString account) = 0;
    // Stores `secret`, replacing any older one. False when it could not be kept.
    virtual QCoro::Task<bool> write(QString service, QString account, QString secret) = 0;
    virtual QCoro::Task<void> remove(QString service, QString account) = 0;
};

} // namespace zuv

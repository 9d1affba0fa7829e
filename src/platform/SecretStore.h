#pragma once

#include <QString>
#include <QCoro/QCoroTask>

#include <optional>

namespace zuv {

// One secret string per (service, account), kept by the desktop's secret store.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    // What a read found. A store that is there but will not answer now (a locked
    // keyring, a refused prompt) gives `problem`; that is not the same as no secret.
    struct Read {
        std::optional<QString> value;
        std::optional<QString> problem;
    };

    virtual QCoro::Task<Read> read(QString service, QString account) = 0;
    // Stores `secret`, replacing any older one. False when it could not be kept.
    virtual QCoro::Task<bool> write(QString service, QString account, QString secret) = 0;
    virtual QCoro::Task<void> remove(QString service, QString account) = 0;
};

} // namespace zuv

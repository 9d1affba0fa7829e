#pragma once

#include "platform/SecretStore.h"

#include <map>
#include <utility>

namespace zuv::test {

// Secrets in memory; can be told to refuse writes.
class FakeSecretStore final : public SecretStore {
public:
    std::map<std::pair<QString, QString>, QString> secrets;
    bool refuseWrites = false;
    int writes = 0;
    int removes = 0;

    QCoro::Task<std::optional<QString>> read(QString service, QString account) override
    {
        const auto it = secrets.find({service, account});
        co_return it == secrets.end() ? std::nullopt : std::optional<QString>(it->second);
    }

    QCoro::Task<bool> write(QString service, QString account, QString secret) override
    {
        ++writes;
        if (refuseWrites)
            co_return false;
        secrets[{service, account}] = secret;
        co_return true;
    }

    QCoro::Task<void> remove(QString service, QString account) override
    {
        ++removes;
        secrets.erase({service, account});
        co_return;
    }
};

} // namespace zuv::test

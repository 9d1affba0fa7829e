#pragma once

#include "platform/SecretStore.h"

#include <QCoro/QCoroTimer>

#include <chrono>
#include <map>
#include <utility>

namespace zuv::test {

// Secrets in memory. It can refuse writes, act as a locked keyring, and finish
// its calls on a later turn of the event loop (as the real one does), so that
// callers meet overlapping calls.
class FakeSecretStore final : public SecretStore {
public:
    std::map<std::pair<QString, QString>, QString> secrets;
    bool refuseWrites = false;
    std::optional<QString> locked; // reads answer this problem while set
    bool deferred = false;
    int reads = 0;
    int writes = 0;
    int removes = 0;

    QCoro::Task<Read> read(QString service, QString account) override
    {
        ++reads;
        co_await later();
        if (locked)
            co_return Read{std::nullopt, locked};
        const auto it = secrets.find({service, account});
        co_return Read{it == secrets.end() ? std::nullopt : std::optional<QString>(it->second), std::nullopt};
    }

    QCoro::Task<bool> write(QString service, QString account, QString secret) override
    {
        ++writes;
        co_await later();
        if (refuseWrites)
            co_return false;
        secrets[{service, account}] = secret;
        co_return true;
    }

    QCoro::Task<void> remove(QString service, QString account) override
    {
        ++removes;
        co_await later();
        secrets.erase({service, account});
    }

private:
    QCoro::Task<void> later()
    {
        if (deferred)
            co_await QCoro::sleepFor(std::chrono::milliseconds(1));
    }
};

} // namespace zuv::test

#include "base/Keychain.h"

#include "base/Job.h"
#include "base/Log.h"
#include "platform/SecretStore.h"

#include <QPointer>

namespace zuv {

Keychain::Keychain(SecretStore &store, QObject *parent) : QObject(parent), m_store(store) {}

QCoro::Task<void> Keychain::load()
{
    QPointer<Keychain> self(this);
    const SecretStore::Read found = co_await m_store.read(QString::fromLatin1(service), QString::fromLatin1(account));
    if (!self)
        co_return;
    m_problem = found.problem;
    if (!found.problem)
        m_token = found.value && !found.value->isEmpty() ? found.value : std::nullopt;
}

void Keychain::setToken(const std::optional<QString> &token)
{
    m_problem.reset(); // what we set is what counts from now on
    m_token = token && !token->isEmpty() ? token : std::nullopt;
    m_dirty = true;
    if (!m_saving) {
        m_saving = true;
        spawn(writeLoop(), QStringLiteral("Saving the agent token"));
    }
}

QCoro::Task<void> Keychain::writeLoop()
{
    QPointer<Keychain> self(this);
    while (self && m_dirty) {
        m_dirty = false;
        const auto token = m_token;
        if (token) {
            const bool ok = co_await m_store.write(QString::fromLatin1(service), QString::fromLatin1(account), *token);
            if (!ok)
                log(QStringLiteral("The agent token could not be stored; the next launch will be unpaired."));
        } else {
            co_await m_store.remove(QString::fromLatin1(service), QString::fromLatin1(account));
        }
    }
    if (self)
        m_saving = false;
}

} // namespace zuv

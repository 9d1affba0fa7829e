#include "platform/linux/LinuxSecretStore.h"

#include "base/Log.h"
#include "base/Paths.h"

#include <QFile>
#include <QPointer>
#include <QSaveFile>
#include <QCoro/QCoroSignal>

#include <qt6keychain/keychain.h>

namespace zuv {

namespace {

// Runs a QtKeychain job to its end.
QCoro::Task<QKeychain::Error> run(QKeychain::Job *job)
{
    // The job deletes itself after `finished`; read what we need before that.
    job->setAutoDelete(true);
    job->start();
    auto finished = qCoro(job, &QKeychain::Job::finished);
    co_await finished;
    co_return job->error();
}

bool backendMissing(QKeychain::Error error)
{
    return error == QKeychain::NoBackendAvailable || error == QKeychain::NotImplemented
        || error == QKeychain::OtherError || error == QKeychain::AccessDenied;
}

} // namespace

LinuxSecretStore::LinuxSecretStore(QString fallbackFolder, QObject *parent)
    : QObject(parent), m_folder(std::move(fallbackFolder))
{
}

QString LinuxSecretStore::filePath(const QString &account) const { return m_folder + QLatin1Char('/') + account; }

void LinuxSecretStore::fallBack(const QString &why)
{
    if (m_usingFile)
        return;
    m_usingFile = true;
    log(QStringLiteral("No Secret Service answered (%1); the token is kept in %2 (mode 0600).")
            .arg(why, m_folder));
}

std::optional<QString> LinuxSecretStore::readFile(const QString &account) const
{
    QFile in(filePath(account));
    if (!in.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString value = QString::fromUtf8(in.readAll());
    if (value.isEmpty())
        return std::nullopt;
    return value;
}

bool LinuxSecretStore::writeFile(const QString &account, const QString &secret) const
{
    Paths::ensure(m_folder);
    QSaveFile out(filePath(account));
    if (!out.open(QIODevice::WriteOnly))
        return false;
    // Narrow the permissions before the secret is written.
    out.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    out.write(secret.toUtf8());
    return out.commit();
}

QCoro::Task<std::optional<QString>> LinuxSecretStore::read(QString service, QString account)
{
    if (!m_usingFile) {
        auto *job = new QKeychain::ReadPasswordJob(service);
        job->setKey(account);
        QPointer<LinuxSecretStore> self(this);
        const QKeychain::Error error = co_await run(job);
        if (!self)
            co_return std::nullopt;
        if (error == QKeychain::NoError) {
            const QString value = job->textData();
            co_return value.isEmpty() ? std::nullopt : std::optional<QString>(value);
        }
        if (error == QKeychain::EntryNotFound)
            co_return readFile(account); // a token kept while the service was away
        fallBack(job->errorString());
    }
    co_return readFile(account);
}

QCoro::Task<bool> LinuxSecretStore::write(QString service, QString account, QString secret)
{
    if (!m_usingFile) {
        auto *job = new QKeychain::WritePasswordJob(service);
        job->setKey(account);
        job->setTextData(secret);
        QPointer<LinuxSecretStore> self(this);
        const QKeychain::Error error = co_await run(job);
        if (!self)
            co_return false;
        if (error == QKeychain::NoError) {
            QFile::remove(filePath(account));
            co_return true;
        }
        if (!backendMissing(error)) {
            log(QStringLiteral("Couldn't store the token: %1").arg(job->errorString()));
            co_return false;
        }
        fallBack(job->errorString());
    }
    co_return writeFile(account, secret);
}

QCoro::Task<void> LinuxSecretStore::remove(QString service, QString account)
{
    QFile::remove(filePath(account));
    if (m_usingFile)
        co_return;
    auto *job = new QKeychain::DeletePasswordJob(service);
    job->setKey(account);
    co_await run(job);
}

} // namespace zuv

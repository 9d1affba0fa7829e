#include "platform/linux/LinuxSecretStore.h"

#include "base/Log.h"
#include "base/Paths.h"

#include <QFile>
#include <QPointer>
#include <QSaveFile>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QCoro/QCoroSignal>

#include <qt6keychain/keychain.h>

#include <memory>

namespace zuv {

namespace {

const QString secretsService = QStringLiteral("org.freedesktop.secrets");

// Owns a QtKeychain job and runs it to its end. The wait for `finished` is set up
// before start(), so a job that finishes at once is not missed.
struct KeychainRun {
    std::unique_ptr<QKeychain::Job> job;
    QKeychain::Error error = QKeychain::NoError;
    QString text;
};

QCoro::Task<void> run(KeychainRun &run)
{
    QKeychain::Job *job = run.job.get();
    job->setAutoDelete(false);
    auto finished = qCoro(job, &QKeychain::Job::finished);
    job->start();
    co_await finished;
    run.error = job->error();
    run.text = job->errorString();
}

} // namespace

bool LinuxSecretStore::serviceMissing()
{
    // The file is for desktops without a Secret Service at all. A service that is
    // there but locked, or a prompt the user refused, is not a reason to write the
    // token to disk.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return true;
    QDBusConnectionInterface *names = bus.interface();
    if (!names)
        return true;
    if (names->isServiceRegistered(secretsService).value())
        return false;
    const QStringList activatable = names->activatableServiceNames().value();
    return !activatable.contains(secretsService);
}

LinuxSecretStore::LinuxSecretStore(QString fallbackFolder, bool fileOnly, QObject *parent)
    : QObject(parent), m_folder(std::move(fallbackFolder))
{
    if (fileOnly)
        fallBack(QStringLiteral("this profile keeps its own"));
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

QCoro::Task<SecretStore::Read> LinuxSecretStore::read(QString service, QString account)
{
    if (!m_usingFile) {
        QPointer<LinuxSecretStore> self(this);
        KeychainRun reading{std::make_unique<QKeychain::ReadPasswordJob>(service)};
        auto *job = static_cast<QKeychain::ReadPasswordJob *>(reading.job.get());
        job->setKey(account);
        co_await run(reading);
        if (!self)
            co_return Read{};
        if (reading.error == QKeychain::NoError) {
            const QString value = job->textData();
            co_return Read{value.isEmpty() ? std::nullopt : std::optional<QString>(value), std::nullopt};
        }
        if (reading.error == QKeychain::EntryNotFound)
            co_return Read{readFile(account), std::nullopt}; // a token kept while the service was away
        if (!serviceMissing())
            co_return Read{std::nullopt, reading.text};
        fallBack(reading.text);
    }
    co_return Read{readFile(account), std::nullopt};
}

QCoro::Task<bool> LinuxSecretStore::write(QString service, QString account, QString secret)
{
    if (!m_usingFile) {
        QPointer<LinuxSecretStore> self(this);
        KeychainRun writing{std::make_unique<QKeychain::WritePasswordJob>(service)};
        auto *job = static_cast<QKeychain::WritePasswordJob *>(writing.job.get());
        job->setKey(account);
        job->setTextData(secret);
        co_await run(writing);
        if (!self)
            co_return false;
        if (writing.error == QKeychain::NoError) {
            QFile::remove(filePath(account));
            co_return true;
        }
        if (!serviceMissing()) {
            log(QStringLiteral("Couldn't store the token in the Secret Service: %1").arg(writing.text));
            co_return false;
        }
        fallBack(writing.text);
    }
    co_return writeFile(account, secret);
}

QCoro::Task<void> LinuxSecretStore::remove(QString service, QString account)
{
    QFile::remove(filePath(account));
    if (m_usingFile)
        co_return;
    KeychainRun removing{std::make_unique<QKeychain::DeletePasswordJob>(service)};
    static_cast<QKeychain::DeletePasswordJob *>(removing.job.get())->setKey(account);
    co_await run(removing);
}

} // namespace zuv

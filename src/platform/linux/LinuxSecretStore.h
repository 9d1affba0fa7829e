#pragma once

#include "platform/SecretStore.h"

#include <QObject>

namespace zuv {

// The Secret Service (through QtKeychain). Where the desktop has none, a file named
// after the account with mode 0600 in `fallbackFolder`, said once in the log. A
// Secret Service that is there but locked or refusing is reported, never bypassed.
class LinuxSecretStore final : public QObject, public SecretStore {
    Q_OBJECT
public:
    // With `fileOnly` the file is used from the start (a profile of its own, as
    // the development run keeps, must not share the desktop's keyring entry).
    explicit LinuxSecretStore(QString fallbackFolder, bool fileOnly = false, QObject *parent = nullptr);

    QCoro::Task<Read> read(QString service, QString account) override;
    QCoro::Task<bool> write(QString service, QString account, QString secret) override;
    QCoro::Task<void> remove(QString service, QString account) override;

    // True once the Secret Service failed and the file is in use.
    bool usingFile() const { return m_usingFile; }

    // No session bus, or no Secret Service on it, registered or activatable.
    static bool serviceMissing();

private:
    void fallBack(const QString &why);
    QString filePath(const QString &account) const;
    std::optional<QString> readFile(const QString &account) const;
    bool writeFile(const QString &account, const QString &secret) const;

    QString m_folder;
    bool m_usingFile = false;
};

} // namespace zuv

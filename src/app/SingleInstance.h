#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QLocalServer;
class QLockFile;

namespace zuv {

// One running app per user. The first launch takes a lock and listens on a local
// socket; a later launch hands its arguments to it and exits.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    enum class Role {
        primary,   // we hold the lock and listen
        forwarded, // another copy runs and has our arguments
        failed,    // another copy holds the lock but did not answer
    };

    explicit SingleInstance(QString folder, QObject *parent = nullptr);
    ~SingleInstance() override;

    Role claim(const QStringList &arguments);
    QString error() const { return m_error; }

    // Arguments that arrive before this are kept and handed on, in order, once it
    // is called: a launch during start-up (while the keyring is read) is not lost.
    void startDelivering();

signals:
    // The arguments of a later launch, program name first.
    void received(const QStringList &arguments);

private:
    bool forward(const QStringList &arguments);
    void accept();

    QString m_folder;
    QString m_error;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer *m_server = nullptr;
    bool m_delivering = false;
    QList<QStringList> m_queue;
};

} // namespace zuv

#include "app/SingleInstance.h"

#include "platform/linux/PrivateFolder.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QThread>

namespace zuv {

namespace {
constexpr int answerWait = 3000; // ms a later launch waits for the running one
}

SingleInstance::SingleInstance(QString folder, QObject *parent) : QObject(parent), m_folder(std::move(folder)) {}

SingleInstance::~SingleInstance() = default;

SingleInstance::Role SingleInstance::claim(const QStringList &arguments)
{
    QString why;
    if (!PrivateFolder::make(m_folder, &why)) {
        m_error = tr("Zuv won't use %1 for its lock and socket: %2. Remove the folder, or set XDG_RUNTIME_DIR.")
                      .arg(m_folder, why);
        return Role::failed;
    }
    const QString socketPath = m_folder + QStringLiteral("/zuv.sock");

    // A running copy may be just starting: try a few times before giving up.
    for (int attempt = 0; attempt < 10; ++attempt) {
        auto lock = std::make_unique<QLockFile>(m_folder + QStringLiteral("/zuv.lock"));
        lock->setStaleLockTime(0); // stale only when its process is gone, however old
        if (lock->tryLock(0)) {
            m_lock = std::move(lock);
            QLocalServer::removeServer(socketPath);
            m_server = new QLocalServer(this);
            m_server->setSocketOptions(QLocalServer::UserAccessOption);
            if (!m_server->listen(socketPath)) {
                m_error = QStringLiteral("Couldn't listen on %1: %2").arg(socketPath, m_server->errorString());
                return Role::failed;
            }
            connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::accept);
            return Role::primary;
        }
        if (forward(arguments))
            return Role::forwarded;
        QThread::msleep(200);
    }
    m_error = QStringLiteral("Another Zuv is running but did not answer.");
    return Role::failed;
}

void SingleInstance::startDelivering()
{
    m_delivering = true;
    const auto queued = std::exchange(m_queue, {});
    for (const QStringList &arguments : queued)
        emit received(arguments);
}

bool SingleInstance::forward(const QStringList &arguments)
{
    QLocalSocket socket;
    socket.connectToServer(m_folder + QStringLiteral("/zuv.sock"));
    if (!socket.waitForConnected(answerWait))
        return false;
    socket.write(QJsonDocument(QJsonArray::fromStringList(arguments)).toJson(QJsonDocument::Compact) + '\n');
    if (!socket.waitForBytesWritten(answerWait))
        return false;
    while (!socket.canReadLine())
        if (!socket.waitForReadyRead(answerWait))
            return false;
    return socket.readLine().trimmed() == "ok";
}

void SingleInstance::accept()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > 1 << 20) // nobody sends a megabyte of arguments
                    socket->abort();
                return;
            }
            const QJsonDocument document = QJsonDocument::fromJson(socket->readLine());
            if (!document.isArray()) {
                socket->abort();
                return;
            }
            QStringList arguments;
            for (const auto &value : document.array())
                arguments << value.toString();
            socket->write("ok\n");
            socket->flush();
            if (m_delivering)
                emit received(arguments);
            else
                m_queue << arguments;
        });
    }
}

} // namespace zuv

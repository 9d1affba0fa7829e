#include "chat/ChatConnection.h"

#include <QRegularExpression>
#include <QWebSocket>

namespace zuv {

ChatConnection::ChatConnection(std::unique_ptr<QWebSocket> socket, QObject *parent)
    : QObject(parent), m_socket(std::move(socket))
{
    m_socket->setMaxAllowedIncomingMessageSize(quint64(largestFrame));
    m_socket->setMaxAllowedIncomingFrameSize(quint64(largestFrame));
    connect(m_socket.get(), &QWebSocket::connected, this, [this] {
        if (m_ended)
            return;
        m_open = true;
        emit opened();
        settle();
    });
    connect(m_socket.get(), &QWebSocket::textMessageReceived, this, [this](const QString &message) {
        if (!m_ended)
            emit text(message.toUtf8());
    });
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, this, [this] {
        if (!m_ended)
            emit binary();
    });
    connect(m_socket.get(), qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, [this] {
        // QWebSocket names a refused handshake's status only in its error text.
        static const QRegularExpression status(QStringLiteral("status code: (\\d{3})"));
        if (!m_open && status.match(m_socket->errorString()).captured(1) == QLatin1String("401"))
            m_unauthorized = true;
        end();
    });
    connect(m_socket.get(), &QWebSocket::disconnected, this, &ChatConnection::end);
}

ChatConnection::~ChatConnection()
{
    m_socket->disconnect(this);
    m_socket->abort();
}

bool ChatConnection::ping()
{
    if (!isOpen())
        return false;
    return m_socket->sendTextMessage(QStringLiteral("{\"kind\":\"ping\"}")) > 0;
}

void ChatConnection::close()
{
    if (m_ended)
        return;
    m_socket->close(QWebSocketProtocol::CloseCodeGoingAway);
    // The close frame goes out now: the socket is dropped without waiting for the hub's answer.
    m_socket->flush();
    end();
}

void ChatConnection::end()
{
    if (m_ended)
        return;
    m_ended = true;
    emit ended();
    settle();
}

void ChatConnection::settle()
{
    // Once: a waiter gets the signal through a queued call, and a second call
    // that comes after the waiter has gone would reach freed memory.
    if (m_settled)
        return;
    m_settled = true;
    emit settled();
}

} // namespace zuv

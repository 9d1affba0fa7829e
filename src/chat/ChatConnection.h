#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QWebSocket;

namespace zuv {

// One opening of the chat socket, from handshake to end. It tells once that it
// opened and once that it ended, whichever way; frames come as signals between.
class ChatConnection : public QObject {
    Q_OBJECT
public:
    explicit ChatConnection(std::unique_ptr<QWebSocket> socket, QObject *parent = nullptr);
    ~ChatConnection() override;

    bool isOpen() const { return m_open && !m_ended; }
    bool hasEnded() const { return m_ended; }
    // The handshake was refused with HTTP 401.
    bool unauthorized() const { return m_unauthorized; }

    // Sends {"kind":"ping"}; false when the socket did not take it.
    bool ping();
    // Closes with 1001 ("going away") and ends at once, without waiting for the hub.
    void close();

    // The largest frame taken; a bigger one ends the connection.
    static constexpr qint64 largestFrame = 32 * 1024 * 1024;

signals:
    void opened();
    void text(const QByteArray &utf8);
    void binary();
    void ended();
    // Opened or ended, whichever came first.
    void settled();

private:
    void end();
    void settle();

    std::unique_ptr<QWebSocket> m_socket;
    bool m_open = false;
    bool m_ended = false;
    bool m_settled = false;
    bool m_unauthorized = false;
};

} // namespace zuv

#pragma once

#include <QByteArray>
#include <QHttpServer>
#include <QJsonValue>
#include <QList>
#include <QNetworkRequest>
#include <QObject>
#include <QUrl>
#include <QWebSocket>

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace zuv::test {

// An in-process hub on 127.0.0.1 for tests: routes are scripted per test, every
// request is recorded, and answers can be late, never, of any status or malformed.
class TestHub : public QObject {
    Q_OBJECT
public:
    struct Request {
        QByteArray method;
        QString path;  // without the query
        QUrl url;      // as received, with the query
        QByteArray rawTarget;
        std::map<QByteArray, QByteArray> headers; // names lower-cased
        QByteArray body;

        QByteArray header(const QByteArray &name) const;
        QString query(const QString &key) const;
        QJsonValue json() const;
    };

    struct Response {
        int status = 200;
        QByteArray body = "{}";
        QByteArray contentType = "application/json";
        int delayMs = 0;    // answer this much later (real time)
        bool never = false; // keep the connection open without answering
    };

    using Handler = std::function<Response(const Request &)>;

    TestHub();
    ~TestHub() override;

    QUrl url() const;
    quint16 port() const { return m_port; }

    // Answers METHOD path (query ignored) with `handler`; a later call replaces it.
    void on(const QByteArray &method, const QString &path, Handler handler);
    void on(const QByteArray &method, const QString &path, Response response);
    // Answers the next calls in order; the last one repeats.
    void sequence(const QByteArray &method, const QString &path, std::vector<Response> responses);

    // Answers every token exchange with one access token that lives for years.
    void grantTokens();

    static Response json(const QJsonValue &value, int status = 200);
    static Response error(int status, const QString &message = {}, const QString &code = {});

    const QList<Request> &requests() const { return m_requests; }
    QList<Request> requests(const QByteArray &method, const QString &path) const;
    int count(const QByteArray &method, const QString &path) const { return int(requests(method, path).size()); }
    void clear() { m_requests.clear(); }

    // WebSocket connections accepted so far, and the request that opened each.
    const std::vector<std::unique_ptr<QWebSocket>> &sockets() const { return m_sockets; }

signals:
    void requestReceived(const zuv::test::TestHub::Request &request);
    void socketConnected(QWebSocket *socket);

private:
    void answer(const QHttpServerRequest &request, QHttpServerResponder &&responder);

    QHttpServer m_server;
    quint16 m_port = 0;
    std::map<QByteArray, Handler> m_routes;
    QList<Request> m_requests;
    std::vector<std::unique_ptr<QWebSocket>> m_sockets;
    std::vector<std::shared_ptr<QHttpServerResponder>> m_held;
};

} // namespace zuv::test

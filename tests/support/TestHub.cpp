#include "TestHub.h"

#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>

#include <stdexcept>

namespace zuv::test {

namespace {

QByteArray routeKey(const QByteArray &method, const QString &path) { return method.toUpper() + ' ' + path.toUtf8(); }

QByteArray methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get: return "GET";
    case QHttpServerRequest::Method::Put: return "PUT";
    case QHttpServerRequest::Method::Delete: return "DELETE";
    case QHttpServerRequest::Method::Post: return "POST";
    case QHttpServerRequest::Method::Head: return "HEAD";
    case QHttpServerRequest::Method::Options: return "OPTIONS";
    case QHttpServerRequest::Method::Patch: return "PATCH";
    default: return "OTHER";
    }
}

void respond(QHttpServerResponder &responder, const TestHub::Response &response)
{
    responder.writeStatusLine(static_cast<QHttpServerResponder::StatusCode>(response.status));
    responder.writeHeader("Content-Type", response.contentType);
    responder.writeHeader("Content-Length", QByteArray::number(response.body.size()));
    responder.writeBody(response.body);
}

} // namespace

QByteArray TestHub::Request::header(const QByteArray &name) const
{
    const auto it = headers.find(name.toLower());
    return it == headers.end() ? QByteArray() : it->second;
}

QString TestHub::Request::query(const QString &key) const
{
    return QUrlQuery(url).queryItemValue(key, QUrl::FullyDecoded);
}

QJsonValue TestHub::Request::json() const
{
    const auto document = QJsonDocument::fromJson(body);
    return document.isObject() ? QJsonValue(document.object()) : QJsonValue(document.array());
}

TestHub::TestHub()
{
    m_server.setMissingHandler([this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
        answer(request, std::move(responder));
    });
    // QHttpServer upgrades a request to a WebSocket only when a route takes it;
    // these routes answer nothing themselves.
    for (const char *path : {"/app/ws", "/agent/ws"}) {
        m_server.route(QString::fromLatin1(path), [](const QHttpServerRequest &, QHttpServerResponder &&) {});
    }
    connect(&m_server, &QHttpServer::newWebSocketConnection, this, [this] {
        while (m_server.hasPendingWebSocketConnections()) {
            m_sockets.push_back(m_server.nextPendingWebSocketConnection());
            emit socketConnected(m_sockets.back().get());
        }
    });
    m_port = m_server.listen(QHostAddress::LocalHost, 0);
    if (m_port == 0)
        throw std::runtime_error("the test hub could not listen on 127.0.0.1");
}

TestHub::~TestHub() = default;

QUrl TestHub::url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_port)); }

void TestHub::on(const QByteArray &method, const QString &path, Handler handler)
{
    m_routes[routeKey(method, path)] = std::move(handler);
}

void TestHub::on(const QByteArray &method, const QString &path, Response response)
{
    on(method, path, [response](const Request &) { return response; });
}

void TestHub::sequence(const QByteArray &method, const QString &path, std::vector<Response> responses)
{
    auto queue = std::make_shared<std::vector<Response>>(std::move(responses));
    auto next = std::make_shared<size_t>(0);
    on(method, path, [queue, next](const Request &) {
        const Response r = queue->at(std::min(*next, queue->size() - 1));
        ++*next;
        return r;
    });
}

void TestHub::grantTokens()
{
    on("POST", "/agent/app-token", json(QJsonObject{{QStringLiteral("accessToken"), QStringLiteral("access")},
                                                    {QStringLiteral("expiresAt"), 4e12}}));
}

TestHub::Response TestHub::json(const QJsonValue &value, int status)
{
    Response r;
    r.status = status;
    if (value.isObject())
        r.body = QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    else if (value.isArray())
        r.body = QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    else if (value.isNull())
        r.body = "null";
    else
        // A bare string or number would go out as an empty body and the test would
        // check something else than it says.
        throw std::invalid_argument("TestHub::json takes an object, an array or null");
    return r;
}

TestHub::Response TestHub::error(int status, const QString &message, const QString &code)
{
    QJsonObject inner{{QStringLiteral("message"), message}};
    if (!code.isEmpty())
        inner.insert(QStringLiteral("code"), code);
    return json(QJsonObject{{QStringLiteral("error"), inner}}, status);
}

QList<TestHub::Request> TestHub::requests(const QByteArray &method, const QString &path) const
{
    QList<Request> out;
    for (const auto &r : m_requests)
        if (r.method == method.toUpper() && r.path == path)
            out << r;
    return out;
}

void TestHub::answer(const QHttpServerRequest &request, QHttpServerResponder &&responder)
{
    Request r;
    r.method = methodName(request.method());
    r.url = request.url();
    r.path = request.url().path();
    r.rawTarget = request.url().toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
    for (const auto &[name, value] : request.headers())
        r.headers[name.toLower()] = value;
    r.body = request.body();
    m_requests << r;
    emit requestReceived(r);

    const auto route = m_routes.find(routeKey(r.method, r.path));
    const Response response = route != m_routes.end()
        ? route->second(r)
        : error(404, QStringLiteral("No route for %1 %2").arg(QString::fromUtf8(r.method), r.path));
    if (response.never) {
        m_held.push_back(std::make_shared<QHttpServerResponder>(std::move(responder)));
        return;
    }
    if (response.delayMs <= 0) {
        respond(responder, response);
        return;
    }
    // The client may have hung up meanwhile; then nobody is there to answer.
    QPointer<QTcpSocket> socket(responder.socket());
    auto held = std::make_shared<QHttpServerResponder>(std::move(responder));
    m_held.push_back(held);
    QTimer::singleShot(response.delayMs, this, [held, response, socket] {
        if (socket && socket->state() == QAbstractSocket::ConnectedState)
            respond(*held, response);
    });
}

} // namespace zuv::test

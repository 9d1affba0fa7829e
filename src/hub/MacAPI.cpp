#include "hub/MacAPI.h"

#include "base/Clock.h"
#include "base/Http.h"
#include "base/Keychain.h"

#include <QCoreApplication>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QPointer>
#include <QWebSocket>

namespace zuv {

namespace {

constexpr double tokenMargin = 120;  // seconds an access token must still live to be used
constexpr double mediaLinkLife = 720; // seconds a signed media link is trusted

[[noreturn]] void gone() { throw NetworkError(QStringLiteral("The request was cancelled."), true); }

// The hub's error body: {"error": {"message": …, "code": …}}.
MacAPI::Failure failureFrom(const http::Reply &reply)
{
    QString message;
    QString code;
    try {
        const QJsonValue body = json::parse(reply.body);
        if (body.isObject()) {
            const auto inner = json::required<QJsonObject>(body.toObject(), QStringLiteral("error"));
            message = json::required<QString>(inner, QStringLiteral("message"));
            code = json::optional<QString>(inner, QStringLiteral("code")).value_or(QString());
        }
    } catch (const DecodingError &) {
        message.clear();
        code.clear();
    }
    return MacAPI::Failure::http(reply.status, message, code);
}

} // namespace

MacAPI::Failure::Failure(Kind kind, int status, QString message, QString code, QString text)
    : Error(std::move(text)), m_kind(kind), m_status(status), m_message(std::move(message)), m_code(std::move(code))
{
}

MacAPI::Failure MacAPI::Failure::http(int status, const QString &message, const QString &code)
{
    const QString text = message.isEmpty() ? tr("Zuv server error %1").arg(status) : message;
    return Failure(Kind::http, status, message, code, text);
}

MacAPI::Failure MacAPI::Failure::notPaired()
{
    return Failure(Kind::notPaired, 0, {}, {}, tr("This computer isn't paired with a Zuv account."));
}

MacAPI::TokenReply MacAPI::TokenReply::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("accessToken")), required<double>(o, QStringLiteral("expiresAt")),
            optional<QString>(o, QStringLiteral("device"))};
}

MacAPI::LinkReply MacAPI::LinkReply::fromJson(const QJsonObject &o)
{
    return {json::required<QString>(o, QStringLiteral("url"))};
}

MacAPI::MacAPI(Clock &clock, Keychain &keychain, QNetworkAccessManager &network, QUrl server, QObject *parent)
    : QObject(parent), m_clock(clock), m_keychain(keychain), m_network(network), m_server(std::move(server))
{
}


QString MacAPI::encodeQueryValue(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value, QByteArrayLiteral("!$'()*,/:;@")));
}

QUrl MacAPI::join(const QString &path) const
{
    // Plain concatenation: the path brings its own encoded query.
    const QUrl url = QUrl::fromEncoded(m_server.toString(QUrl::FullyEncoded).toUtf8() + path.toUtf8(),
                                       QUrl::StrictMode);
    if (!url.isValid())
        throw Error(QStringLiteral("Invalid hub address: %1").arg(m_server.toString() + path));
    return url;
}

QCoro::Task<QString> MacAPI::token(CancelToken cancel)
{
    if (m_access && m_access->until > m_clock.now() + tokenMargin) {
        const QString held = m_access->token; // a copy, never a move out of the member
        co_return held;
    }
    const auto agentToken = m_keychain.token();
    if (!agentToken)
        throw Failure::notPaired();

    QNetworkRequest request(http::appendPath(m_server, QStringLiteral("/agent/app-token")));
    http::setTimeout(request, 60);
    request.setRawHeader("authorization", "Bearer " + agentToken->toUtf8());

    QPointer<MacAPI> self(this);
    const http::Reply reply = co_await http::send(m_network, request, "POST", QByteArray(), nullptr, cancel);
    if (!self)
        gone();
    http::requireHttp(reply);
    if (reply.status != 200)
        throw Failure::http(reply.status, {}, {});
    const auto decoded = json::decodeBody<TokenReply>(reply.body);
    m_access = Access{decoded.accessToken, decoded.expiresAt / 1000.0};
    if (decoded.device)
        m_device = decoded.device;
    co_return decoded.accessToken;
}

QCoro::Task<QByteArray> MacAPI::request(QString path, QString method, std::optional<QJsonValue> body,
                                        double timeout, CancelToken cancel)
{
    QPointer<MacAPI> self(this);
    QNetworkRequest request(join(path));
    http::setTimeout(request, timeout);
    const QString access = co_await token(cancel);
    if (!self)
        gone();
    request.setRawHeader("authorization", "Bearer " + access.toUtf8());
    QByteArray data;
    if (body) {
        request.setRawHeader("content-type", "application/json");
        data = json::encode(*body);
    }
    const http::Reply reply = co_await http::send(m_network, request, method.toUtf8(), data, nullptr, cancel);
    if (!self)
        gone();
    http::requireHttp(reply);
    if (reply.status >= 200 && reply.status <= 299)
        co_return reply.body;
    throw failureFrom(reply);
}

QCoro::Task<QByteArray> MacAPI::callBody(QString path, QString method, std::optional<QJsonValue> body,
                                         double timeout, CancelToken cancel)
{
    QPointer<MacAPI> self(this);
    try {
        co_return co_await request(path, method, body, timeout, cancel);
    } catch (const Failure &failure) {
        if (!self || failure.kind() != Failure::Kind::http || failure.status() != 401 || !m_access)
            throw;
    }
    // The access token was stale: forget it and try exactly once more.
    m_access.reset();
    co_return co_await request(path, method, body, timeout, cancel);
}

QCoro::Task<Entry::File> MacAPI::upload(QString filePath, QString name, QString mime, CancelToken cancel)
{
    QPointer<MacAPI> self(this);
    QString encoded = encodeQueryValue(name);
    if (encoded.isEmpty() && !name.isEmpty())
        encoded = QStringLiteral("file");
    QNetworkRequest request(join(QStringLiteral("/app/media?name=") + encoded));
    http::setTimeout(request, 600);
    request.setRawHeader("content-type", mime.toUtf8());
    const QString access = co_await token(cancel);
    if (!self)
        gone();
    request.setRawHeader("authorization", "Bearer " + access.toUtf8());

    auto file = std::make_unique<QFile>(filePath);
    if (!file->open(QIODevice::ReadOnly))
        throw Error(tr("Couldn't read “%1”: %2").arg(filePath, file->errorString()));
    const http::Reply reply = co_await http::send(m_network, request, "PUT", QByteArray(), file.get(), cancel);
    if (!self)
        gone();
    http::requireHttp(reply);
    if (reply.status >= 200 && reply.status <= 299)
        co_return json::decodeBody<Entry::File>(reply.body);
    if (reply.status == 413)
        throw Failure::http(413, tr("Larger than 100 MB"), {});
    throw Failure::http(reply.status, tr("Upload failed"), {});
}

QCoro::Task<std::optional<QUrl>> MacAPI::mediaURL(QString key)
{
    const auto cached = m_mediaURLs.constFind(key);
    if (cached != m_mediaURLs.constEnd() && cached->until > m_clock.now())
        co_return cached->url;
    QPointer<MacAPI> self(this);
    std::optional<LinkReply> reply;
    try {
        reply = co_await get<std::optional<LinkReply>>(QStringLiteral("/app/media-url?key=") + encodeQueryValue(key));
    } catch (const std::exception &) {
        co_return std::nullopt;
    }
    if (!self || !reply)
        co_return std::nullopt;
    const QUrl url(reply->url, QUrl::StrictMode);
    if (reply->url.isEmpty() || !url.isValid() || url.isRelative())
        co_return std::nullopt;
    m_mediaURLs.insert(key, Link{url, m_clock.now() + mediaLinkLife});
    co_return url;
}

QCoro::Task<std::unique_ptr<QWebSocket>> MacAPI::socket()
{
    QPointer<MacAPI> self(this);
    QString address = m_server.toString(QUrl::FullyEncoded);
    address.replace(QStringLiteral("https://"), QStringLiteral("wss://"));
    address += QStringLiteral("/app/ws");
    // QWebSocket takes only ws and wss; a plain-http hub (a local one) speaks ws.
    if (address.startsWith(QLatin1String("http://")))
        address.replace(0, 7, QStringLiteral("ws://"));
    const QString access = co_await token();
    if (!self)
        gone();
    QNetworkRequest request{QUrl(address)};
    request.setRawHeader("authorization", "Bearer " + access.toUtf8());
    auto socket = std::make_unique<QWebSocket>();
    watchHandshake(*socket);
    socket->open(request);
    co_return socket;
}

namespace {

// Lives as a child of one opening socket: gives up on the handshake after the
// time-out, and goes (cancelling its wait) with the socket or once it connects.
class HandshakeWatch : public QObject {
public:
    explicit HandshakeWatch(QWebSocket &socket) : QObject(&socket) {}
    Job wait;
};

QCoro::Task<void> abortWhenLate(Clock *clock, QPointer<QWebSocket> socket, double seconds, CancelToken token)
{
    // A pointer and a named result: GCC 12 miscompiled this coroutine with a
    // reference parameter and the co_await inside the condition.
    const bool waited = co_await clock->sleep(seconds, token);
    if (!waited || !socket || token.isCancelled())
        co_return;
    if (socket->state() != QAbstractSocket::ConnectedState)
        socket->abort(); // the owner sees disconnected() with a time-out error
}

} // namespace

void MacAPI::watchHandshake(QWebSocket &socket)
{
    auto *watch = new HandshakeWatch(socket);
    QPointer<QWebSocket> guard(&socket);
    Clock *clock = &m_clock;
    watch->wait = Job::start(
        [clock, guard](CancelToken token) { return abortWhenLate(clock, guard, socketHandshakeTimeout, std::move(token)); },
        QStringLiteral("The chat socket's handshake"));
    QObject::connect(&socket, &QWebSocket::connected, watch, [watch] { watch->deleteLater(); });
}

QCoro::Task<std::optional<QString>> MacAPI::thisMac()
{
    QPointer<MacAPI> self(this);
    if (!m_device)
        m_access.reset();
    try {
        co_await token();
    } catch (const std::exception &) {
        // The device id is whatever the last exchange said.
    }
    if (!self)
        co_return std::nullopt;
    // A copy: GCC 12 moves from a member named alone in co_return.
    const std::optional<QString> device = m_device;
    co_return device;
}

} // namespace zuv

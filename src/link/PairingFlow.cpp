#include "link/PairingFlow.h"

#include "base/Clock.h"
#include "base/Error.h"
#include "base/Http.h"
#include "base/Json.h"
#include "base/Log.h"
#include "platform/DeviceName.h"

#include <QNetworkAccessManager>
#include <QPointer>

namespace zuv {

PairingFlow::Start PairingFlow::Start::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("code")), required<QString>(o, QStringLiteral("secret")),
            required<double>(o, QStringLiteral("expiresAt"))};
}

PairingFlow::Poll PairingFlow::Poll::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("status")), optional<QString>(o, QStringLiteral("token")),
            optional<bool>(o, QStringLiteral("owner"))};
}

PairingFlow::PairingFlow(Clock &clock, QNetworkAccessManager &network, QUrl server, QObject *parent)
    : QObject(parent), m_clock(clock), m_network(network), m_server(std::move(server))
{
}

template<class T>
QCoro::Task<T> PairingFlow::post(QString path, QJsonObject body, CancelToken cancel)
{
    QNetworkRequest request(http::appendPath(m_server, path));
    request.setRawHeader("content-type", "application/json");
    http::setTimeout(request, 60);
    const http::Reply reply =
        co_await http::send(m_network, request, "POST", json::encode(body), nullptr, std::move(cancel));
    http::requireHttp(reply);
    if (reply.status != 200)
        throw NetworkError(tr("The server returned an unexpected response (HTTP %1).").arg(reply.status));
    co_return json::decodeBody<T>(reply.body);
}

void PairingFlow::start()
{
    // Job::start runs the body at once, so `this` is alive here; run() guards itself after its waits.
    m_task = Job::start([this](CancelToken cancel) { return run(std::move(cancel)); }, QStringLiteral("Pairing"));
}

QCoro::Task<void> PairingFlow::run(CancelToken cancel)
{
    QPointer<PairingFlow> self(this);
    try {
        // Bodies are built before the co_await: GCC 12 miscompiles initializer
        // lists inside an awaited expression.
        QJsonObject startBody;
        startBody.insert(QStringLiteral("name"), deviceName());
        const Start started = co_await post<Start>(QStringLiteral("/pair/start"), startBody, cancel);
        if (!self || cancel.isCancelled())
            co_return;
        log(QStringLiteral("pairing code ") + started.code);
        emit showing(started.code);
        for (;;) {
            if (!self || cancel.isCancelled())
                co_return;
            // A named result: GCC 12 miscompiles some co_await inside a condition.
            const bool waited = co_await m_clock.sleep(pollInterval, cancel);
            if (!waited || !self)
                co_return;
            QJsonObject pollBody;
            pollBody.insert(QStringLiteral("code"), started.code);
            pollBody.insert(QStringLiteral("secret"), started.secret);
            const Poll poll = co_await post<Poll>(QStringLiteral("/pair/poll"), pollBody, cancel);
            if (!self || cancel.isCancelled())
                co_return;
            if (poll.status == QLatin1String("paired") && poll.token) {
                emit paired(*poll.token, poll.owner.value_or(false));
                co_return;
            }
            if (poll.status == QLatin1String("expired")) {
                emit expired();
                co_return;
            }
        }
    } catch (const std::exception &e) {
        // A cancelled attempt was ended by whoever cancelled it (unpair, revoke, a new
        // pairing), and that one has set the state: say nothing.
        if (!self || cancel.isCancelled())
            co_return;
        emit failed(tr("Couldn't reach Zuv: %1").arg(describe(e)));
    }
}

} // namespace zuv

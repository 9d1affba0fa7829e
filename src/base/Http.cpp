#include "base/Http.h"

#include "base/Error.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

#include <coroutine>

namespace zuv::http {

namespace {

// Follows one reply outside the coroutine frame: cancellation aborts it, and the
// waiting coroutine resumes once, when it finishes or is destroyed unfinished.
class Watch {
public:
    Watch(QNetworkReply *reply, CancelToken token) : m_reply(reply), m_token(std::move(token))
    {
        QPointer<QNetworkReply> guard(reply);
        m_handler = m_token.onCancel([guard] {
            // Abort on the next turn of the loop, never inside cancel().
            QMetaObject::invokeMethod(
                guard.data(), [guard] { if (guard) guard->abort(); }, Qt::QueuedConnection);
        });
    }

    ~Watch() { m_token.removeHandler(m_handler); }

    bool finished() const { return !m_reply || m_reply->isFinished(); }

    void onDone(std::coroutine_handle<> handle)
    {
        auto once = std::make_shared<bool>(false);
        auto resume = [handle, once] {
            if (*once)
                return;
            *once = true;
            // Resume on the next turn of the loop, not inside the reply's own signal.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [handle] { handle.resume(); }, Qt::QueuedConnection);
        };
        QObject::connect(m_reply.data(), &QNetworkReply::finished, resume);
        QObject::connect(m_reply.data(), &QObject::destroyed, resume);
    }

    Reply result() const
    {
        Reply result;
        if (!m_reply) {
            result.error = QStringLiteral("The connection was closed.");
            result.cancelled = m_token.isCancelled();
            return result;
        }
        const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid()) {
            result.http = true;
            result.status = status.toInt();
            result.body = m_reply->readAll();
        } else {
            // Qt reports its own time-out as a cancellation; tell the two apart.
            result.cancelled = m_token.isCancelled();
            result.error = result.cancelled ? QStringLiteral("The request was cancelled.")
                : m_reply->error() == QNetworkReply::OperationCanceledError
                ? QStringLiteral("The request timed out.")
                : m_reply->errorString();
        }
        m_reply->deleteLater();
        return result;
    }

private:
    QPointer<QNetworkReply> m_reply;
    CancelToken m_token;
    quint64 m_handler = 0;
};

struct Finished {
    Watch *watch;
    bool await_ready() const { return watch->finished(); }
    void await_suspend(std::coroutine_handle<> handle) const { watch->onDone(handle); }
    void await_resume() const {}
};

QNetworkReply *start(QNetworkAccessManager &network, const QNetworkRequest &request, const QByteArray &verb,
                     const QByteArray &body, QIODevice *upload)
{
    if (upload)
        return network.sendCustomRequest(request, verb, upload);
    if (body.isNull())
        return network.sendCustomRequest(request, verb);
    return network.sendCustomRequest(request, verb, body);
}

} // namespace

void setTimeout(QNetworkRequest &request, double seconds)
{
    request.setTransferTimeout(int(std::max(1.0, seconds * 1000.0)));
}

QCoro::Task<Reply> send(QNetworkAccessManager &network, QNetworkRequest request, QByteArray verb,
                        QByteArray body, QIODevice *upload, CancelToken token)
{
    if (token.isCancelled()) {
        Reply cancelled;
        cancelled.cancelled = true;
        cancelled.error = QStringLiteral("The request was cancelled.");
        co_return cancelled;
    }
    auto watch = std::make_unique<Watch>(start(network, request, verb, body, upload), token);
    Finished finished{watch.get()}; // named: see Clock::sleep
    co_await finished;
    co_return watch->result();
}

QUrl appendPath(const QUrl &base, const QString &path)
{
    QString address = base.toString(QUrl::FullyEncoded);
    while (address.endsWith(QLatin1Char('/')))
        address.chop(1);
    return QUrl(address + path);
}

void requireHttp(const Reply &reply)
{
    if (!reply.http)
        throw NetworkError(reply.error, reply.cancelled);
}

} // namespace zuv::http

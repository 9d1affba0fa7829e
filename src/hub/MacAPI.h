#pragma once

#include "base/Shared.h"

#include "base/Error.h"
#include "base/Job.h"
#include "base/Json.h"
#include "hub/Entry.h"

#include <QHash>
#include <QJsonValue>
#include <QObject>
#include <QUrl>
#include <QCoro/QCoroTask>

#include <memory>
#include <optional>

class QNetworkAccessManager;
class QWebSocket;

namespace zuv {

class Clock;
class Keychain;

// The app's one door to the hub: JSON requests with short-lived access tokens
// exchanged from the agent token, uploads streamed from disk, signed media links
// and the chat socket. Lives on the main thread; Qt networking never blocks it.
class MacAPI : public QObject, public Shared<MacAPI> {
    Q_OBJECT
public:
    class Failure : public Error {
    public:
        enum class Kind { http, notPaired };

        static Failure http(int status, const QString &message, const QString &code);
        static Failure notPaired();

        Kind kind() const { return m_kind; }
        int status() const { return m_status; }
        QString message() const { return m_message; }
        QString code() const { return m_code; }

    private:
        Failure(Kind kind, int status, QString message, QString code, QString text);
        Kind m_kind;
        int m_status;
        QString m_message;
        QString m_code;
    };

    // The reply type of writes, whose content nobody reads (it must be a JSON object).
    struct Ignored {
        static Ignored fromJson(const QJsonObject &) { return {}; }
    };

    // The access-token exchange's reply.
    struct TokenReply {
        QString accessToken;
        double expiresAt = 0; // milliseconds since 1970
        std::optional<QString> device;
        static TokenReply fromJson(const QJsonObject &object);
    };

    // A signed media link.
    struct LinkReply {
        QString url;
        static LinkReply fromJson(const QJsonObject &object);
    };

    struct Access {
        QString token;
        double until = 0; // seconds since 1970
    };

    MacAPI(Clock &clock, Keychain &keychain, QNetworkAccessManager &network, QUrl server,
           QObject *parent = nullptr);


    QUrl server() const { return m_server; }

    // GET `path` (which carries its own percent-encoded query) and decode the reply as T.
    template<class T>
    QCoro::Task<T> get(QString path, CancelToken cancel = CancelToken())
    {
        const QByteArray body = co_await callBody(std::move(path), QStringLiteral("GET"), std::nullopt, 60,
                                                  std::move(cancel));
        co_return json::decodeBody<T>(body);
    }

    // Any verb with an optional JSON body; a stale access token is renewed and the
    // request repeated once.
    template<class T>
    QCoro::Task<T> call(QString path, QString method, std::optional<QJsonValue> body = std::nullopt,
                        double timeout = 60, CancelToken cancel = CancelToken())
    {
        const QByteArray reply = co_await callBody(std::move(path), std::move(method), std::move(body), timeout,
                                                   std::move(cancel));
        co_return json::decodeBody<T>(reply);
    }

    // A valid access token, exchanged when the held one has 120 seconds or less to live.
    QCoro::Task<QString> token(CancelToken cancel = CancelToken());

    // PUTs the file at `filePath`, streamed from disk.
    QCoro::Task<Entry::File> upload(QString filePath, QString name, QString mime,
                                    CancelToken cancel = CancelToken());

    // A signed link for a media key, cached for 720 seconds. Never throws.
    QCoro::Task<std::optional<QUrl>> mediaURL(QString key);

    // The chat socket, opening; the caller owns it. A handshake that has not
    // finished after socketHandshakeTimeout seconds is aborted.
    QCoro::Task<std::unique_ptr<QWebSocket>> socket();
    static constexpr double socketHandshakeTimeout = 60;

    // This computer's device id, as the hub named it. Never throws.
    QCoro::Task<std::optional<QString>> thisMac();

    // Forgets the access token, so the next call exchanges a new one.
    void clearAccess() { m_access.reset(); }
    const std::optional<Access> &access() const { return m_access; }
    std::optional<QString> device() const { return m_device; }

    // Percent-encodes a query value: RFC 3986 query characters stay, and so do
    // none of "&+=?#".
    static QString encodeQueryValue(const QString &value);

private:
    void watchHandshake(QWebSocket &socket);
    QCoro::Task<QByteArray> callBody(QString path, QString method, std::optional<QJsonValue> body, double timeout,
                                     CancelToken cancel);
    QCoro::Task<QByteArray> request(QString path, QString method, std::optional<QJsonValue> body, double timeout,
                                    CancelToken cancel);
    QUrl join(const QString &path) const;

    Clock &m_clock;
    Keychain &m_keychain;
    QNetworkAccessManager &m_network;
    QUrl m_server;
    std::optional<Access> m_access;
    std::optional<QString> m_device;
    struct Link {
        QUrl url;
        double until = 0;
    };
    QHash<QString, Link> m_mediaURLs;
};

} // namespace zuv

#pragma once

#include "base/Job.h"

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QCoro/QCoroTask>

class QIODevice;
class QNetworkAccessManager;

namespace zuv::http {

// What came back from one request.
struct Reply {
    bool http = false;   // an HTTP answer arrived (any status)
    int status = 0;      // its status; 0 when there was none
    QByteArray body;
    QString error;       // transport error text when there was no HTTP answer
    bool cancelled = false;
};

// Sends one request and waits for the whole answer. Cancelling `token` aborts it.
// `body` is sent when not null; `upload` streams a device instead (never both).
QCoro::Task<Reply> send(QNetworkAccessManager &network, QNetworkRequest request, QByteArray verb,
                        QByteArray body, QIODevice *upload, CancelToken token);

// The request's time-out: the longest silence allowed, in seconds.
void setTimeout(QNetworkRequest &request, double seconds);

// `base` with `path` ("/pair/start") appended as a path, whatever slashes `base` ends in.
QUrl appendPath(const QUrl &base, const QString &path);

// Throws NetworkError for a reply that carried no HTTP answer.
void requireHttp(const Reply &reply);

} // namespace zuv::http

#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <utility>
#include <vector>

namespace zuv {

// The desktop's notification service, with our own identifiers: the same
// identifier replaces its banner, threads and the delivered list are ours.
class NotificationCenter : public QObject {
    Q_OBJECT
public:
    struct Request {
        QString identifier;
        QString thread;
        QString title;
        QString body;
        QVariantMap userInfo;
        std::vector<std::pair<QString, QString>> actions; // key, label
        bool urgent = false; // waits on the person
        bool sound = true;
    };

    using QObject::QObject;

    virtual void add(const Request &request) = 0;
    // Closes delivered banners; an identifier we never raised is ignored.
    virtual void remove(const QStringList &identifiers) = 0;
    // The identifiers still on screen or in the desktop's list, of one thread.
    virtual QStringList delivered(const QString &thread) const = 0;

signals:
    // The person pressed `action` ("default" for the banner itself).
    void activated(const QString &identifier, const QString &action, const QVariantMap &userInfo);
};

} // namespace zuv

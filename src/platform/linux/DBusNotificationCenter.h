#pragma once

#include "platform/NotificationCenter.h"

#include <QDBusConnection>

#include <map>
#include <optional>

namespace zuv {

// Banners through org.freedesktop.Notifications. Our identifiers map to the ids
// the daemon gives; the map is kept true by NotificationClosed. Every call is
// asynchronous, so a slow daemon never holds the main thread; with no daemon on
// the bus, that is said once in the log and nothing else changes.
class DBusNotificationCenter final : public NotificationCenter {
    Q_OBJECT
public:
    explicit DBusNotificationCenter(QDBusConnection bus = QDBusConnection::sessionBus(), QObject *parent = nullptr);

    void add(const Request &request) override;
    void remove(const QStringList &identifiers) override;
    QStringList delivered(const QString &thread) const override;

    static constexpr const char *service = "org.freedesktop.Notifications";
    static constexpr const char *path = "/org/freedesktop/Notifications";

private slots:
    void closed(uint id, uint reason);
    void invoked(uint id, const QString &action);

private:
    struct Shown {
        uint id = 0; // 0 while the daemon has not answered
        QString thread;
        QVariantMap userInfo;
        bool closeWhenKnown = false;
        bool asking = false;              // a Notify is on its way
        std::optional<Request> next;      // to send once it has come back
    };

    void notify(const Request &request, uint replaces);
    void close(uint id);
    void unavailable(const QString &why);

    QDBusConnection m_bus;
    std::map<QString, Shown> m_shown; // by our identifier
    bool m_told = false;
};

} // namespace zuv

#include "platform/linux/DBusNotificationCenter.h"

#include "base/Log.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>

#include <utility>

namespace zuv {

namespace {
const QString interfaceName = QStringLiteral("org.freedesktop.Notifications");
} // namespace

DBusNotificationCenter::DBusNotificationCenter(QDBusConnection bus, QObject *parent)
    : NotificationCenter(parent), m_bus(std::move(bus))
{
    m_bus.connect(QString::fromLatin1(service), QString::fromLatin1(path), interfaceName,
                  QStringLiteral("NotificationClosed"), this, SLOT(closed(uint, uint)));
    m_bus.connect(QString::fromLatin1(service), QString::fromLatin1(path), interfaceName,
                  QStringLiteral("ActionInvoked"), this, SLOT(invoked(uint, QString)));
}

void DBusNotificationCenter::unavailable(const QString &why)
{
    if (m_told)
        return;
    m_told = true;
    log(QStringLiteral("No notification service answered (%1); banners are not shown.").arg(why));
}

void DBusNotificationCenter::add(const Request &request)
{
    Shown &shown = m_shown[request.identifier];
    shown.thread = request.thread;
    shown.userInfo = request.userInfo;
    shown.closeWhenKnown = false;
    if (shown.asking) {
        // The daemon has not yet said which banner the first one is: this one
        // replaces it once it has, rather than standing beside it.
        shown.next = request;
        return;
    }
    notify(request, shown.id);
}

void DBusNotificationCenter::notify(const Request &request, uint replaces)
{
    m_shown[request.identifier].asking = true;

    QStringList actions;
    for (const auto &[key, label] : request.actions)
        actions << key << label;
    if (!request.actions.empty() || !request.userInfo.isEmpty())
        actions << QStringLiteral("default") << QString(); // a click on the banner itself
    QVariantMap hints;
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(uchar(request.urgent ? 2 : 1)));
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("com.kelmor.zuv.mac"));
    if (!request.sound)
        hints.insert(QStringLiteral("suppress-sound"), true);

    QDBusMessage call = QDBusMessage::createMethodCall(QString::fromLatin1(service), QString::fromLatin1(path),
                                                       interfaceName, QStringLiteral("Notify"));
    call << QStringLiteral("Zuv") << replaces << QStringLiteral("com.kelmor.zuv.mac") << request.title << request.body
         << actions << hints << int(request.urgent ? 0 : -1); // an urgent banner stays until answered
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    const QString identifier = request.identifier;
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, identifier](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        const QDBusPendingReply<uint> reply = *w;
        auto it = m_shown.find(identifier);
        if (it == m_shown.end())
            return;
        it->second.asking = false;
        if (reply.isError()) {
            unavailable(reply.error().message());
            if (it->second.id == 0)
                m_shown.erase(it);
            return;
        }
        it->second.id = reply.value();
        if (it->second.closeWhenKnown) {
            close(it->second.id);
            m_shown.erase(it);
            return;
        }
        if (auto next = std::exchange(it->second.next, std::nullopt))
            notify(*next, it->second.id);
    });
}

void DBusNotificationCenter::close(uint id)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QString::fromLatin1(service), QString::fromLatin1(path),
                                                       interfaceName, QStringLiteral("CloseNotification"));
    call << id;
    m_bus.asyncCall(call); // the answer is of no interest; NotificationClosed follows
}

void DBusNotificationCenter::remove(const QStringList &identifiers)
{
    for (const QString &identifier : identifiers) {
        auto it = m_shown.find(identifier);
        if (it == m_shown.end())
            continue;
        if (it->second.asking) {
            it->second.closeWhenKnown = true; // Notify has not answered yet
            it->second.next.reset();
            continue;
        }
        close(it->second.id);
        m_shown.erase(it);
    }
}

QStringList DBusNotificationCenter::delivered(const QString &thread) const
{
    QStringList out;
    for (const auto &[identifier, shown] : m_shown)
        if (shown.thread == thread && !shown.closeWhenKnown)
            out << identifier;
    return out;
}

void DBusNotificationCenter::closed(uint id, uint)
{
    for (auto it = m_shown.begin(); it != m_shown.end(); ++it) {
        if (it->second.id == id) {
            m_shown.erase(it);
            return;
        }
    }
}

void DBusNotificationCenter::invoked(uint id, const QString &action)
{
    for (const auto &[identifier, shown] : m_shown) {
        if (shown.id == id) {
            // Copies: a listener may add or remove banners.
            const QString which = identifier;
            const QVariantMap info = shown.userInfo;
            emit activated(which, action, info);
            return;
        }
    }
}

} // namespace zuv

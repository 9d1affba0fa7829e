#pragma once

#include "PrivateSystemBus.h"
#include "Support.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>

#include <memory>
#include <vector>

namespace zuv::test {

// A session bus of the test's own with python3-dbusmock's notification daemon on it.
class MockNotificationDaemon {
public:
    explicit MockNotificationDaemon(bool withDaemon = true)
    {
        m_address = startPrivateBus(m_daemon, m_home, "session");
        if (m_address.isEmpty())
            return;
        m_mock.setProcessChannelMode(QProcess::ForwardedChannels);
        m_bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(m_address, QStringLiteral("mock-bus")));
        if (withDaemon && m_bus->isConnected())
            startSessionMock(m_mock, m_address, {"--template", "notification_daemon"}, QStringLiteral("org.freedesktop.Notifications"),
                             *m_bus);
    }
    ~MockNotificationDaemon()
    {
        m_bus.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("mock-bus"));
        m_mock.kill();
        m_mock.waitForFinished(3000);
        m_daemon.kill();
        m_daemon.waitForFinished(3000);
    }

    bool up() const { return m_bus && m_bus->isConnected(); }
    QString address() const { return m_address; }
    QDBusConnection &bus() { return *m_bus; }

    struct Call {
        QString method;
        QVariantList args;
    };
    std::vector<Call> calls()
    {
        QDBusMessage get = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
                                                          QStringLiteral("/org/freedesktop/Notifications"),
                                                          QStringLiteral("org.freedesktop.DBus.Mock"),
                                                          QStringLiteral("GetCalls"));
        const QDBusMessage reply = m_bus->call(get);
        std::vector<Call> out;
        if (reply.type() != QDBusMessage::ReplyMessage)
            return out;
        const QDBusArgument list = reply.arguments().at(0).value<QDBusArgument>();
        list.beginArray();
        while (!list.atEnd()) {
            Call call;
            quint64 when = 0;
            list.beginStructure();
            list >> when >> call.method >> call.args;
            list.endStructure();
            out.push_back(call);
        }
        list.endArray();
        return out;
    }
    std::vector<Call> calls(const QString &method)
    {
        std::vector<Call> out;
        for (auto &c : calls())
            if (c.method == method)
                out.push_back(c);
        return out;
    }
    void emitSignal(const QString &name, const QString &signature, const QVariantList &args)
    {
        QDBusMessage emitIt = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
                                                             QStringLiteral("/org/freedesktop/Notifications"),
                                                             QStringLiteral("org.freedesktop.DBus.Mock"),
                                                             QStringLiteral("EmitSignal"));
        emitIt << QStringLiteral("org.freedesktop.Notifications") << name << signature << args;
        m_bus->call(emitIt);
    }

private:
    TempHome m_home;
    QProcess m_daemon;
    QProcess m_mock;
    QString m_address;
    std::unique_ptr<QDBusConnection> m_bus;
};

// What the mock hands back comes as variants that may still hold D-Bus arguments.
inline QVariant plainValue(const QVariant &value)
{
    return value.canConvert<QDBusVariant>() ? value.value<QDBusVariant>().variant() : value;
}
inline QStringList strings(const QVariant &value)
{
    const QVariant v = plainValue(value);
    if (v.canConvert<QDBusArgument>())
        return qdbus_cast<QStringList>(v.value<QDBusArgument>());
    return v.toStringList();
}
inline QVariantMap hints(const QVariant &value)
{
    const QVariant v = plainValue(value);
    if (v.canConvert<QDBusArgument>())
        return qdbus_cast<QVariantMap>(v.value<QDBusArgument>());
    return v.toMap();
}


} // namespace zuv::test

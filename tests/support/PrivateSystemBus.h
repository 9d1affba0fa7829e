#pragma once

#include "Support.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>

#include <memory>
#include <vector>

namespace zuv::test {

// Starts a dbus-daemon of the test's own of `type` ("session" or "system") with no
// service files, so that nothing on it is started on demand; gives its address,
// or an empty one when it did not start.
inline QString startPrivateBus(QProcess &daemon, const TempHome &home, const char *type)
{
    writeText(home.file("bus.conf"),
              QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><type>%1</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
                             "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n")
                  .arg(QLatin1String(type))
                  .toUtf8());
    daemon.start(QStringLiteral("dbus-daemon"), {"--config-file=" + home.file("bus.conf"), "--nofork", "--print-address=1"});
    if (!daemon.waitForStarted(5000) || !waitUntil([&] { return daemon.canReadLine(); }, 10000))
        return {};
    return QString::fromUtf8(daemon.readLine()).trimmed();
}

// Starts `python3 -m dbusmock ARGUMENTS` on the session bus at `address`; true once
// `service` is on it, as `bus` (a connection to that bus) sees it.
inline bool startSessionMock(QProcess &mock, const QString &address, const QStringList &arguments, const QString &service,
                             QDBusConnection &bus)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
    mock.setProcessEnvironment(env);
    // The system's python3: a python3 earlier on PATH may lack dbusmock.
    mock.start(QStringLiteral("/usr/bin/python3"), QStringList{"-m", "dbusmock"} + arguments);
    return waitUntil([&] { return bus.interface()->isServiceRegistered(service).value(); }, 15000);
}

// A system bus of the test's own, with python3-dbusmock services on it: logind and
// polkit stand in where CI has neither. Children started after it see it through
// DBUS_SYSTEM_BUS_ADDRESS.
class PrivateSystemBus {
public:
    PrivateSystemBus()
    {
        m_address = startPrivateBus(m_daemon, m_home, "system");
        if (m_address.isEmpty())
            return;
        m_previous = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.toUtf8());
        m_bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(m_address, name()));
    }
    ~PrivateSystemBus()
    {
        for (auto &mock : m_mocks) {
            mock->kill();
            mock->waitForFinished(3000);
        }
        m_bus.reset();
        QDBusConnection::disconnectFromBus(name());
        m_daemon.kill();
        m_daemon.waitForFinished(3000);
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_previous);
    }

    bool up() const { return m_bus && m_bus->isConnected(); }
    QDBusConnection &bus() { return *m_bus; }
    QString address() const { return m_address; }

    // Starts `python3 -m dbusmock --system <arguments>` and waits for `service`.
    bool mock(const QStringList &arguments, const QString &service)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        // The system's python3: a python3 earlier on PATH may lack dbusmock.
        process->start(QStringLiteral("/usr/bin/python3"), QStringList{"-m", "dbusmock", "--system"} + arguments);
        m_mocks.push_back(std::move(process));
        return waitUntil([&] { return m_bus->interface()->isServiceRegistered(service).value(); }, 15000);
    }

    // Replaces a method of a mock object with `code` (python; `args` are its arguments).
    bool addMethod(const QString &service, const QString &path, const QString &interface, const QString &method,
                   const QString &in, const QString &out, const QString &code)
    {
        QDBusMessage add = QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Mock"),
                                                          QStringLiteral("AddMethod"));
        add << interface << method << in << out << code;
        return m_bus->call(add).type() == QDBusMessage::ReplyMessage;
    }

    QDBusMessage call(const QString &service, const QString &path, const QString &interface, const QString &method,
                      const QVariantList &arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
        message.setArguments(arguments);
        return m_bus->call(message);
    }

private:
    QString name() const { return QStringLiteral("private-system-bus"); }

    TempHome m_home;
    QProcess m_daemon;
    QString m_address;
    QByteArray m_previous;
    std::unique_ptr<QDBusConnection> m_bus;
    std::vector<std::unique_ptr<QProcess>> m_mocks;
};

} // namespace zuv::test

#include "DBusSignalSpy.h"

namespace zuv::test {

DBusSignalSpy::DBusSignalSpy(QDBusConnection bus, const QString &interface, const QString &name)
{
    bus.connect(QString(), QString(), interface, name, this, SLOT(received(QDBusMessage)));
}

void DBusSignalSpy::received(const QDBusMessage &message) { messages.push_back(message); }

} // namespace zuv::test

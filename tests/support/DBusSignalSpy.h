#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <vector>

namespace zuv::test {

// Records every signal of one interface and name on a bus, from anyone.
class DBusSignalSpy : public QObject {
    Q_OBJECT
public:
    DBusSignalSpy(QDBusConnection bus, const QString &interface, const QString &name);

    std::vector<QDBusMessage> messages;

public slots:
    void received(const QDBusMessage &message);
};

} // namespace zuv::test

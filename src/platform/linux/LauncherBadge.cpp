#include "platform/linux/LauncherBadge.h"

#include <QDBusMessage>
#include <QVariantMap>

#include <algorithm>

namespace zuv {

LauncherBadge::LauncherBadge(QDBusConnection bus, QString desktopFile)
    : m_bus(std::move(bus)), m_uri(QStringLiteral("application://") + desktopFile)
{
}

void LauncherBadge::setCount(int count)
{
    count = std::max(count, 0);
    if (count == m_count)
        return; // the panels keep the last value; saying it again is noise
    m_count = count;
    QDBusMessage update = QDBusMessage::createSignal(QString::fromLatin1(objectPath),
                                                     QStringLiteral("com.canonical.Unity.LauncherEntry"),
                                                     QStringLiteral("Update"));
    QVariantMap properties;
    properties.insert(QStringLiteral("count"), QVariant::fromValue(qint64(count)));
    properties.insert(QStringLiteral("count-visible"), count > 0);
    update << m_uri << properties;
    m_bus.send(update);
}

} // namespace zuv

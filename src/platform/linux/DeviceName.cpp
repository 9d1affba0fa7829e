#include "platform/DeviceName.h"

#include <QFile>
#include <QSysInfo>
#include <QTextStream>

namespace zuv {

namespace {

// PRETTY_HOSTNAME from /etc/machine-info, as hostnamectl writes it.
QString prettyHostName()
{
    QFile in(QStringLiteral("/etc/machine-info"));
    if (!in.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QTextStream stream(&in);
    while (!stream.atEnd()) {
        const QString line = stream.readLine().trimmed();
        if (!line.startsWith(QLatin1String("PRETTY_HOSTNAME=")))
            continue;
        QString value = line.mid(16).trimmed();
        if (value.size() >= 2 && (value.startsWith(QLatin1Char('"')) || value.startsWith(QLatin1Char('\'')))
            && value.endsWith(value.front()))
            value = value.mid(1, value.size() - 2);
        return value.replace(QLatin1String("\\\""), QLatin1String("\"")).trimmed();
    }
    return {};
}

} // namespace

QString deviceName()
{
    QString name = prettyHostName();
    if (name.isEmpty())
        name = QSysInfo::machineHostName();
    return name.isEmpty() ? QStringLiteral("Computer") : name;
}

} // namespace zuv

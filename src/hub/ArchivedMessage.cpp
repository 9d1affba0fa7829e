#include "hub/ArchivedMessage.h"

#include "base/Hash.h"
#include "base/Json.h"

#include <QStringList>

namespace zuv {

ArchivedMessage ArchivedMessage::fromJson(const QJsonObject &o)
{
    using namespace json;
    ArchivedMessage m;
    m.id = required<QString>(o, QStringLiteral("id"));
    m.thread = required<QString>(o, QStringLiteral("thread"));
    m.role = required<QString>(o, QStringLiteral("role"));
    m.text = required<QString>(o, QStringLiteral("text"));
    m.at = required<double>(o, QStringLiteral("at"));
    m.channel = optional<QString>(o, QStringLiteral("channel"));
    return m;
}

size_t ArchivedMessage::hash() const { return hashing::combine(id, thread, role, text, at, channel); }

QString ArchivedMessage::place() const
{
    if (thread == QLatin1String("app") || thread.startsWith(QLatin1String("app:")))
        return QStringLiteral("Zuv");
    if (thread.startsWith(QLatin1String("telegram:")))
        return QStringLiteral("Telegram");
    if (thread.startsWith(QLatin1String("xchat:")))
        return QStringLiteral("X");
    return thread;
}

std::optional<QString> ArchivedMessage::conversation() const
{
    if (thread == QLatin1String("app"))
        return QStringLiteral("main");
    if (thread.startsWith(QLatin1String("app:")))
        return thread.mid(4);
    const QStringList pieces = thread.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    if (pieces.size() == 2 && pieces[0] == QLatin1String("telegram"))
        return QStringLiteral("tg-") + pieces[1];
    if (pieces.size() == 3 && pieces[0] == QLatin1String("xchat"))
        return QStringLiteral("x-") + pieces[1] + QLatin1Char('-') + pieces[2];
    return std::nullopt;
}

} // namespace zuv

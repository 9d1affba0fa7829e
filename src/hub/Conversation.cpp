#include "hub/Conversation.h"

#include "base/Hash.h"
#include "base/Json.h"

#include <QRegularExpression>

namespace zuv {

Conversation Conversation::fromJson(const QJsonObject &o)
{
    using namespace json;
    Conversation c;
    c.id = required<QString>(o, QStringLiteral("id"));
    c.title = required<QString>(o, QStringLiteral("title"));
    c.createdAt = required<double>(o, QStringLiteral("createdAt"));
    c.updatedAt = required<double>(o, QStringLiteral("updatedAt"));
    c.preview = required<QString>(o, QStringLiteral("preview"));
    c.unread = optional<bool>(o, QStringLiteral("unread"));
    c.channel = optional<QString>(o, QStringLiteral("channel"));
    return c;
}

size_t Conversation::hash() const
{
    return hashing::combine(id, title, createdAt, updatedAt, preview, unread, channel);
}

QString Conversation::plain(const QString &text)
{
    static const QRegularExpression emphasis(QStringLiteral("\\*\\*|__|`"));
    static const QRegularExpression bullet(QStringLiteral("(^|\\s)[-*•]\\s+"));
    static const QRegularExpression heading(QStringLiteral("#{1,6}\\s"));
    static const QRegularExpression link(QStringLiteral("\\[([^\\]]+)\\]\\([^)]*\\)"));
    QString s = text;
    s.remove(emphasis);
    s.replace(bullet, QStringLiteral("\\1"));
    s.remove(heading);
    s.replace(link, QStringLiteral("\\1"));
    return s;
}

} // namespace zuv

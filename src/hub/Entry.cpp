#include "hub/Entry.h"

#include "base/Hash.h"
#include "base/Json.h"

namespace zuv {

Entry::File Entry::File::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("key")), required<QString>(o, QStringLiteral("name")),
            required<QString>(o, QStringLiteral("mime"))};
}

QJsonObject Entry::File::toJson() const
{
    return {{QStringLiteral("key"), key}, {QStringLiteral("name"), name}, {QStringLiteral("mime"), mime}};
}

size_t Entry::File::hash() const { return hashing::combine(key, name, mime); }

Entry Entry::fromJson(const QJsonObject &o)
{
    using namespace json;
    Entry e;
    e.id = required<QString>(o, QStringLiteral("id"));
    e.role = required<QString>(o, QStringLiteral("role"));
    e.text = required<QString>(o, QStringLiteral("text"));
    e.at = required<double>(o, QStringLiteral("at"));
    e.files = optional<std::vector<File>>(o, QStringLiteral("files"));
    e.conversation = optional<QString>(o, QStringLiteral("conversation"));
    e.usage = optional<Usage>(o, QStringLiteral("usage"));
    e.channel = optional<QString>(o, QStringLiteral("channel"));
    return e;
}

size_t Entry::hash() const { return hashing::combine(id, role, text, at, files, conversation, usage, channel); }

} // namespace zuv

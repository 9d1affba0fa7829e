#include "chat/Envelope.h"

#include "base/Json.h"

#include <QJsonDocument>

namespace zuv {

Envelope::CcEventRef Envelope::CcEventRef::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("type")), required<QString>(o, QStringLiteral("sessionId"))};
}

Envelope::Title Envelope::Title::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("id")), required<QString>(o, QStringLiteral("title"))};
}

Envelope Envelope::fromJson(const QJsonObject &o)
{
    using namespace json;
    Envelope e;
    e.kind = required<QString>(o, QStringLiteral("kind"));
    e.entry = optional<Entry>(o, QStringLiteral("entry"));
    e.target = optional<QString>(o, QStringLiteral("target"));
    e.ref = optional<QString>(o, QStringLiteral("ref"));
    e.step = optional<QString>(o, QStringLiteral("step"));
    e.conversation = optional<QString>(o, QStringLiteral("conversation"));
    e.request = optional<CcPermission>(o, QStringLiteral("request"));
    e.event = optional<CcEventRef>(o, QStringLiteral("event"));
    e.titles = optional<std::vector<Title>>(o, QStringLiteral("titles"));
    return e;
}

std::optional<Envelope> Envelope::decode(const QByteArray &frame)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(frame, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    try {
        return fromJson(document.object());
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

} // namespace zuv

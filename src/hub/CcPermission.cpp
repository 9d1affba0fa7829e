#include "hub/CcPermission.h"

#include "base/Hash.h"
#include "base/Json.h"

namespace zuv {

CcPermission CcPermission::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcPermission p;
    p.id = required<QString>(o, QStringLiteral("id"));
    p.sessionId = required<QString>(o, QStringLiteral("sessionId"));
    p.project = required<QString>(o, QStringLiteral("project"));
    p.title = optional<QString>(o, QStringLiteral("title"));
    p.tool = required<QString>(o, QStringLiteral("tool"));
    p.summary = required<QString>(o, QStringLiteral("summary"));
    p.detail = required<QString>(o, QStringLiteral("detail"));
    p.at = required<double>(o, QStringLiteral("at"));
    p.status = required<QString>(o, QStringLiteral("status"));
    return p;
}

size_t CcPermission::hash() const
{
    return hashing::combine(id, sessionId, project, title, tool, summary, detail, at, status);
}

} // namespace zuv

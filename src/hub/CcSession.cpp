#include "hub/CcSession.h"

#include "base/Hash.h"
#include "base/Json.h"

namespace zuv {

CcSession CcSession::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcSession s;
    s.id = required<QString>(o, QStringLiteral("id"));
    s.cwd = required<QString>(o, QStringLiteral("cwd"));
    s.project = required<QString>(o, QStringLiteral("project"));
    s.title = optional<QString>(o, QStringLiteral("title"));
    s.status = required<QString>(o, QStringLiteral("status"));
    s.startedAt = required<double>(o, QStringLiteral("startedAt"));
    s.updatedAt = optional<double>(o, QStringLiteral("updatedAt"));
    s.lastReply = optional<QString>(o, QStringLiteral("lastReply"));
    s.agent = optional<QString>(o, QStringLiteral("agent"));
    s.usage = optional<Usage>(o, QStringLiteral("usage"));
    s.resumeCommand = optional<QString>(o, QStringLiteral("resumeCommand"));
    s.model = optional<QString>(o, QStringLiteral("model"));
    s.effort = optional<QString>(o, QStringLiteral("effort"));
    s.terminal = optional<bool>(o, QStringLiteral("terminal"));
    s.device = optional<QString>(o, QStringLiteral("device"));
    s.deviceName = optional<QString>(o, QStringLiteral("deviceName"));
    return s;
}

size_t CcSession::hash() const
{
    return hashing::combine(id, cwd, project, title, status, startedAt, updatedAt, lastReply, agent, usage,
                            resumeCommand, model, effort, terminal, device, deviceName);
}

CcItem CcItem::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcItem i;
    i.role = required<QString>(o, QStringLiteral("role"));
    i.text = required<QString>(o, QStringLiteral("text"));
    i.at = optional<double>(o, QStringLiteral("at"));
    i.usage = optional<Usage>(o, QStringLiteral("usage"));
    i.files = optional<std::vector<Entry::File>>(o, QStringLiteral("files"));
    return i;
}

size_t CcItem::hash() const { return hashing::combine(role, text, at, usage, files); }

} // namespace zuv

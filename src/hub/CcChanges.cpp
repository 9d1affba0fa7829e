#include "hub/CcChanges.h"

#include "base/Hash.h"
#include "base/Json.h"

namespace zuv {

CcChange CcChange::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcChange c;
    c.path = required<QString>(o, QStringLiteral("path"));
    c.status = required<QString>(o, QStringLiteral("status"));
    c.added = required<qint64>(o, QStringLiteral("added"));
    c.removed = required<qint64>(o, QStringLiteral("removed"));
    c.binary = required<bool>(o, QStringLiteral("binary"));
    c.truncated = required<bool>(o, QStringLiteral("truncated"));
    c.diff = required<QString>(o, QStringLiteral("diff"));
    return c;
}

size_t CcChange::hash() const { return hashing::combine(path, status, added, removed, binary, truncated, diff); }

CcChanges CcChanges::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcChanges c;
    c.git = required<bool>(o, QStringLiteral("git"));
    c.cwd = required<QString>(o, QStringLiteral("cwd"));
    c.branch = optional<QString>(o, QStringLiteral("branch"));
    c.upstream = optional<QString>(o, QStringLiteral("upstream"));
    c.ahead = optional<qint64>(o, QStringLiteral("ahead"));
    c.files = required<std::vector<CcChange>>(o, QStringLiteral("files"));
    return c;
}

size_t CcChanges::hash() const { return hashing::combine(git, cwd, branch, upstream, ahead, files); }

CcProject CcProject::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("name")), required<QString>(o, QStringLiteral("cwd"))};
}

size_t CcProject::hash() const { return hashing::combine(name, cwd); }

} // namespace zuv

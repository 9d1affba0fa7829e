#include "hub/Usage.h"

#include "base/Hash.h"
#include "base/Json.h"


namespace zuv {

Usage Usage::fromJson(const QJsonObject &o)
{
    using namespace json;
    Usage u;
    u.ms = required<double>(o, QStringLiteral("ms"));
    u.turns = required<double>(o, QStringLiteral("turns"));
    u.input = required<double>(o, QStringLiteral("input"));
    u.output = required<double>(o, QStringLiteral("output"));
    u.cached = optional<double>(o, QStringLiteral("cached"));
    u.usd = required<double>(o, QStringLiteral("usd"));
    u.model = optional<QString>(o, QStringLiteral("model"));
    u.effort = optional<QString>(o, QStringLiteral("effort"));
    return u;
}

size_t Usage::hash() const { return hashing::combine(ms, turns, input, output, cached, usd, model, effort); }

} // namespace zuv

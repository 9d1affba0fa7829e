#include "hub/Usage.h"

#include "base/Hash.h"
#include "base/Json.h"
#include "settings/Models.h"

#include <QStringList>

#include <cmath>

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

QString Usage::summary(const Models &models) const
{
    QStringList parts;
    if (model && !model->isEmpty())
        parts << models.label(*model, effort.value_or(QString()));
    const double tokens = input + output;
    if (tokens >= 1000)
        parts << QString::asprintf("%.1fk tokens", tokens / 1000);
    else
        parts << QStringLiteral("%1 tokens").arg(qint64(tokens));
    if (ms > 0)
        parts << QStringLiteral("%1s").arg(qint64(std::round(ms / 1000))); // std::round: halves away from zero
    if (usd > 0)
        parts << (usd < 0.01 ? QStringLiteral("≈<$0.01") : QString::asprintf("≈$%.2f", usd));
    return parts.join(QStringLiteral(" · "));
}

} // namespace zuv

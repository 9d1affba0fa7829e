#include "settings/Models.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Json.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QStringList>

#include <cmath>
#include <limits>

namespace zuv {

namespace {

const QString cacheKey = QStringLiteral("model-catalog");

QString capitalized(const QString &s)
{
    if (s.isEmpty())
        return s;
    return s.left(1).toUpper() + s.mid(1);
}

} // namespace

Models::Models(Clock &clock, Defaults &defaults, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_fetched(-std::numeric_limits<double>::infinity())
{
    const auto cached = m_defaults.object(cacheKey);
    if (cached.present()) {
        try {
            m_catalog = ModelCatalog::fromJson(cached.value);
        } catch (const DecodingError &) {
            // A cache we cannot read is simply no cache.
        }
    }
}


const std::vector<ModelOption> &Models::fallbackClaude()
{
    static const std::vector<ModelOption> options{
        {QStringLiteral("claude-fable-5-1"), QStringLiteral("Fable 5.1"), std::nullopt, std::nullopt},
        {QStringLiteral("claude-opus-5-5"), QStringLiteral("Opus 5.5"), std::nullopt, std::nullopt},
        {QStringLiteral("claude-sonnet-5-5"), QStringLiteral("Sonnet 5.5"), std::nullopt, std::nullopt},
        {QStringLiteral("claude-haiku-5-5"), QStringLiteral("Haiku 5.5"), std::nullopt, std::nullopt},
    };
    return options;
}

void Models::update(const std::optional<ModelCatalog> &catalog)
{
    m_fetched = m_clock.now();
    if (!catalog || catalog == m_catalog)
        return;
    m_catalog = catalog;
    m_defaults.set(cacheKey, catalog->toJson());
    emit changed();
}

std::vector<ModelOption> Models::options(const QString &agent) const
{
    if (agent == QLatin1String("codex"))
        return m_catalog && m_catalog->codex ? *m_catalog->codex : std::vector<ModelOption>{};
    if (m_catalog && m_catalog->claude && !m_catalog->claude->empty())
        return *m_catalog->claude;
    return fallbackClaude();
}

std::optional<ModelOption> Models::option(const QString &id, const QString &agent) const
{
    if (id.isEmpty())
        return std::nullopt;
    for (const auto &o : options(agent))
        if (o.id == id)
            return o;
    return std::nullopt;
}

QString Models::name(const QString &id) const
{
    for (const auto &o : options(QStringLiteral("claude")))
        if (o.id == id)
            return o.name;
    if (m_catalog && m_catalog->codex)
        for (const auto &o : *m_catalog->codex)
            if (o.id == id)
                return o.name;
    return prettyName(id);
}

QString Models::label(const QString &model, const QString &effort) const
{
    if (!model.isEmpty() && !effort.isEmpty())
        return name(model) + QStringLiteral(" · ") + effortName(effort);
    if (!model.isEmpty())
        return name(model);
    if (!effort.isEmpty())
        return effortName(effort);
    return tr("Default");
}

QString Models::defaultTitle(const QString &agent) const
{
    if (agent == QLatin1String("codex") && m_catalog && m_catalog->codexDefault
        && !m_catalog->codexDefault->model.isEmpty()) {
        const auto &choice = *m_catalog->codexDefault;
        return tr("Default (%1)").arg(label(choice.model, choice.effort.value_or(QString())));
    }
    return tr("Default");
}

QString Models::prettyName(const QString &id)
{
    static const QRegularExpression bracket(QStringLiteral("\\[.*\\]$"));
    static const QRegularExpression date(QStringLiteral("^\\d{8}$"));
    QString s = id;
    s.remove(bracket);
    if (s.startsWith(QLatin1String("claude-"))) {
        QStringList parts = s.mid(7).split(QLatin1Char('-'), Qt::SkipEmptyParts);
        parts.removeIf([](const QString &part) { return date.match(part).hasMatch(); });
        if (parts.isEmpty())
            return QString();
        const QString first = capitalized(parts.takeFirst());
        return parts.isEmpty() ? first : first + QLatin1Char(' ') + parts.join(QLatin1Char('.'));
    }
    static const QStringList families{QStringLiteral("opus"), QStringLiteral("sonnet"), QStringLiteral("haiku"),
                                      QStringLiteral("fable")};
    if (families.contains(s))
        return capitalized(s);
    QStringList parts = s.split(QLatin1Char('-'));
    for (auto &part : parts)
        part = part == QLatin1String("gpt") ? QStringLiteral("GPT") : capitalized(part);
    return parts.join(QLatin1Char('-'));
}

QString Models::effortName(const QString &id)
{
    if (id == QLatin1String("none")) return tr("No Reasoning");
    if (id == QLatin1String("minimal")) return tr("Minimal");
    if (id == QLatin1String("low")) return tr("Low");
    if (id == QLatin1String("medium")) return tr("Medium");
    if (id == QLatin1String("high")) return tr("High");
    if (id == QLatin1String("xhigh")) return tr("Extra High");
    if (id == QLatin1String("max")) return tr("Max");
    return capitalized(id);
}

QString Models::summary(const Usage &usage) const
{
    QStringList parts;
    if (usage.model && !usage.model->isEmpty())
        parts << label(*usage.model, usage.effort.value_or(QString()));
    const double tokens = usage.input + usage.output;
    if (tokens >= 1000)
        parts << QString::asprintf("%.1fk tokens", tokens / 1000);
    else
        parts << QStringLiteral("%1 tokens").arg(qint64(tokens));
    if (usage.ms > 0)
        parts << QStringLiteral("%1s").arg(qint64(std::round(usage.ms / 1000))); // std::round: halves away from zero
    if (usage.usd > 0)
        parts << (usage.usd < 0.01 ? QStringLiteral("≈<$0.01") : QString::asprintf("≈$%.2f", usage.usd));
    return parts.join(QStringLiteral(" · "));
}

} // namespace zuv

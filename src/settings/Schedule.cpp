#include "settings/Schedule.h"

#include "base/Json.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonArray>

#include <algorithm>
#include <set>

namespace zuv {

namespace {

QString tr(const char *text, const char *disambiguation = nullptr, int n = -1)
{
    return QCoreApplication::translate("ScheduleSpec", text, disambiguation, n);
}

// The calendar's short weekday symbol for 0 (Sunday) to 6 (Saturday).
QString weekday(const QLocale &locale, qint64 day) { return locale.dayName(day == 0 ? 7 : int(day), QLocale::ShortFormat); }

// Day, abbreviated month, hour and minute, in the order the locale writes dates.
QString onceText(const QDateTime &when, const QLocale &locale)
{
    const QString dateFormat = locale.dateFormat(QLocale::ShortFormat);
    const bool monthFirst = dateFormat.indexOf(QLatin1Char('M')) < dateFormat.indexOf(QLatin1Char('d'));
    const QString day = monthFirst ? QStringLiteral("MMM d") : QStringLiteral("d MMM");
    return locale.toString(when.toLocalTime(), day + QStringLiteral(", ") + locale.timeFormat(QLocale::ShortFormat));
}

} // namespace

ScheduleSpec ScheduleSpec::fromJson(const QJsonObject &o)
{
    using namespace json;
    ScheduleSpec s;
    s.kind = required<QString>(o, QStringLiteral("kind"));
    s.time = optional<QString>(o, QStringLiteral("time"));
    s.days = optional<std::vector<qint64>>(o, QStringLiteral("days"));
    s.minutes = optional<qint64>(o, QStringLiteral("minutes"));
    s.at = optional<QString>(o, QStringLiteral("at"));
    return s;
}

QJsonObject ScheduleSpec::toJson() const
{
    QJsonObject o{{QStringLiteral("kind"), kind}};
    json::put(o, QStringLiteral("time"), time);
    if (days) {
        QJsonArray list;
        for (qint64 d : *days)
            list.append(d);
        o.insert(QStringLiteral("days"), list);
    }
    if (minutes)
        o.insert(QStringLiteral("minutes"), *minutes);
    json::put(o, QStringLiteral("at"), at);
    return o;
}

QString ScheduleSpec::summary(const QLocale &locale) const
{
    const QString clock = time.value_or(QString());
    if (kind == QLatin1String("daily"))
        return tr("Every day at %1").arg(clock);
    if (kind == QLatin1String("weekly")) {
        std::vector<qint64> sorted = days.value_or(std::vector<qint64>{});
        std::sort(sorted.begin(), sorted.end());
        const std::set<qint64> set(sorted.begin(), sorted.end());
        if (set == std::set<qint64>{1, 2, 3, 4, 5})
            return tr("Weekdays at %1").arg(clock);
        QStringList names;
        for (qint64 d : sorted)
            if (d >= 0 && d < 7)
                names << weekday(locale, d);
        return tr("%1 at %2").arg(names.join(QStringLiteral(", ")), clock);
    }
    if (kind == QLatin1String("interval")) {
        const qint64 m = minutes.value_or(0);
        if (m % 60 == 0)
            return m == 60 ? tr("Every hour") : tr("Every %n hours", nullptr, int(m / 60));
        return tr("Every %n minutes", nullptr, int(m));
    }
    if (kind == QLatin1String("once")) {
        const QDateTime when = at ? moment(*at) : QDateTime();
        if (!when.isValid())
            return tr("Once");
        return tr("Once, %1").arg(onceText(when, locale));
    }
    return kind;
}

QDateTime ScheduleSpec::moment(const QString &at)
{
    const QDateTime when = QDateTime::fromString(at, Qt::ISODate);
    return when.isValid() ? when : QDateTime::fromString(at, Qt::ISODateWithMs);
}

CcTarget CcTarget::fromJson(const QJsonObject &o)
{
    using namespace json;
    CcTarget t;
    t.kind = required<QString>(o, QStringLiteral("kind"));
    t.cwd = required<QString>(o, QStringLiteral("cwd"));
    t.agent = required<QString>(o, QStringLiteral("agent"));
    t.model = required<QString>(o, QStringLiteral("model"));
    t.effort = optional<QString>(o, QStringLiteral("effort"));
    t.device = optional<QString>(o, QStringLiteral("device"));
    return t;
}

QJsonObject CcTarget::toJson() const
{
    QJsonObject o{{QStringLiteral("kind"), kind},
                  {QStringLiteral("cwd"), cwd},
                  {QStringLiteral("agent"), agent},
                  {QStringLiteral("model"), model}};
    json::put(o, QStringLiteral("effort"), effort);
    json::put(o, QStringLiteral("device"), device);
    return o;
}

QJsonObject ScheduleEdit::toJson() const
{
    QJsonObject o;
    json::put(o, QStringLiteral("prompt"), prompt);
    if (spec)
        o.insert(QStringLiteral("spec"), spec->toJson());
    json::put(o, QStringLiteral("deliver"), deliver);
    json::put(o, QStringLiteral("enabled"), enabled);
    switch (target.kind) {
    case TargetChange::Kind::set:
        o.insert(QStringLiteral("target"), target.target.toJson());
        break;
    case TargetChange::Kind::clear:
        o.insert(QStringLiteral("target"), QJsonValue::Null);
        break;
    case TargetChange::Kind::keep:
        break;
    }
    return o;
}

} // namespace zuv

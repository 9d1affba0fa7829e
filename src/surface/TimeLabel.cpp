#include "surface/TimeLabel.h"

#include <QCoreApplication>

namespace zuv {

namespace {
QDateTime local(double ms) { return QDateTime::fromMSecsSinceEpoch(qint64(ms)).toLocalTime(); }
QString tr(const char *text, int n = -1) { return QCoreApplication::translate("TimeLabel", text, nullptr, n); }
} // namespace

std::optional<QString> TimeLabel::between(const Entry *previous, const Entry &entry, const QDateTime &now,
                                          const QLocale &locale)
{
    const QDateTime at = local(entry.at);
    if (previous) {
        const QDateTime before = local(previous->at);
        if (std::abs(entry.at - previous->at) < 3600 * 1000.0 && before.date() == at.date())
            return std::nullopt;
    }
    // The locale's short time, without seconds where it would show them.
    QString format = locale.timeFormat(QLocale::ShortFormat);
    format.remove(QStringLiteral(":ss"));
    const QString time = locale.toString(at.time(), format);
    const QDate today = now.toLocalTime().date();
    if (at.date() == today)
        return tr("Today %1").arg(time);
    if (at.date() == today.addDays(-1))
        return tr("Yesterday %1").arg(time);
    return locale.toString(at.date(), QStringLiteral("dddd, MMMM d")) + u' ' + time;
}

QString TimeLabel::relative(double at, const QDateTime &now, const QLocale &locale)
{
    const double seconds = (double(now.toMSecsSinceEpoch()) - at) / 1000;
    if (seconds < 60)
        return tr("now");
    if (seconds < 3600)
        return tr("%n min ago", int(seconds / 60));
    if (seconds < 86400)
        return tr("%n h ago", int(seconds / 3600));
    const QDate day = local(at).date();
    if (day == now.toLocalTime().date().addDays(-1))
        return tr("Yesterday");
    return locale.toString(day, QLocale::ShortFormat);
}

} // namespace zuv

#include "settings/ScheduleEditor.h"

#include <QCoreApplication>
#include <QTimeZone>

namespace zuv {

namespace {

QString tr(const char *text, const char *disambiguation = nullptr, int n = -1)
{
    return QCoreApplication::translate("ScheduleEditor", text, disambiguation, n);
}

// `date` at `time` in the same zone as `like`.
QDateTime sameZone(const QDate &date, const QTime &time, const QDateTime &like)
{
    switch (like.timeSpec()) {
    case Qt::TimeZone: return QDateTime(date, time, like.timeZone());
    case Qt::OffsetFromUTC: return QDateTime(date, time, Qt::OffsetFromUTC, like.offsetFromUtc());
    default: return QDateTime(date, time, like.timeSpec());
    }
}

// Today at hour:minute; in the gap of a clock change (02:30 on the night the clocks
// go forward), the first moment after it that exists, going forward.
QDateTime todayAt(const QDateTime &now, int hour, int minute)
{
    const QTime wanted(hour, minute);
    QDateTime at = sameZone(now.date(), wanted, now);
    // Gaps last an hour or two; a day's worth of minutes is a generous bound.
    for (int later = 1; !at.isValid() && later < 24 * 60; ++later) {
        const QTime next = wanted.addSecs(later * 60);
        if (next < wanted)
            break; // past midnight: no later moment today
        at = sameZone(now.date(), next, now);
    }
    return at;
}

} // namespace

ScheduleEditor::ScheduleEditor(const QDateTime &now) : date(todayAt(now, 8, 0)), m_now(now) {}

ScheduleEditor::ScheduleEditor(const QDateTime &now, const Overview::Schedule &existing) : ScheduleEditor(now)
{
    schedule = existing;
    prompt = existing.prompt;
    deliver = existing.deliver;
    if (existing.target) {
        agentSession = true;
        cwd = existing.target->cwd;
        agent = existing.target->agent;
        model = existing.target->model;
        effort = existing.target->effort.value_or(QString());
        device = existing.target->device;
    }
    if (!existing.spec)
        return;
    const ScheduleSpec &spec = *existing.spec;
    kind = spec.kind;
    if (spec.time) {
        const QStringList parts = spec.time->split(QLatin1Char(':'));
        bool hourOk = false;
        bool minuteOk = false;
        const int hour = parts.size() == 2 ? parts[0].toInt(&hourOk) : 0;
        const int minute = parts.size() == 2 ? parts[1].toInt(&minuteOk) : 0;
        if (hourOk && minuteOk && hour >= 0 && hour < 24 && minute >= 0 && minute < 60)
            setTime(hour, minute);
    }
    if (spec.days) {
        days.clear();
        for (qint64 d : *spec.days)
            days.insert(int(d));
    }
    if (spec.minutes)
        minutes = *spec.minutes;
    if (spec.at) {
        if (const QDateTime at = ScheduleSpec::moment(*spec.at); at.isValid())
            date = at.toLocalTime();
    }
}

void ScheduleEditor::setTime(int hour, int minute) { date = todayAt(m_now, hour, minute); }

ScheduleSpec ScheduleEditor::spec() const
{
    ScheduleSpec s;
    const QString time = QString::asprintf("%02d:%02d", date.time().hour(), date.time().minute());
    if (kind == QLatin1String("once")) {
        s.kind = kind;
        s.at = date.toUTC().toString(Qt::ISODate);
    } else if (kind == QLatin1String("weekly")) {
        s.kind = kind;
        s.time = time;
        s.days = std::vector<qint64>(days.begin(), days.end());
    } else if (kind == QLatin1String("interval")) {
        s.kind = kind;
        s.minutes = minutes;
    } else {
        s.kind = QStringLiteral("daily");
        s.time = time;
    }
    return s;
}

ScheduleEdit::TargetChange ScheduleEditor::targetChange() const
{
    using Kind = ScheduleEdit::TargetChange::Kind;
    if (agentSession) {
        CcTarget target;
        target.cwd = cwd;
        target.agent = agent;
        target.model = model;
        target.effort = effort.isEmpty() ? std::nullopt : std::optional<QString>(effort);
        target.device = device;
        return {Kind::set, target};
    }
    return {schedule && schedule->target ? Kind::clear : Kind::keep, {}};
}

bool ScheduleEditor::canSave() const
{
    if (prompt.trimmed().isEmpty())
        return false;
    if (kind == QLatin1String("weekly") && days.empty())
        return false;
    return !agentSession || !cwd.isEmpty();
}

ScheduleEdit ScheduleEditor::edit() const
{
    ScheduleEdit e;
    e.prompt = prompt.trimmed();
    e.spec = spec();
    e.deliver = deliver;
    e.target = targetChange();
    return e;
}

void ScheduleEditor::apply(const Template &choice)
{
    kind = choice.kind;
    setTime(choice.hour, choice.minute);
    days = choice.days; // a daily template has none, and leaves none behind
    prompt = choice.prompt;
}

QString ScheduleEditor::title() const { return schedule ? tr("Edit Schedule") : tr("New Schedule"); }

QString ScheduleEditor::promptPlaceholder() const
{
    if (!agentSession)
        return tr("What should Zuv do? Say everything it needs to know.");
    return agent == QLatin1String("codex") ? tr("What should Codex do?") : tr("What should Claude do?");
}

const std::vector<qint64> &ScheduleEditor::intervalChoices()
{
    static const std::vector<qint64> choices{15, 30, 60, 120, 180, 360, 720};
    return choices;
}

QString ScheduleEditor::intervalLabel(qint64 m)
{
    if (m < 60)
        return tr("%n minutes", nullptr, int(m));
    if (m == 60)
        return tr("1 hour");
    return tr("%n hours", nullptr, int(m / 60));
}

const std::vector<ScheduleEditor::Template> &ScheduleEditor::templates()
{
    static const std::vector<Template> list{
        {tr("Morning Briefing"), QStringLiteral("daily"), 8, 0, {},
         tr("Morning briefing (short, a few lines each): 1) today's weather where I am (by my time zone); 2) anything "
            "I asked you to follow up on or remind me about today (check memory and recent conversations); 3) "
            "schedules that run today; 4) my computer's status. Skip anything empty.")},
        {tr("Evening Wrap-up"), QStringLiteral("daily"), 21, 0, {},
         tr("Evening wrap-up: of what I talked about or asked you to do today in any channel, what's unfinished, "
            "waiting on my decision or needs follow-up tomorrow? One line each. If nothing, just say so.")},
        {tr("Weekly Review"), QStringLiteral("weekly"), 9, 0, {1},
         tr("Weekly review: use search_history for the past 7 days and list what got done, what's still open, and "
            "what to watch this week. At most 5 items each, brief.")},
        {tr("Tech News"), QStringLiteral("weekly"), 8, 30, {1, 2, 3, 4, 5},
         tr("Today's tech news: the 5 most important stories in AI, Apple platforms and developer tools, one "
            "sentence each on what happened and why it matters, with links.")},
    };
    return list;
}

const std::vector<ScheduleEditor::Template> &ScheduleEditor::agentTemplates()
{
    static const std::vector<Template> list{
        {tr("Update Dependencies"), QStringLiteral("weekly"), 9, 0, {1},
         tr("Check for outdated dependencies and update the safe ones (patch and minor versions). Run the build and "
            "the tests. If everything passes, commit on a new branch and open a pull request; list anything you "
            "skipped and why.")},
        {tr("Nightly Tests"), QStringLiteral("daily"), 2, 0, {},
         tr("Run the full test suite and the build. If something fails and the cause is clear, fix it on a new "
            "branch and open a pull request; otherwise summarize what fails and where.")},
        {tr("Weekly Code Review"), QStringLiteral("weekly"), 16, 0, {5},
         tr("Review this week's commits for bugs, leftover TODOs and missing tests. Report the most important issues "
            "briefly, with file and line. Don't change any code.")},
    };
    return list;
}

} // namespace zuv

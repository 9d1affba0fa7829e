#pragma once

#include "settings/Overview.h"
#include "settings/Schedule.h"

#include <QDateTime>
#include <QString>

#include <optional>
#include <set>
#include <vector>

namespace zuv {

// The state of the schedule editor and what it decides: defaults, filling from a
// schedule, the timing and target it saves, and when Save is possible.
struct ScheduleEditor {
    struct Template {
        QString title;
        QString kind;
        int hour = 0;
        int minute = 0;
        std::set<int> days;
        QString prompt;
    };

    std::optional<Overview::Schedule> schedule; // the one being edited; none for a new one
    QString prompt;
    QString kind = QStringLiteral("daily");
    QDateTime date; // today at 08:00
    std::set<int> days{1, 2, 3, 4, 5};
    qint64 minutes = 60;
    QString deliver = QStringLiteral("app");
    bool agentSession = false;
    QString agent = QStringLiteral("claude");
    QString model;
    QString effort;
    QString cwd;
    std::optional<QString> device;

    // A new schedule, as of `now` (local time).
    explicit ScheduleEditor(const QDateTime &now);
    // An existing one.
    ScheduleEditor(const QDateTime &now, const Overview::Schedule &existing);

    ScheduleSpec spec() const;
    ScheduleEdit::TargetChange targetChange() const;
    bool canSave() const;
    ScheduleEdit edit() const;
    void apply(const Template &choice);

    QString title() const;
    QString promptPlaceholder() const;

    static const std::vector<Template> &templates();
    static const std::vector<Template> &agentTemplates();
    static const std::vector<qint64> &intervalChoices();
    // "15 minutes", "1 hour", "2 hours".
    static QString intervalLabel(qint64 minutes);

private:
    QDateTime m_now;
    void setTime(int hour, int minute);
};

} // namespace zuv

#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QLocale>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// When a schedule runs.
struct ScheduleSpec {
    QString kind; // "once", "daily", "weekly", "interval"; others are shown as they are
    std::optional<QString> time;              // daily, weekly: "HH:MM"
    std::optional<std::vector<qint64>> days;  // weekly: 0 is Sunday
    std::optional<qint64> minutes;            // interval
    std::optional<QString> at;                // once: ISO 8601

    static ScheduleSpec fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const ScheduleSpec &) const = default;

    // In words, in the locale's language: "Weekdays at 08:00", "Every 2 hours", …
    QString summary(const QLocale &locale = QLocale()) const;
    // `at` as a moment, with or without fractional seconds; invalid when it is none.
    static QDateTime moment(const QString &at);
};

// An agent session as the way a schedule runs.
struct CcTarget {
    QString kind = QStringLiteral("cc");
    QString cwd;
    QString agent; // "claude" or "codex"
    QString model; // empty: the agent's default
    std::optional<QString> effort;
    std::optional<QString> device;

    static CcTarget fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const CcTarget &) const = default;
};

// A change to a schedule. Absent fields are left out on the wire; `target`
// distinguishes setting one, keeping what is there, and clearing it (null).
struct ScheduleEdit {
    struct TargetChange {
        enum class Kind { set, keep, clear };
        Kind kind = Kind::keep;
        CcTarget target; // with `set`
        bool operator==(const TargetChange &) const = default;
    };

    std::optional<QString> prompt;
    std::optional<ScheduleSpec> spec;
    std::optional<QString> deliver;
    std::optional<bool> enabled;
    TargetChange target;

    QJsonObject toJson() const;
    bool operator==(const ScheduleEdit &) const = default;
};

} // namespace zuv

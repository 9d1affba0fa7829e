#pragma once

#include "hub/Entry.h"

#include <QDateTime>
#include <QLocale>
#include <QString>

#include <optional>

namespace zuv {

// The small time line above a message: none between two messages of one hour on
// one day, else "Today 14:05", "Yesterday 09:12" or the weekday and date.
struct TimeLabel {
    static std::optional<QString> between(const Entry *previous, const Entry &entry, const QDateTime &now,
                                          const QLocale &locale = QLocale());
    // "5 min ago", "Yesterday", a date: the relative time of a row. `at` in ms.
    static QString relative(double at, const QDateTime &now, const QLocale &locale = QLocale());
};

} // namespace zuv

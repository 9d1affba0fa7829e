#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

namespace zuv {

// A crash report (a header line of JSON, then the report as JSON) digested into a
// one-line summary and a readable text without what identifies the machine.
struct CrashLog {
    QString incident;
    QString process;
    QString build;
    QString os;
    QString summary;
    QString text; // at most 60000 characters
    double time = 0; // when it crashed, seconds since 1970; 0 when the report does not say

    static constexpr qsizetype textLimit = 60000;

    // None when `data` is no crash report of a program for which `ours(path)` holds.
    static std::optional<CrashLog> make(const QByteArray &data, const std::function<bool(const QString &)> &ours,
                                        const QString &home);
};

} // namespace zuv

#pragma once

#include <QString>

namespace zuv {

class Clock;

// app.log: one line per event, the ISO 8601 time in UTC, a blank and the text.
// No levels. Errors while writing are ignored: logging never stops the app.
class AppLog {
public:
    AppLog(Clock &clock, QString folder);

    void write(const QString &line) const;
    QString file() const;

    // Routes zuv::log() here.
    void install() const;

private:
    Clock &m_clock;
    QString m_folder;
};

} // namespace zuv

#pragma once

#include <QString>

#include <functional>

namespace zuv {

// Writes one line to the application's log (app.log once the app has set the
// sink; standard error before that and in tests without a sink).
void log(const QString &line);

using LogSink = std::function<void(const QString &)>;
void setLogSink(LogSink sink);

} // namespace zuv

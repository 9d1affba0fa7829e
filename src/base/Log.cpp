#include "base/Log.h"

#include <cstdio>

namespace zuv {

namespace {
LogSink &sink()
{
    static LogSink s;
    return s;
}
} // namespace

void log(const QString &line)
{
    if (sink())
        sink()(line);
    else
        std::fprintf(stderr, "zuv: %s\n", line.toLocal8Bit().constData());
}

void setLogSink(LogSink s) { sink() = std::move(s); }

} // namespace zuv

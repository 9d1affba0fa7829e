#include "base/Log.h"

#include <QRecursiveMutex>

#include <cstdio>

namespace zuv {

namespace {

// Workers log too (crash scans, tool probes). The lock is held across the call, so
// once setLogSink({}) returns no call into the old sink is still running, and
// lines from two threads never interleave. Recursive: a sink may log.
QRecursiveMutex &lock()
{
    static QRecursiveMutex m;
    return m;
}

LogSink &sink()
{
    static LogSink s;
    return s;
}

} // namespace

void log(const QString &line)
{
    QMutexLocker locked(&lock());
    if (sink())
        sink()(line);
    else
        std::fprintf(stderr, "zuv: %s\n", line.toLocal8Bit().constData());
}

void setLogSink(LogSink s)
{
    QMutexLocker locked(&lock());
    sink() = std::move(s);
}

} // namespace zuv

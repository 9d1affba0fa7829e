#pragma once

#include "platform/CrashSource.h"

#include <QByteArray>

namespace zuv {

// Turns the records of our crash handler into reports, with symbol names, source
// lines and build ids read by libdw from the binaries that crashed.
class LinuxCrashSource final : public CrashSource {
public:
    int collect(const QString &folder) override;

    // One record's report, or an empty array when the record is unreadable.
    static QByteArray report(const QByteArray &record);
};

} // namespace zuv

#pragma once

#include <QString>

namespace zuv {

// Where crash reports come from. The platform leaves raw records of its own; this
// turns them into report files (a header line of JSON, then the report as JSON)
// in the reports folder. It blocks, so it runs off the main thread.
class CrashSource {
public:
    virtual ~CrashSource() = default;
    // Converts every raw record in `folder`; returns how many reports it wrote.
    virtual int collect(const QString &folder) = 0;
};

} // namespace zuv

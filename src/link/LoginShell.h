#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace zuv {

// The PATH the user's own login shell would have, and a short command runner with it.
namespace LoginShell {

// Asks the login shell once (at most 5 seconds, blocking) and caches a real answer;
// a fallback is returned without caching, so a slow shell is asked again next time.
QString path();

struct Result {
    int status = 0;
    QString output;
};
// Runs `command` through /usr/bin/env with the login PATH, both output streams
// merged. None when it cannot start or outlives `timeout` seconds (it is then ended).
std::optional<Result> run(const QString &command, const QStringList &arguments, double timeout);

// The fixed PATH used when the shell does not answer.
QString fallback();
// Forgets the cached PATH (tests change the shell between cases).
void clearCache();

} // namespace LoginShell
} // namespace zuv

#pragma once

#include <QFuture>
#include <QString>
#include <QStringList>

#include <optional>

namespace zuv {

// The PATH the user's own login shell would have, and a short command runner with it.
namespace LoginShell {

// Starts asking the login shell on a worker thread, once per process, and hands
// back the answer to come. The question costs at most 5 seconds in all; a shell
// that does not answer in time is killed and the fallback becomes the answer.
QFuture<QString> resolve();

// The cached answer without waiting: the fallback while resolve() has not finished.
// Never blocks, so it is safe on the main thread.
QString path();

struct Result {
    int status = 0;
    QString output;
};
// Runs `command` through /usr/bin/env with the login PATH, both output streams
// merged. None when it cannot start or outlives `timeout` seconds (it is then ended).
// Blocks: call it off the main thread.
std::optional<Result> run(const QString &command, const QStringList &arguments, double timeout);

// The fixed PATH used when the shell does not answer.
QString fallback();
// Forgets the cached PATH (tests change the shell between cases).
void clearCache();
// What a shell printed, reduced to the PATH between the two markers; empty when
// the markers are missing. Public for the tests of hostile rc files.
QString between(const QString &output, const QString &marker);

} // namespace LoginShell
} // namespace zuv

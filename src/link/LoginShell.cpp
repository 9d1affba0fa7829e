#include "link/LoginShell.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QMutex>
#include <QProcess>
#include <QStringDecoder>
#include <QUuid>
#include <QtConcurrent>

#include <pwd.h>
#include <unistd.h>

namespace zuv::LoginShell {

namespace {

constexpr int budgetMs = 5000; // everything the question may cost

struct Cache {
    QMutex mutex;
    std::optional<QFuture<QString>> future;
};

Cache &cache()
{
    static Cache value;
    return value;
}

// $SHELL, else the account's shell, else /bin/sh.
QString userShell()
{
    const QString fromEnvironment = qEnvironmentVariable("SHELL");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    if (const passwd *entry = getpwuid(getuid()); entry && entry->pw_shell && *entry->pw_shell)
        return QString::fromLocal8Bit(entry->pw_shell);
    return QStringLiteral("/bin/sh");
}

QString repaired(const QByteArray &data)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    return decoder.decode(data);
}

// Waits until `deadline`; a process still running then is killed outright
// (an interactive bash ignores SIGTERM).
bool finishBy(QProcess &process, const QDeadlineTimer &deadline)
{
    if (process.waitForFinished(int(std::max<qint64>(1, deadline.remainingTime()))))
        return true;
    process.kill();
    process.waitForFinished(1000);
    return false;
}

QString ask()
{
    const QDeadlineTimer deadline(budgetMs);
    // Markers no rc file can know, so that what it prints cannot enter the PATH.
    const QString marker = QUuid::createUuid().toString(QUuid::Id128);
    QProcess shell;
    shell.setProgram(userShell());
    shell.setArguments({QStringLiteral("-ilc"), QStringLiteral("printf '%s%s%s' '%1' \"$PATH\" '%1'").arg(marker)});
    shell.setStandardErrorFile(QProcess::nullDevice());
    shell.setStandardInputFile(QProcess::nullDevice());
    shell.start();
    if (!shell.waitForStarted(int(std::max<qint64>(1, deadline.remainingTime()))))
        return fallback();
    if (!finishBy(shell, deadline))
        return fallback();
    const QString found = between(repaired(shell.readAllStandardOutput()), marker).trimmed();
    return found.isEmpty() ? fallback() : found + QLatin1Char(':') + fallback();
}

} // namespace

QString fallback()
{
    return QDir::homePath()
        + QStringLiteral("/.local/bin:/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin");
}

QString between(const QString &output, const QString &marker)
{
    const qsizetype open = output.indexOf(marker);
    if (open < 0)
        return {};
    const qsizetype from = open + marker.size();
    const qsizetype close = output.indexOf(marker, from);
    if (close < 0)
        return {};
    const QString value = output.mid(from, close - from);
    // A PATH is one line; anything else is not what we asked for.
    return value.contains(QLatin1Char('\n')) ? QString() : value;
}

void clearCache()
{
    QMutexLocker lock(&cache().mutex);
    cache().future.reset();
}

QFuture<QString> resolve()
{
    QMutexLocker lock(&cache().mutex);
    if (!cache().future)
        cache().future = QtConcurrent::run(ask);
    return *cache().future;
}

QString path()
{
    QMutexLocker lock(&cache().mutex);
    // The result is there a moment before the future calls itself finished.
    if (cache().future && cache().future->isResultReadyAt(0))
        return cache().future->resultAt(0);
    return fallback();
}

std::optional<Result> run(const QString &command, const QStringList &arguments, double timeout)
{
    const QString searchPath = resolve().result(); // off the main thread, waiting is fine
    QProcess process;
    process.setProgram(QStringLiteral("/usr/bin/env"));
    process.setArguments(QStringList{command} + arguments);
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"), searchPath);
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    const QDeadlineTimer deadline(qint64(timeout * 1000));
    process.start();
    if (!process.waitForStarted(5000))
        return std::nullopt;
    if (!finishBy(process, deadline))
        return std::nullopt;
    return Result{process.exitCode(), repaired(process.readAll())};
}

} // namespace zuv::LoginShell

#include "link/LoginShell.h"

#include <QDir>
#include <QProcess>
#include <QStringDecoder>

#include <pwd.h>
#include <unistd.h>

namespace zuv::LoginShell {

namespace {

std::optional<QString> &cached()
{
    static std::optional<QString> value;
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

// Waits up to `timeout` seconds; ends the process and returns false when it is still running.
bool finishWithin(QProcess &process, double timeout)
{
    if (process.waitForFinished(int(timeout * 1000)))
        return true;
    process.terminate();
    if (!process.waitForFinished(1000))
        process.kill();
    process.waitForFinished(1000);
    return false;
}

} // namespace

QString fallback()
{
    return QDir::homePath()
        + QStringLiteral("/.local/bin:/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin");
}

void clearCache() { cached().reset(); }

QString path()
{
    if (cached())
        return *cached();
    QProcess shell;
    shell.setProgram(userShell());
    shell.setArguments({QStringLiteral("-ilc"), QStringLiteral("printf '%s' \"$PATH\"")});
    shell.setStandardErrorFile(QProcess::nullDevice());
    shell.setStandardInputFile(QProcess::nullDevice());
    shell.start();
    if (!shell.waitForStarted(5000))
        return fallback();
    if (!finishWithin(shell, 5))
        return fallback();
    const QString found = repaired(shell.readAllStandardOutput()).trimmed();
    cached() = found.isEmpty() ? fallback() : found + QLatin1Char(':') + fallback();
    return *cached();
}

std::optional<Result> run(const QString &command, const QStringList &arguments, double timeout)
{
    QProcess process;
    process.setProgram(QStringLiteral("/usr/bin/env"));
    process.setArguments(QStringList{command} + arguments);
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"), path());
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start();
    if (!process.waitForStarted(5000))
        return std::nullopt;
    if (!finishWithin(process, timeout))
        return std::nullopt;
    return Result{process.exitCode(), repaired(process.readAll())};
}

} // namespace zuv::LoginShell

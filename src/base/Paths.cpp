#include "base/Paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <unistd.h>

namespace zuv::Paths {

namespace {

// An XDG base directory: the variable when it holds an absolute path, else the default.
QString xdg(const char *variable, const QString &fallbackBelowHome)
{
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::homePath() + QLatin1Char('/') + fallbackBelowHome;
}

} // namespace

QString support() { return xdg("XDG_DATA_HOME", QStringLiteral(".local/share")) + QStringLiteral("/Zuv"); }
QString logs() { return xdg("XDG_STATE_HOME", QStringLiteral(".local/state")) + QStringLiteral("/Zuv/logs"); }
QString diagnosticReports()
{
    return xdg("XDG_STATE_HOME", QStringLiteral(".local/state")) + QStringLiteral("/Zuv/DiagnosticReports");
}
QString config() { return xdg("XDG_CONFIG_HOME", QStringLiteral(".config")) + QStringLiteral("/Zuv"); }
QString defaultsFile() { return config() + QStringLiteral("/defaults.json"); }

QString runtime()
{
    const QString value = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!value.isEmpty() && QDir::isAbsolutePath(value) && QFileInfo(value).isDir())
        return QDir::cleanPath(value) + QStringLiteral("/zuv");
    return QStringLiteral("/tmp/zuv-%1").arg(getuid());
}

QString prefix()
{
    QDir dir(QCoreApplication::applicationDirPath());
    dir.cdUp();
    return dir.absolutePath();
}

QString helpers() { return prefix() + QStringLiteral("/libexec/zuv"); }
QString agentRoot() { return prefix() + QStringLiteral("/share/zuv/agent"); }

bool ensure(const QString &folder) { return QDir().mkpath(folder); }

} // namespace zuv::Paths

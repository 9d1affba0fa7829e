#include "platform/linux/PrivateFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace zuv::PrivateFolder {

namespace {
QString tr(const char *text) { return QCoreApplication::translate("PrivateFolder", text); }
QString lastError() { return QString::fromLocal8Bit(std::strerror(errno)); }
} // namespace

bool make(const QString &folder, QString *why)
{
    // mkdir with 0700 from the start: there is no moment when others could enter.
    const QByteArray encoded = QFile::encodeName(folder);
    if (::mkdir(encoded.constData(), 0700) != 0 && errno != EEXIST) {
        if (!QDir().mkpath(QFileInfo(folder).absolutePath())
            || (::mkdir(encoded.constData(), 0700) != 0 && errno != EEXIST)) {
            *why = lastError();
            return false;
        }
    }
    return check(folder, why);
}

bool check(const QString &folder, QString *why)
{
    struct stat info {};
    if (::lstat(QFile::encodeName(folder).constData(), &info) != 0) {
        *why = lastError();
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        *why = tr("it is not a folder");
        return false;
    }
    if (info.st_uid != ::getuid()) {
        *why = tr("it belongs to another user");
        return false;
    }
    if ((info.st_mode & 0777) != 0700) {
        *why = tr("others may use it (mode %1, not 700)").arg(info.st_mode & 0777, 3, 8, QLatin1Char('0'));
        return false;
    }
    return true;
}

} // namespace zuv::PrivateFolder

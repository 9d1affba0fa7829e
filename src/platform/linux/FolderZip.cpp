#include "platform/FolderZip.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace zuv {

namespace {

using Archive = std::unique_ptr<struct archive, decltype(&archive_write_free)>;
using Entry = std::unique_ptr<struct archive_entry, decltype(&archive_entry_free)>;

QString why(struct archive *a)
{
    const char *text = archive_error_string(a);
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error");
}

// One file system object as an entry named `name`; a file's bytes follow its header.
std::optional<QString> add(struct archive *a, const QFileInfo &info, const QString &name)
{
    Entry entry(archive_entry_new(), &archive_entry_free);
    archive_entry_set_pathname_utf8(entry.get(), name.toUtf8().constData());
    archive_entry_set_mtime(entry.get(), info.lastModified().toSecsSinceEpoch(), 0);
    QFile file(info.absoluteFilePath());
    if (info.isSymLink()) {
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_symlink_utf8(entry.get(), info.symLinkTarget().toUtf8().constData());
    } else if (info.isDir()) {
        archive_entry_set_filetype(entry.get(), AE_IFDIR);
        archive_entry_set_perm(entry.get(), 0755);
    } else if (info.isFile()) {
        if (!file.open(QIODevice::ReadOnly))
            return QStringLiteral("%1: %2").arg(info.fileName(), file.errorString());
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), info.isExecutable() ? 0755 : 0644);
        archive_entry_set_size(entry.get(), file.size());
    } else {
        return std::nullopt; // sockets, pipes and devices have no place in a zip
    }
    if (archive_write_header(a, entry.get()) != ARCHIVE_OK)
        return why(a);
    if (file.isOpen()) {
        QByteArray chunk;
        while (!(chunk = file.read(1 << 16)).isEmpty())
            if (archive_write_data(a, chunk.constData(), size_t(chunk.size())) < 0)
                return why(a);
        if (file.error() != QFileDevice::NoError)
            return QStringLiteral("%1: %2").arg(info.fileName(), file.errorString());
    }
    return std::nullopt;
}

} // namespace

std::optional<QString> zipFolder(const QString &folder, const QString &path)
{
    const QFileInfo root(folder);
    if (!root.isDir())
        return QStringLiteral("%1 is no folder").arg(folder);
    Archive a(archive_write_new(), &archive_write_free);
    if (archive_write_set_format_zip(a.get()) != ARCHIVE_OK
        || archive_write_open_filename(a.get(), QFile::encodeName(path).constData()) != ARCHIVE_OK)
        return why(a.get());
    const QString name = root.fileName();
    std::optional<QString> failure = add(a.get(), root, name + QLatin1Char('/'));
    QDirIterator it(root.absoluteFilePath(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    const QDir base(root.absoluteFilePath());
    while (!failure && it.hasNext()) {
        const QFileInfo info(it.next());
        QString entry = name + QLatin1Char('/') + base.relativeFilePath(info.absoluteFilePath());
        if (info.isDir() && !info.isSymLink())
            entry += QLatin1Char('/');
        failure = add(a.get(), info, entry);
    }
    if (archive_write_close(a.get()) != ARCHIVE_OK && !failure)
        failure = why(a.get());
    if (failure)
        QFile::remove(path);
    return failure;
}

} // namespace zuv

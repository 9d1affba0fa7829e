#include "chat/OutgoingFile.h"

#include "base/Log.h"
#include "base/Paths.h"
#include "platform/linux/PrivateFolder.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QMimeData>
#include <QMimeDatabase>
#include <QStandardPaths>
#include <QUrl>

namespace zuv {

namespace {

QString shortId() { return QUuid::createUuid().toString(QUuid::WithoutBraces).left(6); }

} // namespace

QString OutgoingFile::mimeFor(const QString &path)
{
    // By the name only, as a file that is still being written may not be readable.
    const QMimeType type = QMimeDatabase().mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault())
        return QStringLiteral("application/octet-stream");
    return type.name();
}

OutgoingFile::OutgoingFile(const QString &path)
    : id(QUuid::createUuid()), path(path), name(QFileInfo(path).fileName()), mime(mimeFor(path))
{
}

QString OutgoingFile::folder()
{
    static const QString made = [] {
        QString folder = Paths::runtime() + QStringLiteral("/outgoing");
        QString why;
        if (PrivateFolder::make(folder, &why))
            return folder;
        log(QStringLiteral("The folder for outgoing files can't be used (%1); the cache folder is used instead.")
                .arg(why));
        folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/outgoing");
        PrivateFolder::make(folder, &why);
        return folder;
    }();
    return made;
}

bool OutgoingFile::temporary() const
{
    return QFileInfo(path).absolutePath() == QFileInfo(folder()).absoluteFilePath();
}

void OutgoingFile::discard() const
{
    if (temporary())
        QFile::remove(path);
}

void OutgoingFile::sweep()
{
    QDir dir(folder());
    for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden | QDir::System))
        dir.remove(name);
}

std::optional<OutgoingFile> OutgoingFile::image(const QByteArray &data)
{
    QBuffer buffer;
    buffer.setData(data);
    QImageReader reader(&buffer);
    // A picture that claims enormous dimensions is refused before it is decoded.
    const QSize size = reader.size();
    if (size.isValid() && qint64(size.width()) * size.height() > 200'000'000)
        return std::nullopt;
    const QImage picture = reader.read();
    if (picture.isNull())
        return std::nullopt;
    const QString path = folder() + QStringLiteral("/Pasted-") + shortId() + QStringLiteral(".png");
    if (!picture.save(path, "PNG")) {
        QFile::remove(path);
        return std::nullopt;
    }
    return OutgoingFile(path);
}

OutgoingFile OutgoingFile::copy(const QString &source)
{
    const QString path = folder() + QLatin1Char('/') + shortId() + QLatin1Char('-') + QFileInfo(source).fileName();
    QFile file(source);
    if (!file.copy(path))
        throw Error(QCoreApplication::translate("OutgoingFile", "Couldn't copy “%1”: %2")
                        .arg(QFileInfo(source).fileName(), file.errorString()));
    return OutgoingFile(path);
}

std::vector<OutgoingFile> OutgoingFile::load(const QMimeData &data)
{
    std::vector<OutgoingFile> files;
    if (data.hasUrls()) {
        for (const QUrl &url : data.urls()) {
            if (url.isLocalFile() && QFileInfo(url.toLocalFile()).isFile())
                files.emplace_back(url.toLocalFile());
        }
        if (!files.empty())
            return files;
    }
    for (const char *type : {"image/png", "image/jpeg", "image/tiff", "image/gif", "image/webp", "image/bmp"}) {
        const QString mime = QString::fromLatin1(type);
        if (!data.hasFormat(mime))
            continue;
        if (auto made = image(data.data(mime))) {
            files.push_back(std::move(*made));
            break;
        }
    }
    return files;
}

} // namespace zuv

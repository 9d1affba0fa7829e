// What the person does with clips: copying back, pinning, removing, clearing,
// and what is shown of a clip.
#include "clipboard/ClipboardHistory.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipStore.h"
#include "clipboard/RtfText.h"
#include "chat/OutgoingFile.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QImageWriter>
#include <QPointer>
#include <QRandomGenerator>
#include <QTextDocumentFragment>
#include <QUrl>
#include <QtConcurrent/QtConcurrentRun>
#include <QCoro/QCoroFuture>

namespace zuv {

namespace {

bool isPlain(const QString &type) { return type == ClipRules::plainText || type == ClipRules::plainTextBare; }

// The last component of a path as a file manager names it ("/a/b/" is "b").
QString lastComponent(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    return slash < 0 || path.size() == 1 ? path : path.mid(slash + 1);
}

} // namespace

void ClipboardHistory::noteOwnWrite() { m_changeCount = m_pasteboard.changeCount(); }

void ClipboardHistory::touch(qint64 id)
{
    Clip *clip = find(id);
    if (!clip)
        return;
    clip->last = m_clock.now();
    clip->copies += 1;
    if (m_store)
        m_store->update(*clip);
    sortAndTrim();
}

void ClipboardHistory::copy(const Clip &clip, bool plain)
{
    if (!m_store)
        return;
    std::vector<ClipContent> rows = m_store->contents(clip.id);
    if (plain) {
        std::vector<ClipContent> strings;
        for (const ClipContent &c : rows)
            if (isPlain(c.type))
                strings.push_back(c);
        if (!strings.empty()) {
            for (const ClipContent &c : rows)
                if (c.type == ClipRules::fileURL)
                    strings.push_back(c);
            rows = std::move(strings);
        }
    }
    // Everything on the first item; each file on an item of its own.
    std::vector<Pasteboard::Item> items(1);
    for (ClipContent &c : rows) {
        if (c.type == ClipRules::fileURL)
            items.push_back({std::move(c)});
        else
            items.front().push_back(std::move(c));
    }
    m_pasteboard.write(items);
    noteOwnWrite();
    touch(clip.id);
}

bool ClipboardHistory::use(const Clip &clip, bool paste, bool plain)
{
    copy(clip, plain);
    if (!paste)
        return true;
    if (!poster || !poster->canPost())
        return false;
    poster->postPaste();
    return true;
}

void ClipboardHistory::copyText(const QString &text)
{
    const ClipContent content{ClipRules::plainText, text.toUtf8()};
    writeOwn({{content}}, {content});
}

void ClipboardHistory::writeOwn(const std::vector<Pasteboard::Item> &items, const std::vector<ClipContent> &rows)
{
    m_pasteboard.write(items);
    noteOwnWrite();
    record(rows, ownApp(), m_clock.now());
}

void ClipboardHistory::togglePin(qint64 id)
{
    Clip *clip = m_store ? find(id) : nullptr;
    if (!clip)
        return;
    if (!clip->pin) {
        QStringList free = pinLetters();
        double order = 0;
        bool anyPinned = false;
        for (const Clip &c : m_clips) {
            if (!c.pin)
                continue;
            free.removeAll(*c.pin);
            order = anyPinned ? std::max(order, c.order) : c.order;
            anyPinned = true;
        }
        if (free.isEmpty()) {
            if (beep)
                beep();
            return;
        }
        clip->pin = free.at(int(QRandomGenerator::system()->bounded(qsizetype(free.size()))));
        clip->order = anyPinned ? order + 1 : 1;
    } else {
        clip->pin.reset();
    }
    m_store->update(*clip);
    sortAndTrim();
}

void ClipboardHistory::remove(const std::vector<qint64> &ids)
{
    if (ids.empty())
        return;
    if (m_store)
        m_store->remove(ids);
    std::erase_if(m_clips, [&ids](const Clip &c) { return std::find(ids.begin(), ids.end(), c.id) != ids.end(); });
    for (qint64 id : ids) {
        m_titles.remove(id);
        m_foldedTitles.remove(id);
        m_thumbnails.remove(id);
        m_phoneThumbnails.remove(id);
    }
    emit clipsChanged();
}

void ClipboardHistory::clear(bool all)
{
    std::vector<qint64> ids;
    for (const Clip &c : m_clips)
        if (all || !c.pin)
            ids.push_back(c.id);
    remove(ids);
    if (m_store)
        m_store->vacuum();
    if (m_defaults.boolean(QStringLiteral("clip-clear-system")).valueOr(false)) {
        m_pasteboard.clear();
        noteOwnWrite();
    }
}

void ClipboardHistory::quit()
{
    if (m_enabled && m_defaults.boolean(QStringLiteral("clip-clear-on-quit")).valueOr(false))
        clear(false);
}

QString ClipboardHistory::title(const Clip &clip)
{
    if (auto it = m_titles.constFind(clip.id); it != m_titles.constEnd())
        return *it;
    QString text = clip.text;
    text.remove(QChar(0xFFFC));
    QString out;
    if (clip.kind == Clip::Kind::files) {
        QStringList names;
        for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            names << lastComponent(line);
        out = names.join(QStringLiteral(", "));
    } else if (m_defaults.boolean(QStringLiteral("clip-symbols")).valueOr(true)) {
        qsizetype lead = 0;
        while (lead < text.size() && text[lead] == QLatin1Char(' '))
            ++lead;
        qsizetype trail = 0;
        while (trail < text.size() - lead && text[text.size() - 1 - trail] == QLatin1Char(' '))
            ++trail;
        out = QString(lead, QChar(0x00B7)) + text.mid(lead, text.size() - lead - trail) + QString(trail, QChar(0x00B7));
        out.replace(QLatin1Char('\n'), QChar(0x23CE));
        out.replace(QLatin1Char('\t'), QChar(0x21E5));
    } else {
        out = text.trimmed();
    }
    m_titles.insert(clip.id, out);
    m_foldedTitles.insert(clip.id, ClipSearch::Folded::of(out));
    return out;
}

QString ClipboardHistory::fullText(const Clip &clip)
{
    if (clip.kind != Clip::Kind::text || !m_store)
        return clip.text;
    const std::vector<ClipContent> rows = m_store->contents(clip.id);
    for (const QString &type : {ClipRules::plainText, ClipRules::plainTextBare}) {
        if (const ClipContent *c = ClipRules::row(rows, type))
            if (const auto text = ClipRules::utf8(c->data))
                return *text;
    }
    if (const ClipContent *c = ClipRules::row(rows, ClipRules::rtf))
        return RtfText::plain(c->data);
    if (const ClipContent *c = ClipRules::row(rows, ClipRules::html))
        return QTextDocumentFragment::fromHtml(QString::fromUtf8(c->data)).toPlainText();
    return clip.text;
}

std::optional<ClipboardHistory::Preview> ClipboardHistory::scaled(const QByteArray &data, int side)
{
    QBuffer buffer;
    buffer.setData(data);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    QSize size = reader.size();
    if (size.isEmpty())
        return std::nullopt;
    const bool turned = reader.transformation() & QImageIOHandler::TransformationRotate90;
    if (size.width() > side || size.height() > side)
        reader.setScaledSize(size.scaled(side, side, Qt::KeepAspectRatio));
    QImage image = reader.read();
    if (image.isNull())
        return std::nullopt;
    return Preview{std::move(image), turned ? size.transposed() : size};
}

std::optional<ClipboardHistory::Preview> ClipboardHistory::picture(ClipStore &store, qint64 id, int side)
{
    const auto data = store.firstData(id, ClipRules::imageTypes());
    return data ? scaled(*data, side) : std::nullopt;
}

QCoro::Task<std::optional<QImage>> ClipboardHistory::thumbnail(Clip clip)
{
    if (QImage *cached = m_thumbnails.object(clip.id))
        co_return *cached;
    std::shared_ptr<ClipStore> store = m_store;
    if (!store)
        co_return std::nullopt;
    QPointer<ClipboardHistory> self(this);
    const qint64 id = clip.id;
    // The future is made in a statement of its own: GCC 12 destroys a lambda
    // temporary twice when it is made inside a co_await.
    QFuture<std::optional<Preview>> future = QtConcurrent::run([store, id] { return picture(*store, id, 720); });
    const auto result = co_await future;
    if (!result)
        co_return std::nullopt;
    if (self)
        self->m_thumbnails.insert(id, new QImage(result->image));
    co_return result->image;
}

QCoro::Task<std::optional<ClipboardHistory::Preview>> ClipboardHistory::previewImage(Clip clip)
{
    std::shared_ptr<ClipStore> store = m_store;
    if (!store)
        co_return std::nullopt;
    const qint64 id = clip.id;
    QFuture<std::optional<Preview>> future = QtConcurrent::run([store, id] { return picture(*store, id, 2400); });
    co_return co_await future;
}

QCoro::Task<std::optional<QByteArray>> ClipboardHistory::image(Clip clip)
{
    std::shared_ptr<ClipStore> store = m_store;
    if (!store)
        co_return std::nullopt;
    const qint64 id = clip.id;
    QFuture<std::optional<QByteArray>> future =
        QtConcurrent::run([store, id] { return store->firstData(id, ClipRules::imageTypes()); });
    co_return co_await future;
}

QCoro::Task<std::optional<ClipboardHistory::PictureFile>> ClipboardHistory::pictureFile(qint64 id)
{
    std::shared_ptr<ClipStore> store = m_store;
    if (!store)
        co_return std::nullopt;
    QFuture<std::optional<PictureFile>> future = QtConcurrent::run([store, id]() -> std::optional<PictureFile> {
        const std::vector<ClipContent> rows = store->contents(id);
        const std::pair<const char *, const char *> kept[] = {
            {"image/png", "png"}, {"image/jpeg", "jpg"}, {"image/heic", "heic"}};
        for (const auto &[type, extension] : kept)
            if (const ClipContent *c = ClipRules::row(rows, QLatin1String(type)))
                return PictureFile{c->data, QLatin1String(extension)};
        const ClipContent *tiff = ClipRules::row(rows, QStringLiteral("image/tiff"));
        if (!tiff)
            return std::nullopt;
        const QImage picture = QImage::fromData(tiff->data, "TIFF");
        if (picture.isNull())
            return std::nullopt;
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        if (!picture.save(&buffer, "PNG"))
            return std::nullopt;
        return PictureFile{png, QStringLiteral("png")};
    });
    co_return co_await future;
}

QCoro::Task<void> ClipboardHistory::askZuv(Clip clip)
{
    QPointer<ClipboardHistory> self(this);
    if (clip.kind == Clip::Kind::text) {
        if (handoff)
            handoff(fullText(clip), {});
        co_return;
    }
    if (clip.kind == Clip::Kind::files) {
        std::vector<OutgoingFile> files;
        for (const QString &path : clip.text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            files.emplace_back(path);
        if (handoff)
            handoff(QString(), files);
        co_return;
    }
    const auto preview = co_await previewImage(clip);
    if (!self || !preview)
        co_return;
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    if (!preview->image.save(&buffer, "PNG"))
        co_return;
    auto file = OutgoingFile::image(png);
    if (!file)
        co_return; // nothing said: the picture could not be written
    file->name = QStringLiteral("Clipboard.png");
    if (handoff)
        handoff(QString(), {*file});
}

namespace {

// A file's bytes, or nothing when it cannot be read, is empty or is beyond the clipboard's limit.
QByteArray smallFile(const QString &path)
{
    QFile in(path);
    if (!in.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = in.read(Pasteboard::sizeLimit + 1);
    return bytes.size() > Pasteboard::sizeLimit ? QByteArray() : bytes;
}

} // namespace

bool ClipboardHistory::addFromPhone(const QString &file, bool image)
{
    if (!m_store)
        return false;
    const QByteArray bytes = smallFile(file);
    if (bytes.isEmpty())
        return false;
    if (image) {
        const QString extension = QFileInfo(file).suffix().toLower();
        const QString type = extension == QLatin1String("png")    ? QStringLiteral("image/png")
                           : extension == QLatin1String("heic") ? QStringLiteral("image/heic")
                                                                 : QStringLiteral("image/jpeg");
        record({ClipContent{type, bytes}}, QStringLiteral("zuv.iphone"), m_clock.now());
        return true;
    }
    const auto text = ClipRules::utf8(bytes);
    if (!text || text->isEmpty())
        return false;
    record({ClipContent{ClipRules::plainText, bytes}}, QStringLiteral("zuv.iphone"), m_clock.now());
    return true;
}

// What another computer of the account sent goes onto this clipboard, as if it was
// copied here; the history keeps it when it is on.
bool ClipboardHistory::putReceived(const QString &file, bool image)
{
    const QByteArray bytes = smallFile(file);
    if (bytes.isEmpty())
        return false;
    ClipContent content;
    if (image) {
        // A PNG goes as it came; anything else is decoded once and made a PNG.
        QByteArray png = bytes;
        if (!bytes.startsWith("\x89PNG\r\n\x1a\n")) {
            const QImage picture = QImage::fromData(bytes);
            if (picture.isNull())
                return false;
            png.clear();
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            if (!picture.save(&buffer, "PNG"))
                return false;
        }
        content = ClipContent{QStringLiteral("image/png"), png};
    } else {
        const auto text = ClipRules::utf8(bytes);
        if (!text || text->isEmpty())
            return false;
        content = ClipContent{ClipRules::plainText, bytes};
    }
    m_receivedText = image ? std::nullopt : ClipRules::utf8(bytes);
    writeOwn({{content}}, {content});
    return true;
}

bool ClipboardHistory::putReceivedFiles(const QStringList &paths)
{
    // As a file manager copies: nothing on the first item, each file on its own.
    std::vector<Pasteboard::Item> items(1);
    std::vector<ClipContent> rows;
    for (const QString &path : paths) {
        const QFileInfo file(path);
        if (!file.isAbsolute() || !file.isFile())
            return false;
        const ClipContent row{ClipRules::fileURL, QUrl::fromLocalFile(file.absoluteFilePath()).toEncoded()};
        items.push_back({row});
        rows.push_back(row);
    }
    if (rows.empty())
        return false;
    m_receivedText.reset();
    writeOwn(items, rows);
    return true;
}

QCoro::Task<std::optional<QByteArray>> ClipboardHistory::phoneThumbnail(Clip clip)
{
    if (QByteArray *cached = m_phoneThumbnails.object(clip.id))
        co_return *cached;
    std::shared_ptr<ClipStore> store = m_store;
    if (!store)
        co_return std::nullopt;
    QPointer<ClipboardHistory> self(this);
    const qint64 id = clip.id;
    QFuture<std::optional<QByteArray>> future = QtConcurrent::run([store, id]() -> std::optional<QByteArray> {
        const auto small = picture(*store, id, 360);
        if (!small)
            return std::nullopt;
        QByteArray jpeg;
        QBuffer buffer(&jpeg);
        buffer.open(QIODevice::WriteOnly);
        if (!small->image.save(&buffer, "JPEG", 60))
            return std::nullopt;
        return jpeg;
    });
    const auto jpeg = co_await future;
    if (jpeg && self)
        self->m_phoneThumbnails.insert(id, new QByteArray(*jpeg));
    co_return jpeg;
}

} // namespace zuv

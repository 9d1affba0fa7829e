#include "clipboard/ClipboardRemote.h"

#include "base/Error.h"
#include "base/Job.h"
#include "base/Paths.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipboardHistory.h"
#include "platform/Workspace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QUuid>

#include <cmath>
#include <limits>

namespace zuv {

namespace {

const QString marker = QStringLiteral("clipboard-ask {");

QString notThere() { return QObject::tr("That item isn't in the clipboard history any more."); }

// A JSON number that is a whole number a 64-bit integer holds.
std::optional<qint64> integer(const QJsonValue &value)
{
    if (!value.isDouble())
        return std::nullopt;
    const double d = value.toDouble();
    if (!std::isfinite(d) || d != std::floor(d) || d < -9.2e18 || d > 9.2e18)
        return std::nullopt;
    return qint64(d);
}

// The canonical form of a path, links resolved; for a file that does not
// exist, its folder's canonical form and its name.
QString canonical(const QString &path)
{
    const QFileInfo info(path);
    const QString resolved = info.canonicalFilePath();
    if (!resolved.isEmpty())
        return resolved;
    const QString folder = QFileInfo(info.absolutePath()).canonicalFilePath();
    return folder.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : folder + QLatin1Char('/') + info.fileName();
}

// A one-key object, made outside the coroutines: GCC 12 mishandles brace lists
// in them.
QJsonObject one(const QString &key, const QJsonValue &value)
{
    QJsonObject o;
    o.insert(key, value);
    return o;
}

} // namespace

ClipboardRemote::ClipboardRemote(ClipboardHistory &history, Workspace &workspace, QString outbox,
                                 std::function<bool(const QString &)> send, QObject *parent)
    : QObject(parent), m_history(history), m_workspace(workspace), m_outbox(std::move(outbox)), m_send(std::move(send))
{
}

QString ClipboardRemote::defaultOutbox() { return Paths::support() + QStringLiteral("/work/clipboard"); }

void ClipboardRemote::handle(const QString &line)
{
    const qsizetype at = line.indexOf(marker);
    if (at < 0)
        return;
    const QJsonDocument doc = QJsonDocument::fromJson(line.mid(at + marker.size() - 1).toUtf8());
    if (!doc.isObject())
        return;
    const QJsonObject message = doc.object();
    const auto id = integer(message.value(QStringLiteral("id")));
    const QJsonValue op = message.value(QStringLiteral("op"));
    if (!id || !op.isString())
        return; // nobody to answer
    spawn(answerAndReply(*id, op.toString(), message), QStringLiteral("Answering the phone's clipboard request"));
}

QCoro::Task<void> ClipboardRemote::answerAndReply(qint64 id, QString op, QJsonObject message)
{
    QPointer<ClipboardRemote> self(this);
    QJsonObject payload;
    try {
        const QJsonObject result = co_await answer(op, message);
        payload.insert(QStringLiteral("result"), result);
    } catch (const Error &e) {
        payload.insert(QStringLiteral("error"), e.localizedDescription());
    }
    if (self)
        reply(id, payload);
}

void ClipboardRemote::reply(qint64 id, QJsonObject payload)
{
    payload.insert(QStringLiteral("clipboard"), id);
    if (m_send)
        m_send(QString::fromUtf8(QJsonDocument(payload).toJson(QJsonDocument::Compact)));
}

QJsonObject ClipboardRemote::describe(const Clip &clip) const
{
    QJsonObject item;
    item.insert(QStringLiteral("id"), clip.id);
    item.insert(QStringLiteral("kind"), Clip::word(clip.kind));
    item.insert(QStringLiteral("text"), ClipRules::firstCharacters(clip.text, 400));
    item.insert(QStringLiteral("first"), qint64(std::llround(clip.first * 1000)));
    item.insert(QStringLiteral("last"), qint64(std::llround(clip.last * 1000)));
    item.insert(QStringLiteral("copies"), clip.copies);
    item.insert(QStringLiteral("pinned"), clip.pin.has_value());
    if (clip.app) {
        item.insert(QStringLiteral("app"), *clip.app);
        QString name = *clip.app;
        if (*clip.app == QLatin1String("zuv.iphone"))
            name = QStringLiteral("iPhone");
        else if (const auto app = m_workspace.application(*clip.app))
            name = app->name;
        item.insert(QStringLiteral("appName"), name);
    }
    return item;
}

bool ClipboardRemote::inOutbox(const QString &path) const
{
    const QString outbox = canonical(m_outbox);
    return canonical(path).startsWith(outbox + QLatin1Char('/'));
}

QCoro::Task<QJsonObject> ClipboardRemote::answer(QString op, QJsonObject message)
{
    QPointer<ClipboardRemote> self(this);
    if (op == QLatin1String("put")) {
        // Sent from another computer of the account: onto this clipboard, history or not.
        if (message.value(QStringLiteral("files")).isArray()) {
            // Files saved in Downloads: on the clipboard as a file list.
            QStringList paths;
            for (const QJsonValue &v : message.value(QStringLiteral("files")).toArray())
                paths << v.toString();
            if (!m_history.putReceivedFiles(paths))
                throw Error(tr("Nothing to put on the clipboard."));
            co_return one(QStringLiteral("ok"), true);
        }
        const QJsonValue path = message.value(QStringLiteral("path"));
        if (!path.isString() || !inOutbox(path.toString())
            || !m_history.putReceived(canonical(path.toString()), message.value(QStringLiteral("image")).toBool(false)))
            throw Error(tr("Nothing to put on the clipboard."));
        co_return one(QStringLiteral("ok"), true);
    }
    if (!m_history.enabled() || !m_history.store())
        co_return one(QStringLiteral("enabled"), false);

    if (op == QLatin1String("list")) {
        const qint64 offset = std::max<qint64>(integer(message.value(QStringLiteral("offset"))).value_or(0), 0);
        const qint64 limit = std::clamp<qint64>(integer(message.value(QStringLiteral("limit"))).value_or(50), 1, 100);
        std::vector<Clip> pinned;
        std::vector<Clip> others;
        for (const auto &m : m_history.search(message.value(QStringLiteral("q")).toString()))
            (m.clip.pin ? pinned : others).push_back(m.clip);
        pinned.insert(pinned.end(), others.begin(), others.end());
        QJsonArray items;
        for (qint64 i = offset; i < qint64(pinned.size()) && i < offset + limit; ++i) {
            const Clip clip = pinned[size_t(i)];
            QJsonObject item = describe(clip);
            if (clip.kind == Clip::Kind::image) {
                const auto thumb = co_await m_history.phoneThumbnail(clip);
                if (!self)
                    co_return QJsonObject();
                if (thumb)
                    item.insert(QStringLiteral("thumb"), QString::fromLatin1(thumb->toBase64()));
            }
            items.append(item);
        }
        QJsonObject result;
        result.insert(QStringLiteral("enabled"), true);
        result.insert(QStringLiteral("items"), items);
        result.insert(QStringLiteral("total"), qint64(pinned.size()));
        co_return result;
    }
    if (op == QLatin1String("add")) {
        const QJsonValue path = message.value(QStringLiteral("path"));
        if (!path.isString() || !inOutbox(path.toString()))
            throw Error(tr("Nothing to add."));
        if (!m_history.addFromPhone(canonical(path.toString()), message.value(QStringLiteral("image")).toBool(false)))
            throw Error(tr("Nothing to add."));
        co_return one(QStringLiteral("ok"), true);
    }

    const auto id = integer(message.value(QStringLiteral("clip")));
    std::optional<Clip> clip;
    for (const Clip &c : m_history.clips())
        if (id && c.id == *id)
            clip = c;
    if (!clip)
        throw Error(notThere());

    if (op == QLatin1String("item")) {
        QJsonObject result;
        if (clip->kind == Clip::Kind::text) {
            result.insert(QStringLiteral("kind"), QStringLiteral("text"));
            result.insert(QStringLiteral("text"), m_history.fullText(*clip).left(200'000));
        } else if (clip->kind == Clip::Kind::files) {
            result.insert(QStringLiteral("kind"), QStringLiteral("files"));
            result.insert(QStringLiteral("paths"), QJsonArray::fromStringList(clip->text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)));
        } else {
            const auto picture = co_await m_history.pictureFile(clip->id);
            if (!self)
                co_return QJsonObject();
            if (!picture)
                throw Error(tr("The picture couldn't be read."));
            const QString folder = m_outbox + QStringLiteral("/out-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
            if (!QDir().mkpath(folder))
                throw Error(tr("The folder %1 could not be created.").arg(folder));
            QFile file(folder + QStringLiteral("/Picture.") + picture->extension);
            if (!file.open(QIODevice::WriteOnly) || file.write(picture->data) != picture->data.size())
                throw Error(file.errorString());
            result.insert(QStringLiteral("kind"), QStringLiteral("image"));
            result.insert(QStringLiteral("path"), file.fileName());
            result.insert(QStringLiteral("text"), clip->text);
        }
        co_return result;
    }
    if (op == QLatin1String("use")) {
        m_history.copy(*clip, false);
        co_return one(QStringLiteral("ok"), true);
    }
    if (op == QLatin1String("pin")) {
        m_history.togglePin(clip->id);
        bool pinned = false;
        for (const Clip &c : m_history.clips())
            if (c.id == clip->id)
                pinned = c.pin.has_value();
        co_return one(QStringLiteral("pinned"), pinned);
    }
    if (op == QLatin1String("delete")) {
        m_history.remove({clip->id});
        co_return one(QStringLiteral("ok"), true);
    }
    throw Error(tr("unknown op %1").arg(op));
}

} // namespace zuv

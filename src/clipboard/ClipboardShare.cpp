#include "clipboard/ClipboardShare.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Error.h"
#include "base/Log.h"
#include "chat/OutgoingFile.h"
#include "clipboard/ClipRules.h"
#include "hub/Entry.h"
#include "hub/MacAPI.h"
#include "platform/FolderZip.h"
#include "platform/Pasteboard.h"
#include "shortcuts/HotKeys.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QHostInfo>
#include <QImage>
#include <QJsonArray>
#include <QPointer>
#include <QUrl>
#include <QUuid>
#include <QtConcurrent/QtConcurrentRun>
#include <QCoro/QCoroFuture>

namespace zuv {

namespace {

// The types a send may read (GCC 12 takes no brace lists in coroutines).
const QStringList texts = {ClipRules::plainText, ClipRules::plainTextBare};
const QStringList wanted = QStringList{ClipRules::fileURL} + ClipRules::imageTypes() + texts;

struct MeReply {
    std::optional<std::vector<Me::Mac>> macs;
    static MeReply fromJson(const QJsonObject &o) { return {Me::fromJson(o).macs}; }
};

// The folder that a send works in, removed with everything in it however the send ends.
struct Scratch {
    QString path = QDir::tempPath() + QStringLiteral("/zuv-clipboard-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
    ~Scratch() { QDir(path).removeRecursively(); }
};

} // namespace

ClipboardShare::ClipboardShare(Clock &clock, Defaults &defaults, MacAPI &api, Pasteboard &pasteboard, HotKeys *hotKeys,
                               std::function<bool()> paired, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_api(api), m_pasteboard(pasteboard), m_hotKeys(hotKeys),
      m_paired(std::move(paired))
{
    const QString target = m_defaults.string(QStringLiteral("clipboard-target")).valueOr(QString());
    if (!target.isEmpty())
        m_target = target;
    m_combo = KeyCombo::fromJson(m_defaults.value(QStringLiteral("clipboard-shortcut"))); // none: no shortcut
    apply();
}

ClipboardShare::~ClipboardShare()
{
    m_lifetime.cancel();
    if (m_hotKeys && m_hotKey)
        m_hotKeys->remove(*m_hotKey);
}

void ClipboardShare::apply()
{
    if (!m_hotKeys)
        return;
    if (m_hotKey) {
        m_hotKeys->remove(*m_hotKey);
        m_hotKey.reset();
    }
    if (m_combo) {
        QPointer<ClipboardShare> self(this);
        m_hotKey = m_hotKeys->add(*m_combo, [self] {
            if (self)
                spawn(self->sendToTarget(), QStringLiteral("Sending the clipboard"));
        });
    }
}

std::optional<QString> ClipboardShare::setCombo(const std::optional<KeyCombo> &combo)
{
    if (combo && combo != m_combo && conflict) {
        if (auto owner = conflict(*combo))
            return owner;
    }
    m_combo = combo;
    m_defaults.set(QStringLiteral("clipboard-shortcut"), combo ? QJsonValue(combo->toJson()) : QJsonValue());
    apply();
    emit changed();
    return std::nullopt;
}

void ClipboardShare::setTarget(const QString &id)
{
    m_target = id;
    m_defaults.set(QStringLiteral("clipboard-target"), id);
    emit changed();
}

void ClipboardShare::setSending(bool sending)
{
    m_sending = sending;
    emit changed();
}

QCoro::Task<void> ClipboardShare::refresh()
{
    QPointer<ClipboardShare> self(this);
    if (!m_paired || !m_paired())
        co_return;
    const std::optional<QString> me = co_await m_api.thisMac();
    if (!self)
        co_return;
    std::vector<Me::Mac> all;
    try {
        all = (co_await m_api.get<MeReply>(QStringLiteral("/app/me"), m_lifetime)).macs.value_or(std::vector<Me::Mac>());
    } catch (const std::exception &) {
        co_return; // a failure leaves everything as it was
    }
    if (!self)
        co_return;
    m_thisName.reset();
    m_macs.clear();
    for (const Me::Mac &mac : all) {
        if (me && mac.id == *me) {
            m_thisName = mac.name;
            continue;
        }
        if (!mac.builtIn.value_or(false) || mac.online.value_or(false))
            m_macs.push_back(mac);
    }
    emit changed();
}

std::optional<Me::Mac> ClipboardShare::defaultTarget() const
{
    for (const Me::Mac &mac : m_macs)
        if (m_target && mac.id == *m_target)
            return mac;
    for (const Me::Mac &mac : m_macs)
        if (mac.online.value_or(false))
            return mac;
    if (!m_macs.empty())
        return m_macs.front();
    return std::nullopt;
}

QCoro::Task<void> ClipboardShare::sendToTarget()
{
    QPointer<ClipboardShare> self(this);
    co_await refresh();
    if (!self)
        co_return;
    const auto mac = defaultTarget();
    if (!mac) {
        if (toast)
            toast(tr("No other computer to send to"), QStringLiteral("dialog-warning"), false);
        co_return;
    }
    co_await send(*mac);
}

QCoro::Task<std::optional<ClipboardShare::Payload>> ClipboardShare::read()
{
    QPointer<ClipboardShare> self(this);
    const Pasteboard::Offer offer = co_await m_pasteboard.offer();
    if (!self || offer.outcome != Pasteboard::Outcome::read)
        co_return std::nullopt;
    Pasteboard::Plan plan;
    for (const QString &type : wanted)
        if (offer.types.contains(type))
            plan.fetch << type;
    if (plan.fetch.isEmpty())
        co_return std::nullopt;
    const Pasteboard::Reading reading = co_await m_pasteboard.fetch(offer.changeCount, plan);
    if (!self || reading.outcome != Pasteboard::Outcome::read || reading.items.empty())
        co_return std::nullopt;

    // Files first, then a picture, then text: what a paste would most likely mean.
    // A file list comes one file an item; everything else is on the first.
    Payload payload;
    for (const Pasteboard::Item &item : reading.items)
        if (const ClipContent *row = ClipRules::row(item, ClipRules::fileURL))
            for (const QByteArray &line : row->data.split('\n')) {
                const QUrl url(QString::fromUtf8(line.trimmed()));
                if (url.isLocalFile())
                    payload.files << url.toLocalFile();
            }
    if (!payload.files.isEmpty()) {
        payload.kind = Payload::Kind::files;
        co_return payload;
    }
    const Pasteboard::Item &first = reading.items.front();
    for (const QString &type : ClipRules::imageTypes()) {
        const ClipContent *row = ClipRules::row(first, type);
        if (!row || row->data.isEmpty())
            continue;
        payload.kind = Payload::Kind::image;
        payload.png = row->data;
        if (type == QLatin1String("image/png"))
            co_return payload;
        // Another encoding is made PNG off the main thread; a picture Qt cannot read is passed over.
        const QByteArray data = row->data;
        auto future = QtConcurrent::run([data] {
            QByteArray png;
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            const QImage picture = QImage::fromData(data);
            return !picture.isNull() && picture.save(&buffer, "PNG") ? png : QByteArray();
        });
        payload.png = co_await future;
        if (!self)
            co_return std::nullopt;
        if (!payload.png.isEmpty())
            co_return payload;
    }
    for (const QString &type : texts) {
        const ClipContent *row = ClipRules::row(first, type);
        const auto text = row ? ClipRules::utf8(row->data) : std::nullopt;
        if (text && !text->isEmpty()) {
            payload.kind = Payload::Kind::text;
            payload.text = *text;
            co_return payload;
        }
    }
    co_return std::nullopt;
}

QCoro::Task<QString> ClipboardShare::zip(QString folder, QString into)
{
    const QString name = QFileInfo(folder).fileName();
    const QString archive = into + QLatin1Char('/') + name + QStringLiteral(".zip");
    // Written off the main thread; the folder goes in with its own name.
    auto future = QtConcurrent::run([folder, archive] { return zipFolder(folder, archive); });
    const std::optional<QString> failure = co_await future;
    if (failure) {
        log(QStringLiteral("zip %1: %2").arg(folder, *failure));
        throw Error(tr("Couldn't zip “%1”.").arg(name));
    }
    co_return archive;
}

QString ClipboardShare::message(const std::exception &error, const Me::Mac &mac)
{
    if (const auto *failure = dynamic_cast<const MacAPI::Failure *>(&error);
        failure && failure->kind() == MacAPI::Failure::Kind::http) {
        if (failure->status() == 409)
            return tr("%1 is offline").arg(mac.name);
        if (failure->status() == 404)
            return tr("%1 isn't on your account any more").arg(mac.name);
        if (failure->status() == 502 && failure->localizedDescription().contains(QLatin1String("text required")))
            return tr("Update Zuv on %1 to send it pictures and files.").arg(mac.name);
    }
    if (const auto *own = dynamic_cast<const Error *>(&error))
        return own->localizedDescription();
    return QString::fromUtf8(error.what());
}

QCoro::Task<void> ClipboardShare::send(Me::Mac mac)
{
    QPointer<ClipboardShare> self(this);
    if (m_sending)
        co_return;
    setSending(true);
    setTarget(mac.id); // a send remembers its target
    const Scratch scratch;
    const CancelToken token = m_lifetime;
    QString sent;
    std::optional<QString> failure;
    try {
        const std::optional<Payload> payload = co_await read();
        if (!self)
            co_return;
        if (!payload) {
            if (toast)
                toast(tr("The clipboard is empty"), QStringLiteral("edit-paste"), false);
            setSending(false);
            co_return;
        }
        QString from = m_thisName.value_or(QHostInfo::localHostName());
        if (from.isEmpty())
            from = QStringLiteral("Computer");
        QJsonObject body;
        body.insert(QStringLiteral("device"), mac.id);
        body.insert(QStringLiteral("from"), from);
        const QString sending = tr("Sending to %1…").arg(mac.name);
        if (payload->kind == Payload::Kind::text) {
            if (payload->text.size() > longestText)
                throw Error(tr("The text is too long (100,000 characters at most)."));
            sent = tr("Text");
            body.insert(QStringLiteral("text"), payload->text);
        } else if (payload->kind == Payload::Kind::image) {
            if (toast)
                toast(sending, QStringLiteral("go-up"), true);
            if (!QDir().mkpath(scratch.path))
                throw Error(tr("The folder %1 could not be created.").arg(scratch.path));
            QFile file(scratch.path + QStringLiteral("/Clipboard.png"));
            if (!file.open(QIODevice::WriteOnly) || file.write(payload->png) != payload->png.size())
                throw Error(tr("The picture could not be written to %1.").arg(scratch.path));
            file.close();
            const Entry::File uploaded = co_await m_api.upload(file.fileName(), QStringLiteral("Clipboard.png"),
                                                               QStringLiteral("image/png"), token);
            if (!self)
                co_return;
            sent = tr("Picture");
            QJsonArray files;
            files.append(uploaded.toJson());
            body.insert(QStringLiteral("files"), files);
            body.insert(QStringLiteral("image"), true);
        } else {
            if (payload->files.size() > mostFiles)
                throw Error(tr("Up to 50 files at a time."));
            if (toast)
                toast(sending, QStringLiteral("go-up"), true);
            if (!QDir().mkpath(scratch.path))
                throw Error(tr("The folder %1 could not be created.").arg(scratch.path));
            QJsonArray files;
            for (QString path : payload->files) {
                if (QFileInfo(path).isDir()) {
                    path = co_await zip(path, scratch.path);
                    if (!self)
                        co_return;
                }
                const QFileInfo file(path);
                if (file.size() > largestFile)
                    throw Error(tr("“%1” is larger than 100 MB. Use a USB stick or a file share for big files.").arg(file.fileName()));
                const Entry::File uploaded = co_await m_api.upload(path, file.fileName(), OutgoingFile::mimeFor(path), token);
                if (!self)
                    co_return;
                files.append(uploaded.toJson());
                sent = file.fileName(); // a single file's name, a folder's with ".zip"
            }
            if (payload->files.size() > 1)
                sent = tr("%1 files").arg(payload->files.size());
            body.insert(QStringLiteral("files"), files);
        }
        co_await m_api.call<MacAPI::Ignored>(QStringLiteral("/app/mac/clipboard"), QStringLiteral("POST"), body, 320, token);
    } catch (const std::exception &error) {
        failure = message(error, mac);
    }
    if (!self)
        co_return;
    setSending(false);
    if (failure) {
        log(QStringLiteral("send clipboard to %1: %2").arg(mac.name, *failure));
        if (toast)
            toast(*failure, QStringLiteral("dialog-warning"), false);
        co_return;
    }
    if (toast)
        toast(tr("%1 sent to %2").arg(sent, mac.name), QStringLiteral("emblem-ok"), false);
}

void ClipboardShare::startRefreshing()
{
    m_refresh = Job::start([this](CancelToken token) { return refreshing(std::move(token)); },
                           QStringLiteral("Refreshing the other computers"));
}

QCoro::Task<void> ClipboardShare::refreshing(CancelToken token)
{
    QPointer<ClipboardShare> self(this);
    for (;;) {
        co_await refresh();
        if (!self || token.isCancelled())
            co_return;
        const bool waited = co_await m_clock.sleep(refreshInterval, token);
        if (!waited || !self)
            co_return;
    }
}

} // namespace zuv

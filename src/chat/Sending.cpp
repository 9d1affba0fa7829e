// ChatModel: a message shows at once and travels afterwards. The echo stands in
// for it until the hub's entry takes its place, or goes if the send fails.
#include "chat/ChatModel.h"

#include "base/Clock.h"
#include "base/Json.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QPointer>
#include <QUuid>

#include <cmath>

namespace zuv {

namespace {

struct Saved {
    std::optional<Entry> entry;
    static Saved fromJson(const QJsonObject &o) { return {json::optional<Entry>(o, QStringLiteral("entry"))}; }
};

QString uploadingText() { return QCoreApplication::translate("ChatModel", "Uploading…"); }
QString sendingText() { return QCoreApplication::translate("ChatModel", "Sending…"); }

} // namespace

QCoro::Task<bool> ChatModel::send(QString text, std::vector<OutgoingFile> files, std::vector<Entry::File> reusing,
                                  QString conv)
{
    QPointer<ChatModel> self(this);
    const QString clientId =
        QStringLiteral("m") + QUuid::createUuid().toString(QUuid::WithoutBraces).toLower().remove(QLatin1Char('-')).left(11);

    Entry echo;
    echo.id = clientId;
    echo.role = QStringLiteral("user");
    echo.text = text;
    echo.at = std::floor(m_clock.now() * 1000);
    std::vector<Entry::File> shown = reusing;
    for (const OutgoingFile &f : files)
        shown.push_back({QString(), f.name, f.mime});
    echo.files = shown;
    echo.conversation = conv;
    echo.channel = QStringLiteral("app");

    m_entries[conv].append(echo);
    emit entriesChanged(conv);
    m_waiting.insert(conv);
    m_steps.insert(conv, files.empty() ? sendingText() : uploadingText());
    emit waitingChanged();
    if (m_deleted.remove(conv))
        emit deletedChanged();

    std::optional<QString> failure;
    std::optional<Entry> saved;
    std::vector<Entry::File> sent = reusing;
    try {
        for (const OutgoingFile &f : files) {
            Entry::File uploaded = co_await m_api.upload(f.path, f.name, f.mime, m_lifetime);
            if (!self)
                co_return false;
            sent.push_back(std::move(uploaded));
        }
        QJsonArray list;
        for (const Entry::File &f : sent)
            list.append(f.toJson());
        QJsonObject body;
        body.insert(QStringLiteral("text"), text);
        body.insert(QStringLiteral("clientId"), clientId);
        body.insert(QStringLiteral("conversation"), conv);
        body.insert(QStringLiteral("files"), list);
        const Saved reply = co_await m_api.call<Saved>(QStringLiteral("/app/send"), QStringLiteral("POST"), body, 60,
                                                       m_lifetime);
        saved = reply.entry;
    } catch (const std::exception &e) {
        failure = describe(e);
    }
    if (!self || m_lifetime.isCancelled())
        co_return false;

    if (failure) {
        // Never half sent: the echo goes, and the caller puts the draft back.
        if (auto it = m_entries.find(conv); it != m_entries.end()) {
            it->second.remove(clientId);
            emit entriesChanged(conv);
        }
        stopWaiting(conv);
        setError(*failure);
        co_return false;
    }

    // The files of ours are on the hub now.
    for (const OutgoingFile &f : files)
        f.discard();
    // A frame or a refresh may have brought the hub's entry first; then nothing is added.
    if (saved) {
        if (auto it = m_entries.find(conv); it != m_entries.end() && it->second.replace(clientId, *saved))
            emit entriesChanged(conv);
    }
    if (m_waiting.contains(conv)) {
        const QString step = m_steps.value(conv);
        if (step == uploadingText() || step == sendingText()) {
            m_steps.remove(conv); // a step from the hub that came meanwhile stays
            emit waitingChanged();
        }
    }
    bump(conv, echo);
    if (!conversation(conv))
        co_await reloadConversations(false);
    co_return true;
}

void ChatModel::cancel(const QString &conv)
{
    // The "stopped" frame ends the wait; without it the reply does.
    spawn(postQuietly(&m_api, QStringLiteral("/app/cancel"), QJsonObject{{QStringLiteral("conversation"), conv}},
                      m_lifetime),
          QStringLiteral("Stopping a reply"));
}

void ChatModel::setHandoff(const QString &conv, Handoff content)
{
    m_handoff[conv] = std::move(content);
    emit handoffChanged();
}

std::optional<ChatModel::Handoff> ChatModel::takeHandoff(const QString &conv)
{
    auto it = m_handoff.find(conv);
    if (it == m_handoff.end())
        return std::nullopt;
    Handoff content = std::move(it->second);
    m_handoff.erase(it);
    emit handoffChanged();
    return content;
}

} // namespace zuv

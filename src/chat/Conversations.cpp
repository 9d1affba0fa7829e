// ChatModel: the list of conversations and the loaded messages, kept in step
// with the hub. The hub is the truth; local echoes and optimistic renames and
// deletions run ahead of it.
#include "chat/ChatModel.h"

#include "app/AppActivity.h"
#include "base/Json.h"
#include "notify/Notifier.h"

#include <QCoreApplication>
#include <QPointer>

#include <algorithm>

namespace zuv {

namespace {

using ConversationsReply = json::Field<std::vector<Conversation>, "conversations">;
using HistoryReply = json::Field<std::vector<Entry>, "entries">;
using SearchReply = json::Field<std::vector<ArchivedMessage>, "results">;

} // namespace

const EntryList *ChatModel::entries(const QString &conversation) const
{
    const auto it = m_entries.find(conversation);
    return it == m_entries.end() ? nullptr : &it->second;
}

Conversation *ChatModel::conversation(const QString &id)
{
    const auto it = std::find_if(m_conversations.begin(), m_conversations.end(),
                                 [&id](const Conversation &c) { return c.id == id; });
    return it == m_conversations.end() ? nullptr : &*it;
}

void ChatModel::setVisible(const std::optional<QString> &conversation)
{
    if (m_visible == conversation)
        return;
    m_visible = conversation;
    emit visibleChanged();
}

void ChatModel::setUnread(const QString &id, bool unread)
{
    Conversation *c = conversation(id);
    if (!c || c->unread == unread)
        return;
    c->unread = unread;
    emit conversationsChanged();
}

void ChatModel::stopWaiting(const QString &id)
{
    const bool changed = m_waiting.remove(id) | m_steps.remove(id);
    if (changed)
        emit waitingChanged();
}

QCoro::Task<void> ChatModel::reloadConversations(bool quiet)
{
    QPointer<ChatModel> self(this);
    std::optional<QString> failure;
    std::vector<Conversation> list;
    try {
        list = (co_await m_api.get<ConversationsReply>(QStringLiteral("/app/conversations"), m_lifetime)).value;
    } catch (const std::exception &e) {
        failure = describe(e);
    }
    if (!self || m_lifetime.isCancelled())
        co_return;
    if (failure) {
        if (m_conversations.empty() && !m_conversationsFailed) {
            m_conversationsFailed = true;
            emit conversationsChanged();
        }
        if (!quiet && !m_conversationsFailed)
            setError(*failure);
        co_return;
    }
    m_conversations = std::move(list);
    m_conversationsLoaded = true;
    m_conversationsFailed = false;
    emit conversationsChanged();
    // What the person is looking at is read as it comes.
    std::vector<QString> looking;
    if (m_visible && m_activity.isActive())
        looking.push_back(*m_visible);
    if (m_quickAsk) {
        if (const auto quick = m_quickAsk())
            looking.push_back(*quick);
    }
    for (const QString &id : looking) {
        const Conversation *c = conversation(id);
        if (c && c->unread.value_or(false))
            markSeen(id);
    }
}

void ChatModel::reloadQuietly()
{
    if (m_quietReloads.isRunning()) {
        m_reloadAgain = true; // one more round after the running one covers this change too
        return;
    }
    m_quietReloads = Job::start([this](CancelToken) { return quietReloads(); }, QStringLiteral("Reloading the list"));
}

QCoro::Task<void> ChatModel::quietReloads()
{
    QPointer<ChatModel> self(this);
    do {
        m_reloadAgain = false;
        co_await reloadConversations(true);
    } while (self && !m_lifetime.isCancelled() && m_reloadAgain);
}

QCoro::Task<void> ChatModel::reloadLoaded()
{
    QPointer<ChatModel> self(this);
    std::vector<QString> ids;
    for (const auto &[id, list] : m_entries)
        ids.push_back(id);
    for (const QString &id : ids) {
        co_await refresh(id);
        if (!self || m_lifetime.isCancelled())
            co_return;
    }
}

QCoro::Task<void> ChatModel::refresh(QString id)
{
    QPointer<ChatModel> self(this);
    std::optional<HistoryReply> reply;
    try {
        reply = co_await m_api.get<std::optional<HistoryReply>>(
            QStringLiteral("/app/history?conversation=") + id + QStringLiteral("&limit=60"), m_lifetime);
    } catch (const std::exception &) {
        reply.reset();
    }
    if (!self || m_lifetime.isCancelled())
        co_return;
    if (!reply) {
        // An existing copy stays on screen; with none there is nothing to show.
        if (!m_entries.contains(id) && !m_loadFailed.contains(id)) {
            m_loadFailed.insert(id);
            emit loadFailedChanged();
        }
        co_return;
    }
    if (m_loadFailed.remove(id))
        emit loadFailedChanged();

    // Merged with what the list holds now, after the wait: frames may have landed meanwhile.
    std::vector<Entry> fetched = std::move(reply->value);
    const double lastAt = fetched.empty() ? 0 : fetched.back().at;
    const bool lastFromAssistant = !fetched.empty() && fetched.back().role != QLatin1String("user");
    QSet<QString> fetchedIds;
    fetchedIds.reserve(qsizetype(fetched.size()));
    for (const Entry &e : fetched)
        fetchedIds.insert(e.id);
    const bool waiting = m_waiting.contains(id);
    bool keptUser = false;
    std::vector<Entry> merged = std::move(fetched);
    if (const EntryList *old = entries(id)) {
        for (const Entry &e : *old) {
            if (fetchedIds.contains(e.id))
                continue;
            const bool user = e.role == QLatin1String("user");
            // Newer than what the hub returned (an echo, a frame that crossed the
            // request), or a sent message that the hub does not show yet.
            if (lastAt < e.at || (user && waiting)) {
                keptUser = keptUser || user;
                merged.push_back(e);
            }
        }
    }
    m_entries[id].assign(std::move(merged));
    emit entriesChanged(id);
    // The assistant answered, though no frame said so.
    if (lastFromAssistant && !keptUser)
        stopWaiting(id);
}

void ChatModel::markSeen(const QString &id)
{
    m_notifier.clearConversation(id);
    setUnread(id, false);
    // Seen is a courtesy to the other devices: its reply and failure are ignored.
    spawn(postQuietly(&m_api, QStringLiteral("/app/seen"), QJsonObject{{QStringLiteral("conversation"), id}}, m_lifetime),
          QStringLiteral("Marking as seen"));
}

QString ChatModel::title(const QString &id) const
{
    const auto it = std::find_if(m_conversations.begin(), m_conversations.end(),
                                 [&id](const Conversation &c) { return c.id == id; });
    if (it != m_conversations.end())
        return it->title;
    return QCoreApplication::translate("ChatModel", "New Chat");
}

void ChatModel::bump(const QString &id, const Entry &entry)
{
    const auto it = std::find_if(m_conversations.begin(), m_conversations.end(),
                                 [&id](const Conversation &c) { return c.id == id; });
    if (it == m_conversations.end())
        return;
    // To the head; only those before it move.
    std::rotate(m_conversations.begin(), it, it + 1);
    Conversation &moved = m_conversations.front();
    moved.updatedAt = entry.at;
    // Cut by characters, never inside a surrogate pair, before anything is copied.
    qsizetype cut = 0;
    for (int n = 0; n < previewLength && cut < entry.text.size(); ++n)
        cut += (entry.text.at(cut).isHighSurrogate() && cut + 1 < entry.text.size()) ? 2 : 1;
    moved.preview = entry.text.left(cut);
    moved.preview.replace(QLatin1Char('\n'), QLatin1Char(' '));
    emit conversationsChanged();
}

QCoro::Task<void> ChatModel::rename(QString id, QString text)
{
    QPointer<ChatModel> self(this);
    const QString title = text.trimmed();
    if (title.isEmpty())
        co_return;
    if (Conversation *c = conversation(id)) {
        c->title = title;
        emit conversationsChanged();
    }
    // Built outside the co_await: GCC 12 rejects an initializer list inside one.
    QJsonObject body;
    body.insert(QStringLiteral("title"), title);
    const std::optional<QString> failure =
        co_await write(QStringLiteral("/app/conversations/") + id, QStringLiteral("PATCH"), body);
    if (self && failure && !m_lifetime.isCancelled())
        setError(*failure); // the local title stays until the next reload
}

void ChatModel::forget(const QString &id)
{
    const auto before = m_conversations.size();
    std::erase_if(m_conversations, [&id](const Conversation &c) { return c.id == id; });
    if (m_conversations.size() != before)
        emit conversationsChanged();
    if (m_entries.erase(id))
        emit entriesChanged(id);
    stopWaiting(id);
    if (!m_deleted.contains(id)) {
        m_deleted.insert(id);
        emit deletedChanged();
    }
    m_notifier.clearConversation(id);
}

QCoro::Task<void> ChatModel::deleteConversation(QString id)
{
    QPointer<ChatModel> self(this);
    forget(id);
    const std::optional<QString> failure =
        co_await write(QStringLiteral("/app/conversations/") + id, QStringLiteral("DELETE"), std::nullopt);
    if (self && failure && !m_lifetime.isCancelled())
        setError(*failure); // nothing is restored
}

QString ChatModel::transcript(const QString &id) const
{
    const EntryList *list = entries(id);
    if (!list)
        return {};
    QStringList lines;
    for (const Entry &e : *list) {
        const QString who = e.role == QLatin1String("user") ? QCoreApplication::translate("ChatModel", "Me")
                                                            : QStringLiteral("Zuv");
        lines << who + QStringLiteral(": ") + e.text;
    }
    return lines.join(QStringLiteral("\n\n"));
}

QCoro::Task<std::vector<ArchivedMessage>> ChatModel::search(QString query)
{
    QString encoded = MacAPI::encodeQueryValue(query);
    if (encoded.isEmpty())
        encoded = query;
    std::vector<ArchivedMessage> results;
    try {
        const auto reply = co_await m_api.get<std::optional<SearchReply>>(
            QStringLiteral("/app/search?q=") + encoded + QStringLiteral("&limit=30"), m_lifetime);
        if (reply)
            results = reply->value;
    } catch (const std::exception &) {
        results.clear();
    }
    co_return results;
}

} // namespace zuv

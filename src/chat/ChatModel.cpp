// The chat socket and what its frames change. Conversations, sending and
// sessions live in the files named after them.
#include "chat/ChatModel.h"

#include "app/AppActivity.h"
#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Keychain.h"
#include "chat/ChatConnection.h"
#include "chat/Envelope.h"
#include "notify/Notifier.h"
#include "platform/Badge.h"

#include <QJsonObject>
#include <QPointer>
#include <QWebSocket>
#include <QCoro/QCoroSignal>

#include <algorithm>

namespace zuv {

QCoro::Task<void> postQuietly(MacAPI *api, QString path, QJsonObject body, CancelToken token)
{
    try {
        co_await api->call<MacAPI::Ignored>(std::move(path), QStringLiteral("POST"), body, 60, std::move(token));
    } catch (const std::exception &) {
        // Its caller said the answer does not matter.
    }
}

ChatModel::ChatModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api, Notifier &notifier,
                     Badge &badge, AppActivity &activity, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_keychain(keychain), m_api(api), m_notifier(notifier),
      m_badge(badge), m_activity(activity)
{
    const auto stored = m_defaults.object(QString::fromLatin1(seenKey));
    if (stored.present()) {
        for (auto it = stored.value.begin(); it != stored.value.end(); ++it) {
            if (it->isDouble())
                m_seen.insert(it.key(), it->toDouble());
        }
    }
    m_notifier.setScreen({[this] { return m_activity.isActive(); }, [this] { return m_visible; },
                          [this] { return m_visibleSession; },
                          [this] { return m_quickAsk ? m_quickAsk() : std::nullopt; }});
}

ChatModel::~ChatModel()
{
    m_notifier.setScreen({}); // its questions lead here
    m_lifetime.cancel();
    m_socketTask.cancel();
    // Ends the open connection now, while the model still stands, so that the
    // loop's last steps run against a whole object.
    if (m_connection)
        m_connection->close();
}

void ChatModel::start()
{
    if ((m_socketTask.isRunning() && !m_socketTask.isCancelled()) || !m_keychain.token())
        return;
    m_socketTask = Job::start([this](CancelToken token) { return socketLoop(std::move(token)); },
                              QStringLiteral("The chat socket"));
    spawn(reloadConversations(false), QStringLiteral("Loading the conversations"));
    if (!m_observing) {
        m_observing = true;
        connect(&m_activity, &AppActivity::becameActive, this, &ChatModel::becameActive);
    }
}

void ChatModel::stop()
{
    m_socketTask.cancel();
    m_socketTask = Job();
    setLive(false);
}

void ChatModel::becameActive()
{
    if (!started() || m_catchUp.isRunning())
        return;
    m_catchUp = Job::start([this](CancelToken) { return catchUp(); }, QStringLiteral("Catching up"));
}

QCoro::Task<void> ChatModel::catchUp()
{
    QPointer<ChatModel> self(this);
    co_await reloadConversations(true);
    if (!self)
        co_return;
    co_await reloadLoaded();
    if (!self)
        co_return;
    co_await reloadSessions();
}

QCoro::Task<void> ChatModel::socketLoop(CancelToken token)
{
    QPointer<ChatModel> self(this);
    double delay = 1.0;
    bool first = true;
    for (;;) {
        const Attempt attempt = co_await connectOnce(first, token);
        if (!self || token.isCancelled())
            co_return;
        if (attempt.tookPing)
            first = false;
        if (attempt.heard)
            delay = 1.0; // the back-off ends at the first frame heard, not at the handshake
        setLive(false);
        if (attempt.unauthorized)
            m_api.clearAccess(); // the next attempt exchanges a new token
        const bool waited = co_await m_clock.sleep(delay, token);
        if (!self || !waited || token.isCancelled())
            co_return;
        delay = std::min(2 * delay, longestDelay);
    }
}

QCoro::Task<ChatModel::Attempt> ChatModel::connectOnce(bool first, CancelToken token)
{
    QPointer<ChatModel> self(this);
    Attempt attempt;
    std::unique_ptr<QWebSocket> socket;
    bool failed = false;
    try {
        socket = co_await m_api.socket();
    } catch (const MacAPI::Failure &failure) {
        failed = true;
        attempt.unauthorized = failure.kind() == MacAPI::Failure::Kind::http && failure.status() == 401;
    } catch (const std::exception &) {
        failed = true;
    }
    if (failed || !self || token.isCancelled())
        co_return attempt;

    // Deleted later, never here: this coroutine resumes inside the socket's own signals.
    auto *connection = new ChatConnection(std::move(socket));
    m_connection = connection;
    QPointer<ChatConnection> guard(connection);
    const quint64 onCancel = token.onCancel([guard] {
        if (guard)
            QMetaObject::invokeMethod(guard.data(), [guard] { if (guard) guard->close(); }, Qt::QueuedConnection);
    });
    // A frame that comes after a stop, before the close has gone out, is dropped.
    Attempt *heardBy = &attempt;
    connect(connection, &ChatConnection::text, this, [this, heardBy, token](const QByteArray &frame) {
        if (token.isCancelled())
            return;
        heard(heardBy);
        handle(frame);
    });
    connect(connection, &ChatConnection::binary, this, [this, heardBy, token] {
        if (!token.isCancelled())
            heard(heardBy);
    });

    if (!connection->isOpen() && !connection->hasEnded()) {
        auto settled = qCoro(connection, &ChatConnection::settled);
        co_await settled;
    }
    if (self && !token.isCancelled() && connection->isOpen()) {
        if (connection->ping()) {
            attempt.tookPing = true;
            spawn(afterConnect(first), QStringLiteral("Reloading after connecting"));
            if (!m_sessionsReload.isRunning())
                m_sessionsReload = Job::start([this](CancelToken) { return reloadSessionsAndPermissions(); },
                                              QStringLiteral("Reloading sessions"));
            m_lastHeard = m_clock.uptime();
            Job heartbeat = Job::start(
                [this, guard](CancelToken beatToken) { return beat(guard.data(), std::move(beatToken)); },
                QStringLiteral("The chat socket's heartbeat"));
            if (!connection->hasEnded()) {
                auto ended = qCoro(connection, &ChatConnection::ended);
                co_await ended;
            }
            heartbeat.cancel();
        }
    }
    attempt.unauthorized = attempt.unauthorized || connection->unauthorized();
    token.removeHandler(onCancel);
    connection->close();
    if (self && m_connection == connection)
        m_connection = nullptr;
    connection->disconnect(self.data());
    connection->deleteLater();
    co_return attempt;
}

void ChatModel::heard(Attempt *attempt)
{
    m_lastHeard = m_clock.uptime();
    if (!attempt->heard) {
        attempt->heard = true;
        setLive(true); // and the back-off starts over when this connection ends
    }
}

QCoro::Task<void> ChatModel::beat(ChatConnection *raw, CancelToken token)
{
    QPointer<ChatModel> self(this);
    QPointer<ChatConnection> connection(raw);
    for (;;) {
        const bool waited = co_await m_clock.sleep(heartbeat, token);
        if (!waited || !self || !connection || token.isCancelled())
            co_return;
        if (m_clock.uptime() - m_lastHeard > stallLimit) {
            connection->close(); // the loop sees the end and dials again
            co_return;
        }
        connection->ping(); // a failure shows as silence, which the test above catches
    }
}

QCoro::Task<void> ChatModel::afterConnect(bool first)
{
    QPointer<ChatModel> self(this);
    co_await reloadConversations(!first);
    if (!self || first)
        co_return;
    co_await reloadLoaded();
}

QCoro::Task<void> ChatModel::reloadSessionsAndPermissions()
{
    QPointer<ChatModel> self(this);
    co_await reloadSessions();
    if (!self)
        co_return;
    co_await reloadPermissions();
}

bool ChatModel::gone(const MacAPI::Failure &failure)
{
    return failure.kind() == MacAPI::Failure::Kind::http && failure.status() == 404
        && (failure.code() == QLatin1String("SESSION_GONE") || failure.code() == QLatin1String("DEVICE_NOT_FOUND"));
}

QCoro::Task<std::optional<QString>> ChatModel::write(QString path, QString method, std::optional<QJsonValue> body,
                                                     bool goneIsDone)
{
    std::optional<QString> failure;
    try {
        co_await m_api.call<MacAPI::Ignored>(std::move(path), std::move(method), std::move(body), 60, m_lifetime);
    } catch (const MacAPI::Failure &f) {
        if (!(goneIsDone && gone(f)))
            failure = f.localizedDescription();
    } catch (const std::exception &e) {
        failure = describe(e);
    }
    co_return failure;
}

void ChatModel::setLive(bool live)
{
    if (m_live == live)
        return;
    m_live = live;
    emit liveChanged(live);
}

// --- Frames

void ChatModel::handle(const QByteArray &frame)
{
    const std::optional<Envelope> decoded = Envelope::decode(frame);
    if (!decoded)
        return;
    const Envelope &e = *decoded;
    if (e.kind == QLatin1String("message")) {
        if (e.entry)
            handleMessage(*e.entry);
    } else if (e.kind == QLatin1String("step")) {
        if (e.ref)
            handleStep(e.target.value_or(QString()), *e.ref, e.step);
    } else if (e.kind == QLatin1String("titles")) {
        // One look-up table per frame: a long list of titles costs its length, not
        // its length times the number of chats.
        QHash<QString, Conversation *> byId;
        byId.reserve(qsizetype(m_conversations.size()));
        for (Conversation &c : m_conversations) {
            if (!byId.contains(c.id))
                byId.insert(c.id, &c);
        }
        bool changed = false;
        for (const auto &item : e.titles.value_or(std::vector<Envelope::Title>())) {
            Conversation *c = byId.value(item.id);
            if (!item.title.isEmpty() && c && c->title != item.title) {
                c->title = item.title;
                changed = true;
            }
        }
        if (changed)
            emit conversationsChanged();
    } else if (e.kind == QLatin1String("seen")) {
        if (e.conversation)
            setUnread(*e.conversation, false);
    } else if (e.kind == QLatin1String("stopped")) {
        if (e.conversation)
            stopWaiting(*e.conversation);
    } else if (e.kind == QLatin1String("deleted")) {
        if (e.conversation)
            forget(*e.conversation);
    } else if (e.kind == QLatin1String("cc")) {
        if (e.event)
            spawn(sessionEvent(e.event->type, e.event->sessionId), QStringLiteral("A session event"));
    } else if (e.kind == QLatin1String("perm")) {
        if (e.request)
            handlePermission(*e.request);
    }
}

void ChatModel::handleMessage(const Entry &entry)
{
    const QString conv = entry.conversation.value_or(QStringLiteral("main"));
    const QString channel = entry.channel.value_or(QStringLiteral("app"));
    const bool fromUser = entry.role == QLatin1String("user");
    const bool app = channel == QLatin1String("app");

    auto loaded = m_entries.find(conv);
    if (loaded != m_entries.end()) {
        loaded->second.upsert(entry);
        emit entriesChanged(conv);
    }
    if (fromUser && app && !m_waiting.contains(conv)) {
        m_waiting.insert(conv);
        emit waitingChanged();
    }
    if (!fromUser) {
        if (app && conv != QLatin1String("from-mac")) {
            const Conversation *c = conversation(conv);
            m_notifier.reply(entry, c ? c->title : QStringLiteral("Zuv"));
        }
        stopWaiting(conv);
        if (lookingAt(conv))
            markSeen(conv);
        else if (app)
            setUnread(conv, true);
    }
    const bool listed = conversation(conv) != nullptr;
    if (listed)
        bump(conv, entry);
    if (!(fromUser && listed))
        reloadQuietly(); // a reply changes previews and titles; a new chat is not listed yet
}

void ChatModel::handleStep(const QString &target, const QString &ref, const std::optional<QString> &step)
{
    if (target == QLatin1String("cc")) {
        if (step)
            m_sessionSteps.insert(ref, *step);
        else
            m_sessionSteps.remove(ref);
        emit sessionsChanged();
        return;
    }
    // A late step cannot bring back the line of a finished reply.
    if (!m_waiting.contains(ref))
        return;
    if (step)
        m_steps.insert(ref, *step);
    else
        m_steps.remove(ref);
    emit waitingChanged();
}

void ChatModel::handlePermission(const CcPermission &request)
{
    std::erase_if(m_permissions, [&request](const CcPermission &p) { return p.id == request.id; });
    if (request.status == QLatin1String("pending")) {
        m_permissions.push_back(request);
        m_notifier.permission(request);
    } else {
        m_notifier.clearPermission(request.id);
    }
    sessionsDidChange();
}

QCoro::Task<void> ChatModel::sessionEvent(QString type, QString sessionId)
{
    QPointer<ChatModel> self(this);
    co_await reloadSessions();
    if (!self || type != QLatin1String("stop"))
        co_return;
    // After the reload, so that the banner carries fresh values.
    if (const CcSession *s = session(sessionId))
        m_notifier.sessionDone(*s);
}

bool ChatModel::lookingAt(const QString &conv) const
{
    if (m_activity.isActive() && m_visible == conv)
        return true;
    return m_quickAsk && m_quickAsk() == conv;
}

void ChatModel::setError(const QString &text)
{
    m_error = text;
    emit errorChanged();
}

void ChatModel::clearError()
{
    if (!m_error)
        return;
    m_error.reset();
    emit errorChanged();
}

bool ChatModel::busy() const
{
    if (!m_waiting.isEmpty())
        return true;
    return std::any_of(m_sessions.begin(), m_sessions.end(), [](const CcSession &s) {
        return s.status == QLatin1String("busy") || s.status == QLatin1String("running");
    });
}

} // namespace zuv

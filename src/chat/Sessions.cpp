// ChatModel: agent sessions on the account's computers, the tool requests they
// wait on, and what of them needs the person.
#include "chat/ChatModel.h"

#include "app/AppActivity.h"
#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Json.h"
#include "notify/Notifier.h"
#include "platform/Badge.h"

#include <QJsonArray>
#include <QPointer>
#include <QUrl>

#include <algorithm>
#include <array>

namespace zuv {

namespace {

using SessionsReply = json::Field<std::vector<CcSession>, "sessions">;
using PermissionsReply = json::Field<std::vector<CcPermission>, "permissions">;

struct DetailReply {
    std::vector<CcItem> items;
    Lenient<CcSession> session;
    static DetailReply fromJson(const QJsonObject &o)
    {
        const auto result = json::required<QJsonObject>(o, QStringLiteral("result"));
        return {json::required<std::vector<CcItem>>(result, QStringLiteral("items")),
                json::lenient<CcSession>(result, QStringLiteral("session"))};
    }
};

// {"result": {"id": …}}
using NewReply = json::Field<json::Field<QString, "id">, "result">;

struct TerminalReply {
    std::optional<QString> app;
    static TerminalReply fromJson(const QJsonObject &o)
    {
        const auto result = json::optional<QJsonObject>(o, QStringLiteral("result"));
        return {result ? json::optional<QString>(*result, QStringLiteral("app")) : std::nullopt};
    }
};

// Percent-encoded with nothing but letters and digits left as they are.
QString alphanumeric(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value, QByteArray(), QByteArrayLiteral("-._~")));
}

} // namespace

const CcSession *ChatModel::session(const QString &id) const
{
    const auto it = std::find_if(m_sessions.begin(), m_sessions.end(), [&id](const CcSession &s) { return s.id == id; });
    return it == m_sessions.end() ? nullptr : &*it;
}

double ChatModel::activity(const CcSession &session) { return session.updatedAt.value_or(session.startedAt); }

std::optional<QString> ChatModel::device(const QString &id) const
{
    const CcSession *s = session(id);
    return s ? s->device : std::nullopt;
}

QString ChatModel::deviceQuery(const QString &id) const
{
    const auto d = device(id);
    if (!d)
        return {};
    return QStringLiteral("&device=") + alphanumeric(*d);
}

void ChatModel::setVisibleSession(const std::optional<QString> &id)
{
    if (m_visibleSession != id) {
        m_visibleSession = id;
        emit visibleChanged();
    }
    if (id)
        markSessionSeen(*id);
}

QCoro::Task<void> ChatModel::reloadSessions()
{
    QPointer<ChatModel> self(this);
    static constexpr std::array<double, 6> waits{0, 2, 4, 8, 15, 30};
    for (const double wait : waits) {
        if (wait > 0) {
            co_await m_clock.sleep(wait, m_lifetime);
            if (!self || m_lifetime.isCancelled())
                co_return;
        }
        std::optional<SessionsReply> reply;
        try {
            reply = co_await m_api.get<std::optional<SessionsReply>>(QStringLiteral("/app/cc/sessions"), m_lifetime);
        } catch (const std::exception &) {
            reply.reset();
        }
        if (!self || m_lifetime.isCancelled())
            co_return;
        if (reply) {
            m_sessions = std::move(reply->value);
            m_sessionsLoaded = true;
            break;
        }
    }
    sessionsDidChange();
}

void ChatModel::sessionsDidChange()
{
    // On a first run everything that exists counts as seen.
    if (m_defaults.value(QString::fromLatin1(seenKey)).isUndefined() && !m_sessions.empty()) {
        for (const CcSession &s : m_sessions)
            m_seen.insert(s.id, activity(s));
        storeSeen();
    }
    if (m_visibleSession && m_activity.isActive())
        markSessionSeen(*m_visibleSession);
    showBadge();
    emit sessionsChanged();
}

void ChatModel::markSessionSeen(const QString &id)
{
    const CcSession *s = session(id);
    if (!s)
        return;
    const double t = activity(*s);
    const auto it = m_seen.constFind(id);
    if ((it != m_seen.constEnd() && t <= *it) || (it == m_seen.constEnd() && t <= 0))
        return; // the mark never moves backwards
    m_seen.insert(id, t);
    storeSeen();
    showBadge();
    emit sessionsChanged();
}

void ChatModel::storeSeen()
{
    QJsonObject stored;
    for (auto it = m_seen.constBegin(); it != m_seen.constEnd(); ++it)
        stored.insert(it.key(), it.value());
    m_defaults.set(QString::fromLatin1(seenKey), stored);
}

void ChatModel::showBadge() { m_badge.setCount(needsYouCount()); }

QCoro::Task<ChatModel::Detail> ChatModel::sessionDetail(QString id)
{
    Detail detail;
    try {
        const DetailReply reply = co_await m_api.get<DetailReply>(
            QStringLiteral("/app/cc/session?id=") + id + deviceQuery(id), m_lifetime);
        detail.kind = Detail::Kind::loaded;
        detail.items = reply.items;
        detail.session = reply.session.value;
    } catch (const MacAPI::Failure &failure) {
        detail.kind = gone(failure) ? Detail::Kind::gone : Detail::Kind::failed;
        if (failure.kind() == MacAPI::Failure::Kind::http)
            detail.failure = failure;
        detail.message = failure.localizedDescription();
    } catch (const std::exception &e) {
        detail.kind = Detail::Kind::failed;
        detail.message = describe(e);
    }
    co_return detail;
}

void ChatModel::noteDetail(const CcSession &detail)
{
    const CcSession *listed = session(detail.id);
    if (!listed || listed->status == detail.status)
        return;
    if (m_clock.uptime() - m_lastStatusSync <= 10)
        return;
    m_lastStatusSync = m_clock.uptime();
    spawn(reloadSessions(), QStringLiteral("Reloading sessions"));
}

QCoro::Task<std::optional<QString>> ChatModel::newSession(QString cwd, QString prompt, QString agent, QString model,
                                                          QString effort, std::optional<QString> device)
{
    QPointer<ChatModel> self(this);
    QJsonObject body;
    body.insert(QStringLiteral("cwd"), cwd);
    body.insert(QStringLiteral("prompt"), prompt);
    body.insert(QStringLiteral("agent"), agent);
    body.insert(QStringLiteral("model"), model);
    body.insert(QStringLiteral("effort"), effort);
    if (device && !device->isEmpty())
        body.insert(QStringLiteral("device"), *device);
    std::optional<QString> id;
    std::optional<QString> failure;
    try {
        id = (co_await m_api.call<NewReply>(QStringLiteral("/app/cc/new"), QStringLiteral("POST"), body, 60,
                                            m_lifetime)).value.value;
    } catch (const std::exception &e) {
        failure = describe(e);
    }
    if (!self || m_lifetime.isCancelled())
        co_return std::nullopt;
    if (failure) {
        setError(*failure);
        co_return std::nullopt;
    }
    co_await reloadSessions();
    co_return id;
}

QCoro::Task<bool> ChatModel::reply(QString text, std::vector<OutgoingFile> files, QString id)
{
    QPointer<ChatModel> self(this);
    std::optional<QString> failure;
    QJsonArray uploaded;
    try {
        for (const OutgoingFile &f : files) {
            const Entry::File done = co_await m_api.upload(f.path, f.name, f.mime, m_lifetime);
            if (!self)
                co_return false;
            uploaded.append(done.toJson());
        }
    } catch (const std::exception &e) {
        failure = describe(e);
    }
    if (!failure) {
        QJsonObject body;
        body.insert(QStringLiteral("id"), id);
        body.insert(QStringLiteral("text"), text);
        if (const auto d = device(id); d && !d->isEmpty())
            body.insert(QStringLiteral("device"), *d);
        if (!uploaded.isEmpty())
            body.insert(QStringLiteral("files"), uploaded);
        failure = co_await write(QStringLiteral("/app/cc/reply"), QStringLiteral("POST"), body);
    }
    if (!self || m_lifetime.isCancelled())
        co_return false;
    if (failure) {
        setError(*failure);
        co_return false;
    }
    for (const OutgoingFile &f : files)
        f.discard();
    co_await reloadSessions();
    co_return true;
}

namespace {

QJsonObject idAndDevice(const QString &id, const std::optional<QString> &device)
{
    QJsonObject body{{QStringLiteral("id"), id}};
    if (device && !device->isEmpty())
        body.insert(QStringLiteral("device"), *device);
    return body;
}

} // namespace

void ChatModel::stopSession(const QString &id)
{
    // The session's own status tells whether it stopped.
    spawn(postQuietly(&m_api, QStringLiteral("/app/cc/stop"), idAndDevice(id, device(id)), m_lifetime),
          QStringLiteral("Stopping a session"));
}

QCoro::Task<bool> ChatModel::removeSession(QString id)
{
    QPointer<ChatModel> self(this);
    // A session or computer that is gone already is removed all the same.
    const std::optional<QString> failure =
        co_await write(QStringLiteral("/app/cc/remove"), QStringLiteral("POST"), idAndDevice(id, device(id)), true);
    if (!self || m_lifetime.isCancelled())
        co_return false;
    if (failure) {
        setError(*failure);
        co_return false;
    }
    std::erase_if(m_sessions, [&id](const CcSession &s) { return s.id == id; });
    sessionsDidChange();
    spawn(reloadSessions(), QStringLiteral("Reloading sessions"));
    co_return true;
}

QCoro::Task<QString> ChatModel::openInTerminal(QString id)
{
    QPointer<ChatModel> self(this);
    const TerminalReply reply = co_await m_api.call<TerminalReply>(
        QStringLiteral("/app/cc/terminal"), QStringLiteral("POST"), idAndDevice(id, device(id)), 60, m_lifetime);
    if (self)
        co_await reloadSessions();
    co_return reply.app.value_or(QStringLiteral("Terminal"));
}

QCoro::Task<CcChanges> ChatModel::changes(QString id)
{
    const auto reply = co_await m_api.get<json::Field<CcChanges, "result">>(QStringLiteral("/app/cc/changes?id=") + id + deviceQuery(id),
                                                             m_lifetime);
    co_return reply.value;
}

QCoro::Task<std::vector<CcProject>> ChatModel::projects(std::optional<QString> device)
{
    QString path = QStringLiteral("/app/cc/projects");
    if (device)
        path += QStringLiteral("?device=") + alphanumeric(*device);
    const auto reply = co_await m_api.get<json::Field<std::vector<CcProject>, "result">>(path, m_lifetime);
    co_return reply.value;
}

// --- Tool requests

QCoro::Task<void> ChatModel::reloadPermissions()
{
    QPointer<ChatModel> self(this);
    std::optional<PermissionsReply> reply;
    try {
        reply = co_await m_api.get<std::optional<PermissionsReply>>(QStringLiteral("/app/cc/permissions"), m_lifetime);
    } catch (const std::exception &) {
        reply.reset(); // the list stays as it is
    }
    if (!self || m_lifetime.isCancelled())
        co_return;
    if (reply) {
        m_permissions.clear();
        for (CcPermission &p : reply->value) {
            if (p.status == QLatin1String("pending"))
                m_permissions.push_back(std::move(p));
        }
    }
    sessionsDidChange();
}

QCoro::Task<void> ChatModel::answer(QString id, bool allow)
{
    QPointer<ChatModel> self(this);
    QJsonObject body;
    body.insert(QStringLiteral("id"), id);
    body.insert(QStringLiteral("allow"), allow);
    const std::optional<QString> failure = co_await write(QStringLiteral("/app/cc/permission"), QStringLiteral("POST"), body);
    if (!self || m_lifetime.isCancelled())
        co_return;
    if (failure)
        setError(*failure); // the request comes back with the next reload
    std::erase_if(m_permissions, [&id](const CcPermission &p) { return p.id == id; });
    sessionsDidChange();
    m_notifier.clearPermission(id);
}

std::optional<ChatModel::NeedsYou> ChatModel::needsYou(const CcSession &s) const
{
    if (std::any_of(m_permissions.begin(), m_permissions.end(),
                    [&s](const CcPermission &p) { return p.sessionId == s.id; }))
        return NeedsYou::approval;
    if (s.status == QLatin1String("busy") || s.status == QLatin1String("running"))
        return std::nullopt;
    const double t = activity(s);
    const auto it = m_seen.constFind(s.id);
    if ((it != m_seen.constEnd() && t <= *it) || (it == m_seen.constEnd() && t <= 0))
        return std::nullopt;
    return s.status == QLatin1String("failed") ? NeedsYou::failed : NeedsYou::reply;
}

int ChatModel::needsYouCount() const
{
    return int(std::count_if(m_sessions.begin(), m_sessions.end(),
                             [this](const CcSession &s) { return needsYou(s).has_value(); }));
}

} // namespace zuv

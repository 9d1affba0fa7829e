#include "notify/Notifier.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "hub/CcPermission.h"
#include "hub/CcSession.h"
#include "hub/Entry.h"
#include "platform/NotificationCenter.h"

#include <QRegularExpression>

#include <cmath>

namespace zuv {

namespace {

const QString enabledKey = QStringLiteral("mac-notifications");

std::optional<QString> stringIn(const QVariantMap &map, const QString &key)
{
    const QVariant value = map.value(key);
    if (value.typeId() != QMetaType::QString)
        return std::nullopt;
    return value.toString();
}

} // namespace

Notifier::Notifier(Clock &clock, Defaults &defaults, NotificationCenter &center, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_center(center)
{
    connect(&m_center, &NotificationCenter::activated, this, &Notifier::activated);
}

bool Notifier::enabled() const { return m_defaults.boolean(enabledKey).valueOr(true); }

QString Notifier::plain(const QString &text)
{
    static const QRegularExpression code(QStringLiteral("```[\\s\\S]*?```"));
    static const QRegularExpression link(QStringLiteral("\\[([^\\]]+)\\]\\([^)]*\\)"));
    static const QRegularExpression markup(QStringLiteral("[*_`#>]"));
    QString s = text;
    s.replace(code, QStringLiteral("(code)"));
    s.replace(link, QStringLiteral("\\1"));
    s.remove(markup);
    return s.trimmed().left(300);
}

void Notifier::reply(const Entry &entry, const QString &title)
{
    if (!enabled())
        return;
    const QString conversation = entry.conversation.value_or(QStringLiteral("main"));
    if (appActive() && m_screen.visibleConversation && m_screen.visibleConversation() == conversation)
        return;
    if (m_screen.quickAskConversation && m_screen.quickAskConversation() == conversation)
        return;
    const int files = entry.files ? int(entry.files->size()) : 0;
    NotificationCenter::Request r;
    r.identifier = QStringLiteral("reply-") + entry.id;
    r.thread = QStringLiteral("conv-") + conversation;
    r.title = title;
    r.body = plain(entry.text.isEmpty() ? tr("📎 %n file(s)", nullptr, files) : entry.text);
    r.userInfo.insert(QStringLiteral("conversation"), conversation);
    m_center.add(r);
}

void Notifier::permission(const CcPermission &request)
{
    if (!enabled())
        return; // whether the app is in front does not matter: someone must answer
    NotificationCenter::Request r;
    r.identifier = QStringLiteral("perm-") + request.id;
    r.thread = QStringLiteral("cc-") + request.sessionId;
    r.title = tr("%1: Claude wants to use %2").arg(request.project, request.tool);
    r.body = request.summary;
    r.userInfo.insert(QStringLiteral("permission"), request.id);
    r.userInfo.insert(QStringLiteral("session"), request.sessionId);
    r.actions = {{QStringLiteral("ALLOW"), tr("Allow")}, {QStringLiteral("DENY"), tr("Deny")}};
    r.urgent = true;
    m_center.add(r);
}

void Notifier::sessionDone(const CcSession &session)
{
    if (!enabled())
        return;
    if (appActive() && m_screen.visibleSession && m_screen.visibleSession() == session.id)
        return;
    NotificationCenter::Request r;
    r.identifier = QStringLiteral("cc-%1-%2").arg(session.id).arg(qint64(std::floor(m_clock.now())));
    r.thread = QStringLiteral("cc-") + session.id;
    r.title = session.agent == QLatin1String("codex") ? tr("%1: Codex is done").arg(session.project)
                                                      : tr("%1: Claude is done").arg(session.project);
    r.body = plain(session.lastReply.value_or(session.title.value_or(session.project)));
    r.userInfo.insert(QStringLiteral("session"), session.id);
    r.sound = false;
    m_center.add(r);
}

void Notifier::clipboard(const QString &from, const QString &kind, int count, const std::optional<QString> &text)
{
    if (!enabled())
        return;
    NotificationCenter::Request r;
    r.identifier = QStringLiteral("clipboard-%1").arg(qint64(std::floor(m_clock.now() * 1000)));
    r.thread = QStringLiteral("clipboard");
    r.title = tr("Clipboard from %1").arg(from);
    if (kind == QLatin1String("image"))
        r.body = tr("A picture. Press Ctrl+V to paste it.");
    else if (kind == QLatin1String("files") && count == 1)
        r.body = tr("A file, saved to Downloads. Press Ctrl+V in the file manager to copy it.");
    else if (kind == QLatin1String("files"))
        r.body = tr("%n files, saved to Downloads. Press Ctrl+V in the file manager to copy them.", nullptr, count);
    else if (text)
        r.body = tr("%1\n\nPress Ctrl+V to paste it.").arg(text->trimmed().left(160));
    else
        r.body = tr("Text. Press Ctrl+V to paste it.");
    r.sound = false;
    m_center.add(r);
}

void Notifier::clearConversation(const QString &conversation)
{
    // Clearing is not a banner: it happens with banners turned off too.
    m_center.remove(m_center.delivered(QStringLiteral("conv-") + conversation));
}

void Notifier::clearPermission(const QString &request) { m_center.remove({QStringLiteral("perm-") + request}); }

void Notifier::activated(const QString &, const QString &action, const QVariantMap &userInfo)
{
    const auto permission = stringIn(userInfo, QStringLiteral("permission"));
    if (permission && (action == QLatin1String("ALLOW") || action == QLatin1String("DENY"))) {
        emit answer(*permission, action == QLatin1String("ALLOW"));
        return;
    }
    emit open(stringIn(userInfo, QStringLiteral("conversation")), stringIn(userInfo, QStringLiteral("session")));
}

} // namespace zuv

#include "surface/Sidebar.h"

#include "chat/ChatModel.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>

namespace zuv {

bool Sidebar::working(const CcSession &session)
{
    return session.status == QLatin1String("busy") || session.status == QLatin1String("running");
}

bool Sidebar::matches(const CcSession &session, const QString &query)
{
    const QString q = query.trimmed();
    if (q.isEmpty())
        return true;
    const QString title = session.title.value_or(session.project);
    return title.contains(q, Qt::CaseInsensitive) || session.project.contains(q, Qt::CaseInsensitive)
        || session.lastReply.value_or(QString()).contains(q, Qt::CaseInsensitive);
}

std::vector<Conversation> Sidebar::filtered(const std::vector<Conversation> &conversations, const QString &query)
{
    const QString q = query.trimmed();
    if (q.isEmpty())
        return conversations;
    std::vector<Conversation> out;
    for (const Conversation &c : conversations)
        if (c.title.contains(q, Qt::CaseInsensitive) || c.preview.contains(q, Qt::CaseInsensitive))
            out.push_back(c);
    return out;
}

std::vector<Sidebar::Scheduled> Sidebar::scheduledSessions(const std::optional<Overview> &overview, const QString &query)
{
    std::vector<Scheduled> out;
    if (!overview)
        return out;
    for (const Overview::Schedule &s : overview->schedules) {
        if (!s.target || !s.enabled || !s.nextAt)
            continue;
        if (!query.isEmpty() && !s.prompt.contains(query, Qt::CaseInsensitive)
            && !QFileInfo(s.target->cwd).fileName().contains(query, Qt::CaseInsensitive))
            continue;
        out.push_back({s, *s.target});
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const Scheduled &a, const Scheduled &b) { return *a.schedule.nextAt < *b.schedule.nextAt; });
    return out;
}

Sidebar::Sections Sidebar::sections(const ChatModel &chat, const std::optional<Overview> &overview, const QString &query)
{
    Sections out;
    for (const CcSession &s : chat.sessions()) {
        if (!matches(s, query))
            continue;
        if (chat.needsYou(s))
            out.needsYou.push_back(s);
        else if (working(s))
            out.working.push_back(s);
        else
            out.rest.push_back(s);
    }
    out.scheduled = scheduledSessions(overview, query);
    out.restTitle = out.needsYou.empty() && out.working.empty() && out.scheduled.empty()
        ? QCoreApplication::translate("Sidebar", "Agents")
        : QCoreApplication::translate("Sidebar", "Earlier");
    return out;
}

std::optional<QString> Sidebar::macName(const std::optional<QString> &device, const std::optional<QString> &thisMac,
                                        const std::optional<Me> &me)
{
    if (!device || device == thisMac || !me || !me->macs)
        return std::nullopt;
    for (const Me::Mac &mac : *me->macs)
        if (mac.id == *device)
            return mac.name;
    return std::nullopt;
}

} // namespace zuv

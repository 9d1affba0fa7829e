#include "settings/Overview.h"

#include "base/Json.h"

#include <QCoreApplication>

namespace zuv {

namespace {
QString tr(const char *text) { return QCoreApplication::translate("Overview", text); }
} // namespace

namespace json {
template<>
struct Decoder<ToolState> {
    static ToolState decode(const QJsonValue &v) { return toolStateFromJson(v); }
};
} // namespace json

ToolState toolStateFromJson(const QJsonValue &value)
{
    const QString word = json::decode<QString>(value);
    if (word == QLatin1String("ready"))
        return ToolState::ready;
    if (word == QLatin1String("signed-out"))
        return ToolState::signedOut;
    if (word == QLatin1String("missing"))
        return ToolState::missing;
    throw DecodingError(QStringLiteral("Unknown tool state \"%1\".").arg(word));
}

std::optional<QString> toolNote(ToolState state, const QString &tool, const QString &mac)
{
    const QString name = tool == QLatin1String("codex") ? QStringLiteral("Codex") : QStringLiteral("Claude Code");
    switch (state) {
    case ToolState::ready:
        return std::nullopt;
    case ToolState::signedOut:
        return tr("%1 isn't signed in on %2.").arg(name, mac);
    case ToolState::missing:
        return tr("%1 isn't installed on %2.").arg(name, mac);
    }
    return std::nullopt;
}

Overview::Agent Overview::Agent::fromJson(const QJsonObject &o)
{
    using namespace json;
    Agent a;
    a.online = required<bool>(o, QStringLiteral("online"));
    a.gateway = optional<bool>(o, QStringLiteral("gateway"));
    a.enabled = optional<bool>(o, QStringLiteral("enabled"));
    a.state = optional<QString>(o, QStringLiteral("state"));
    a.id = optional<QString>(o, QStringLiteral("id"));
    a.name = optional<QString>(o, QStringLiteral("name"));
    a.codex = optional<bool>(o, QStringLiteral("codex"));
    if (auto tools = optional<QJsonObject>(o, QStringLiteral("agents")))
        a.agents = Tools{optional<ToolState>(*tools, QStringLiteral("claude")),
                         optional<ToolState>(*tools, QStringLiteral("codex"))};
    return a;
}

Overview::Status Overview::Status::fromJson(const QJsonObject &o)
{
    using namespace json;
    Status s;
    s.mac = required<Agent>(o, QStringLiteral("mac"));
    s.cloud = required<Agent>(o, QStringLiteral("cloud"));
    s.stuck = optional<bool>(o, QStringLiteral("stuck"));
    s.queued = required<qint64>(o, QStringLiteral("queued"));
    s.models = optional<ModelCatalog>(o, QStringLiteral("models"));
    s.macs = optional<std::vector<Agent>>(o, QStringLiteral("macs"));
    return s;
}

std::optional<Overview::Agent> Overview::Status::macWith(const std::optional<QString> &id) const
{
    if (!id) {
        if (macs && !macs->empty())
            return macs->front();
        return mac;
    }
    if (macs)
        for (const auto &agent : *macs)
            if (agent.id == id)
                return agent;
    return std::nullopt;
}

Overview::Schedule Overview::Schedule::fromJson(const QJsonObject &o)
{
    using namespace json;
    Schedule s;
    s.id = required<QString>(o, QStringLiteral("id"));
    s.when = required<QString>(o, QStringLiteral("when"));
    s.spec = optional<ScheduleSpec>(o, QStringLiteral("spec"));
    s.prompt = required<QString>(o, QStringLiteral("prompt"));
    s.deliver = required<QString>(o, QStringLiteral("deliver"));
    s.nextAt = optional<double>(o, QStringLiteral("nextAt"));
    s.enabled = required<bool>(o, QStringLiteral("enabled"));
    s.target = optional<CcTarget>(o, QStringLiteral("target"));
    return s;
}

QString Overview::Schedule::description(const QLocale &locale) const { return spec ? spec->summary(locale) : when; }

QString Overview::Schedule::destination() const
{
    return deliver == QLatin1String("app") ? tr("To Zuv app") : tr("To Telegram");
}

QString Overview::Schedule::agentName() const
{
    if (!target)
        return {};
    return target->agent == QLatin1String("codex") ? QStringLiteral("Codex") : QStringLiteral("Claude Code");
}

bool Overview::Schedule::done() const { return spec && spec->kind == QLatin1String("once") && !nextAt; }

Overview::MemorySettings Overview::MemorySettings::fromJson(const QJsonObject &o)
{
    using namespace json;
    MemorySettings m;
    m.review = required<bool>(o, QStringLiteral("review"));
    m.enabled = optional<bool>(o, QStringLiteral("enabled"));
    if (auto last = optional<QJsonObject>(o, QStringLiteral("lastReview")))
        m.lastReview = Review{required<double>(*last, QStringLiteral("at")), required<QString>(*last, QStringLiteral("summary"))};
    return m;
}

Overview Overview::fromJson(const QJsonObject &o)
{
    using namespace json;
    Overview v;
    v.status = required<Status>(o, QStringLiteral("status"));
    v.schedules = required<std::vector<Schedule>>(o, QStringLiteral("schedules"));
    v.memory = required<std::vector<MemoryNote>>(o, QStringLiteral("memory"));
    v.memorySettings = optional<MemorySettings>(o, QStringLiteral("memorySettings"));
    return v;
}

Me Me::fromJson(const QJsonObject &o)
{
    using namespace json;
    Me me;
    const auto user = required<QJsonObject>(o, QStringLiteral("user"));
    me.user = {required<QString>(user, QStringLiteral("id")), optional<QString>(user, QStringLiteral("email")),
               optional<QString>(user, QStringLiteral("name"))};
    me.owner = required<bool>(o, QStringLiteral("owner"));
    if (auto t = optional<QJsonObject>(o, QStringLiteral("telegram")))
        me.telegram = Telegram{optional<QString>(*t, QStringLiteral("username")), required<bool>(*t, QStringLiteral("linked")),
                               optional<QString>(*t, QStringLiteral("linkCode")), optional<QString>(*t, QStringLiteral("link")),
                               optional<bool>(*t, QStringLiteral("builtIn"))};
    me.model = optional<QString>(o, QStringLiteral("model"));
    me.effort = optional<QString>(o, QStringLiteral("effort"));
    me.defaultModel = optional<QString>(o, QStringLiteral("defaultModel"));
    if (auto macs = optional<std::vector<QJsonObject>>(o, QStringLiteral("macs"))) {
        me.macs.emplace();
        for (const auto &m : *macs)
            me.macs->push_back({required<QString>(m, QStringLiteral("id")), required<QString>(m, QStringLiteral("name")),
                                optional<bool>(m, QStringLiteral("online")), optional<bool>(m, QStringLiteral("primary")),
                                optional<bool>(m, QStringLiteral("builtIn"))});
    }
    return me;
}

} // namespace zuv

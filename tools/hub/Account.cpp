// The account's paths of zuv-hub: schedules, memory notes and their settings, the
// assistant's model, Telegram's link as a record, and deleting the account.
#include "Hub.h"
#include "Wire.h"

#include <QDateTime>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTimeZone>

namespace zuv::hub {

namespace {

// The next run of a schedule after `now` (ms), or none; local time of this machine.
std::optional<double> nextRun(const QJsonObject &spec, double now)
{
    const QDateTime from = QDateTime::fromMSecsSinceEpoch(qint64(now));
    const QString kind = string(spec, "kind");
    if (kind == QLatin1String("interval")) {
        const double minutes = spec.value(QStringLiteral("minutes")).toDouble();
        return minutes >= 1 ? std::optional<double>(now + minutes * 60000) : std::nullopt;
    }
    if (kind == QLatin1String("once")) {
        const QDateTime at = QDateTime::fromString(string(spec, "at"), Qt::ISODateWithMs);
        return at.isValid() && at > from ? std::optional<double>(double(at.toMSecsSinceEpoch())) : std::nullopt;
    }
    const QTime time = QTime::fromString(string(spec, "time"), QStringLiteral("HH:mm"));
    if (!time.isValid() || (kind != QLatin1String("daily") && kind != QLatin1String("weekly")))
        return std::nullopt;
    QList<int> days; // 0 is Sunday
    for (const QJsonValue &d : spec.value(QStringLiteral("days")).toArray())
        days << d.toInt(-1);
    for (int ahead = 0; ahead <= 7; ++ahead) {
        const QDateTime candidate(from.date().addDays(ahead), time);
        if (candidate <= from)
            continue;
        if (kind == QLatin1String("weekly") && !days.contains(candidate.date().dayOfWeek() % 7))
            continue;
        return double(candidate.toMSecsSinceEpoch());
    }
    return std::nullopt;
}

bool validSpec(const QJsonObject &spec)
{
    static const QStringList kinds = {QStringLiteral("once"), QStringLiteral("daily"), QStringLiteral("weekly"),
                                      QStringLiteral("interval")};
    return kinds.contains(string(spec, "kind"));
}

} // namespace

Hub::Reply Hub::account(const QString &method, const QString &path, const QJsonObject &body)
{
    const auto notFound = [] { return error(404, QStringLiteral("No such record."), QStringLiteral("NOT_FOUND")); };
    // Schedules
    if (path == QLatin1String("/app/schedules") || path.startsWith(QLatin1String("/app/schedules/"))) {
        const QString id = path.mid(15);
        std::optional<QJsonObject> record;
        if (method == QLatin1String("POST") && id.isEmpty()) {
            record = QJsonObject{{QStringLiteral("id"), newId(QStringLiteral("sch"))}, {QStringLiteral("enabled"), true},
                                 {QStringLiteral("deliver"), QStringLiteral("app")}};
        } else if (!id.isEmpty() && (method == QLatin1String("PATCH") || method == QLatin1String("DELETE"))) {
            record = m_store.get(QStringLiteral("schedule"), id);
            if (!record)
                return notFound();
            if (method == QLatin1String("DELETE")) {
                m_store.remove(QStringLiteral("schedule"), id);
                return {200, {}};
            }
        } else {
            return error(405, QStringLiteral("%1 is not used on %2.").arg(method, path), QStringLiteral("BAD_METHOD"));
        }
        if (body.contains(QStringLiteral("prompt"))) {
            const QString prompt = string(body, "prompt").trimmed();
            if (prompt.isEmpty() || prompt.size() > 4000)
                return error(400, QStringLiteral("A prompt is 1 to 4,000 characters."), QStringLiteral("BAD_PROMPT"));
            record->insert(QStringLiteral("prompt"), prompt);
        }
        if (body.contains(QStringLiteral("spec"))) {
            const QJsonObject spec = body.value(QStringLiteral("spec")).toObject();
            if (!validSpec(spec))
                return error(400, QStringLiteral("A schedule runs once, daily, weekly or at an interval."), QStringLiteral("BAD_SPEC"));
            record->insert(QStringLiteral("spec"), spec);
            record->insert(QStringLiteral("when"), string(spec, "kind"));
        }
        if (body.value(QStringLiteral("deliver")).isString())
            record->insert(QStringLiteral("deliver"), string(body, "deliver").left(20));
        if (body.value(QStringLiteral("enabled")).isBool())
            record->insert(QStringLiteral("enabled"), body.value(QStringLiteral("enabled")));
        if (body.contains(QStringLiteral("target"))) {
            const QJsonValue target = body.value(QStringLiteral("target"));
            if (target.isNull())
                record->remove(QStringLiteral("target"));
            else if (target.isObject() && target.toObject().value(QStringLiteral("cwd")).isString())
                record->insert(QStringLiteral("target"), target);
            else
                return error(400, QStringLiteral("A target is an agent session {kind, cwd, agent, model}."), QStringLiteral("BAD_TARGET"));
        }
        if (!record->value(QStringLiteral("prompt")).isString() || !record->value(QStringLiteral("spec")).isObject())
            return error(400, QStringLiteral("A schedule needs a prompt and a spec."), QStringLiteral("INCOMPLETE"));
        const auto next = nextRun(record->value(QStringLiteral("spec")).toObject(), now());
        if (next)
            record->insert(QStringLiteral("nextAt"), *next);
        else
            record->remove(QStringLiteral("nextAt"));
        m_store.put(QStringLiteral("schedule"), string(*record, "id"), *record, QString(), now());
        return {200, QJsonObject{{QStringLiteral("schedule"), *record}}};
    }
    // Memory notes and their settings
    if (path == QLatin1String("/app/memory") || path.startsWith(QLatin1String("/app/memory/"))) {
        const QString id = path.mid(12);
        std::optional<QJsonObject> note;
        if (method == QLatin1String("POST") && id.isEmpty())
            note = QJsonObject{{QStringLiteral("id"), newId(QStringLiteral("n"))}, {QStringLiteral("at"), now()},
                               {QStringLiteral("source"), QStringLiteral("app")}};
        else if (!id.isEmpty())
            note = m_store.get(QStringLiteral("memory"), id);
        if (!note)
            return notFound();
        if (method == QLatin1String("DELETE")) {
            m_store.remove(QStringLiteral("memory"), string(*note, "id"));
            return {200, {}};
        }
        const QString text = string(body, "text").trimmed();
        if (text.isEmpty() || text.size() > 4000)
            return error(400, QStringLiteral("A note is 1 to 4,000 characters."), QStringLiteral("BAD_TEXT"));
        note->insert(QStringLiteral("text"), text);
        note->insert(QStringLiteral("kind"), string(body, "kind").left(40));
        note->insert(QStringLiteral("updatedAt"), now());
        m_store.put(QStringLiteral("memory"), string(*note, "id"), *note, QString(), note->value(QStringLiteral("at")).toDouble());
        return {200, QJsonObject{{QStringLiteral("note"), *note}}};
    }
    if (path == QLatin1String("/app/memory-settings") && method == QLatin1String("PUT")) {
        QJsonObject settings = m_store.get(QStringLiteral("setting"), QStringLiteral("memory"))
                                   .value_or(QJsonObject{{QStringLiteral("review"), false}, {QStringLiteral("enabled"), true}});
        for (const char *key : {"review", "enabled"})
            if (body.value(QLatin1String(key)).isBool())
                settings.insert(QLatin1String(key), body.value(QLatin1String(key)));
        m_store.put(QStringLiteral("setting"), QStringLiteral("memory"), settings);
        return {200, {}};
    }
    if (path == QLatin1String("/app/settings") && method == QLatin1String("PUT")) {
        if (!body.value(QStringLiteral("model")).isString())
            return error(400, QStringLiteral("model is a string."), QStringLiteral("BAD_MODEL"));
        m_store.put(QStringLiteral("setting"), QStringLiteral("model"),
                    {{QStringLiteral("model"), string(body, "model").left(100)}, {QStringLiteral("effort"), string(body, "effort").left(20)}});
        return {200, {}};
    }
    if (path == QLatin1String("/app/telegram")) {
        if (method == QLatin1String("DELETE")) {
            m_store.remove(QStringLiteral("setting"), QStringLiteral("telegram"));
            return {200, {}};
        }
        // Recorded only: this hub talks to no Telegram server.
        static const QRegularExpression token(QStringLiteral("^\\d{5,}:[A-Za-z0-9_-]{20,}$"));
        if (method != QLatin1String("PUT") || !token.match(string(body, "token")).hasMatch())
            return error(400, QStringLiteral("That is not a bot token from @BotFather."), QStringLiteral("BAD_TOKEN"));
        m_store.put(QStringLiteral("setting"), QStringLiteral("telegram"),
                    {{QStringLiteral("linked"), true}, {QStringLiteral("username"), QStringLiteral("zuv_dev_bot")}});
        return {200, {}};
    }
    if (path == QLatin1String("/app/account") && method == QLatin1String("DELETE")) {
        // Everything goes, tokens included: every client is signed out at its next call.
        m_store.clear();
        for (auto &[device, socket] : m_agents)
            if (socket)
                socket->close(QWebSocketProtocol::CloseCode(4401), QStringLiteral("account deleted"));
        return {200, {}};
    }
    return error(501, QStringLiteral("%1 %2 is not served by this development hub yet.").arg(method, path),
                 QStringLiteral("NOT_BUILT"));
}

} // namespace zuv::hub

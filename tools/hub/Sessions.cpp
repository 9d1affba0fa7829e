// Agent sessions run by a computer's agent: the hub keeps the records and the
// transcripts, sends each turn to the agent with what it needs to resume, and
// relays the tool requests, the questions about the session's folder and the
// clipboards sent to a computer.
#include "Hub.h"
#include "Wire.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrlQuery>

#include <cmath>

namespace zuv::hub {

namespace {

// Optional string keys: absent is fine, another type or too long is not.
bool optionalText(const QJsonObject &body, const char *key, int longest)
{
    const QJsonValue v = body.value(QLatin1String(key));
    return v.isUndefined() || v.isNull() || (v.isString() && v.toString().size() <= longest);
}

} // namespace

double Hub::tick()
{
    // Items of one session are told apart by time; two in one millisecond keep their order.
    m_lastTick = std::max(now(), m_lastTick + 0.001);
    return m_lastTick;
}

void Hub::saveSession(const QJsonObject &session, const QString &event)
{
    m_store.put(QStringLiteral("session"), string(session, "id"), session, QString(),
                session.value(QStringLiteral("startedAt")).toDouble());
    if (!event.isEmpty())
        broadcast({{QStringLiteral("kind"), QStringLiteral("cc")},
                   {QStringLiteral("event"), QJsonObject{{QStringLiteral("type"), event}, {QStringLiteral("sessionId"), session[QStringLiteral("id")]}}}});
}

void Hub::addItem(const QString &session, QJsonObject item)
{
    const double at = tick();
    if (!item.value(QStringLiteral("at")).isDouble())
        item.insert(QStringLiteral("at"), now());
    m_store.put(QStringLiteral("item"), newId(QStringLiteral("i")), item, session, at);
}

std::optional<Hub::Reply> Hub::agentWork(const QString &method, const QString &path, const QUrlQuery &query,
                                         const QJsonObject &body, QHttpServerResponder &responder)
{
    const auto is = [&](const char *verb, const char *p) { return method == QLatin1String(verb) && path == QLatin1String(p); };
    const auto session = [&](const QString &id) {
        return idPattern.match(id).hasMatch() ? m_store.get(QStringLiteral("session"), id) : std::nullopt;
    };
    const Reply noSession = error(404, QStringLiteral("No such session."), QStringLiteral("NOT_FOUND"));

    if (is("GET", "/app/cc/sessions")) {
        QJsonArray list;
        for (const QJsonObject &s : m_store.list(QStringLiteral("session")))
            list.append(s);
        return Reply{200, QJsonObject{{QStringLiteral("sessions"), list}}};
    }
    if (is("GET", "/app/cc/permissions")) {
        QJsonArray list;
        for (const QJsonObject &p : m_store.list(QStringLiteral("permission")))
            if (string(p, "status") == QLatin1String("pending"))
                list.append(p);
        return Reply{200, QJsonObject{{QStringLiteral("permissions"), list}}};
    }
    if (is("POST", "/app/cc/permission"))
        return answerPermission(body);
    if (is("GET", "/app/cc/session")) {
        const QString id = query.queryItemValue(QStringLiteral("id"), QUrl::FullyDecoded);
        const auto record = session(id);
        if (!record)
            return noSession;
        const auto items = m_store.list(QStringLiteral("item"), id, 2000);
        QJsonArray list;
        for (auto it = items.rbegin(); it != items.rend(); ++it)
            list.append(*it);
        return Reply{200, QJsonObject{{QStringLiteral("result"), QJsonObject{{QStringLiteral("items"), list},
                                                                             {QStringLiteral("session"), *record}}}}};
    }
    if (is("POST", "/app/cc/new"))
        return newSession(body);
    if (is("POST", "/app/cc/reply"))
        return sessionReply(body);
    if (is("POST", "/app/cc/stop") || is("POST", "/app/cc/remove"))
        return stopSession(body, path.endsWith(QLatin1String("remove")));
    if (is("POST", "/app/cc/terminal") || is("GET", "/app/cc/changes")) {
        const bool terminal = method == QLatin1String("POST");
        const QString id = terminal ? string(body, "id") : query.queryItemValue(QStringLiteral("id"), QUrl::FullyDecoded);
        const auto record = session(id);
        if (!record)
            return noSession;
        const QString device = string(*record, "device");
        if (!agentOf(device))
            return error(409, QStringLiteral("%1 is offline.").arg(string(*record, "deviceName")), QStringLiteral("COMPUTER_OFFLINE"));
        QJsonObject message{{QStringLiteral("cwd"), record->value(QStringLiteral("cwd"))},
                            {QStringLiteral("agent"), record->value(QStringLiteral("agent"))}};
        Done done;
        if (terminal) {
            if (const auto route = m_store.get(QStringLiteral("route"), id))
                message.insert(QStringLiteral("resume"), route->value(QStringLiteral("resume")));
            done = [this, id](const QJsonValue &) {
                if (auto now = m_store.get(QStringLiteral("session"), id)) {
                    now->insert(QStringLiteral("terminal"), true);
                    saveSession(*now, QStringLiteral("update"));
                }
            };
        }
        relay(terminal ? QStringLiteral("session-terminal") : QStringLiteral("session-changes"), message,
              std::move(responder), device, 60, std::move(done));
        return std::nullopt;
    }
    if (is("GET", "/app/cc/projects")) {
        const QString device = query.queryItemValue(QStringLiteral("device"), QUrl::FullyDecoded);
        if (!device.isEmpty() && !idPattern.match(device).hasMatch())
            return error(400, QStringLiteral("A device id is letters, digits, - and _."), QStringLiteral("BAD_ID"));
        relay(QStringLiteral("session-projects"), {}, std::move(responder), device);
        return std::nullopt;
    }
    if (is("GET", "/app/screen")) {
        // A picture of the computer's screen, for the phone page.
        relay(QStringLiteral("screen"), {}, std::move(responder), QString(), 90);
        return std::nullopt;
    }
    if (is("POST", "/app/mac/clipboard")) {
        const QString device = string(body, "device");
        const auto computer = idPattern.match(device).hasMatch() ? m_store.get(QStringLiteral("device"), device) : std::nullopt;
        if (!computer)
            return error(404, QStringLiteral("That computer isn't on this account."), QStringLiteral("NOT_FOUND"));
        if (!optionalText(body, "text", longestText) || !optionalText(body, "from", 100))
            return error(400, QStringLiteral("text is a string of at most 100,000 characters, from one of at most 100."),
                         QStringLiteral("BAD_REQUEST"));
        QJsonObject message{{QStringLiteral("from"), string(body, "from")}};
        const QJsonArray files = body.value(QStringLiteral("files")).toArray();
        if (body.value(QStringLiteral("text")).isString() && !string(body, "text").isEmpty()) {
            message.insert(QStringLiteral("text"), string(body, "text"));
        } else if (!files.isEmpty() && files.size() <= 50) {
            const auto checked = uploadedFiles(files);
            if (!checked)
                return error(400, QStringLiteral("A file is one uploaded to /app/media first."), QStringLiteral("BAD_FILE"));
            message.insert(QStringLiteral("files"), *checked);
            message.insert(QStringLiteral("image"), body.value(QStringLiteral("image")).toBool(false) && checked->size() == 1);
        } else {
            return error(400, QStringLiteral("Send text, or 1 to 50 uploaded files."), QStringLiteral("EMPTY"));
        }
        if (!agentOf(device))
            return error(409, QStringLiteral("%1 is offline.").arg(string(*computer, "name")), QStringLiteral("COMPUTER_OFFLINE"));
        relay(QStringLiteral("clipboard-set"), message, std::move(responder), device, 300);
        return std::nullopt;
    }
    return error(404, QStringLiteral("No route for %1 %2.").arg(method, path), QStringLiteral("NOT_FOUND"));
}

Hub::Reply Hub::newSession(const QJsonObject &body)
{
    const QString cwd = string(body, "cwd").trimmed();
    const QString prompt = string(body, "prompt");
    if (cwd.isEmpty() || cwd.size() > 1000 || !(cwd.startsWith(QLatin1Char('/')) || cwd.startsWith(QLatin1Char('~'))))
        return error(400, QStringLiteral("cwd is a folder's absolute path."), QStringLiteral("BAD_CWD"));
    if (prompt.trimmed().isEmpty() || prompt.size() > longestText)
        return error(400, QStringLiteral("prompt is 1 to 100,000 characters."), QStringLiteral("BAD_PROMPT"));
    if (!optionalText(body, "model", 100) || !optionalText(body, "effort", 20) || !optionalText(body, "device", 64)
        || !optionalText(body, "agent", 20))
        return error(400, QStringLiteral("agent, model, effort and device are short strings."), QStringLiteral("BAD_REQUEST"));
    const QString agent = string(body, "agent") == QLatin1String("codex") ? QStringLiteral("codex") : QStringLiteral("claude");

    // The computer asked for, else the first whose agent runs this tool.
    QString device = string(body, "device");
    if (!device.isEmpty() && !m_store.get(QStringLiteral("device"), device))
        return error(404, QStringLiteral("That computer isn't on this account."), QStringLiteral("NOT_FOUND"));
    if (device.isEmpty())
        for (const auto &[id, hello] : m_hello)
            if (agentOf(id) && hello.value(QStringLiteral("agents")).toArray().contains(agent)) {
                device = id;
                break;
            }
    if (device.isEmpty() || !agentOf(device))
        return error(409, QStringLiteral("No computer with %1 is online to run the session.")
                              .arg(agent == QLatin1String("codex") ? QStringLiteral("Codex") : QStringLiteral("Claude Code")),
                     QStringLiteral("COMPUTER_OFFLINE"));

    const QString project = QFileInfo(cwd).fileName().isEmpty() ? cwd : QFileInfo(cwd).fileName();
    QJsonObject record = sessionRecord(device, cwd, project, prompt.simplified().left(60), agent);
    for (const char *key : {"model", "effort"})
        if (!string(body, key).isEmpty())
            record.insert(QLatin1String(key), string(body, key));
    runTurn(record, {{QStringLiteral("role"), QStringLiteral("user")}, {QStringLiteral("text"), prompt}}, prompt, false);
    return {200, QJsonObject{{QStringLiteral("result"), QJsonObject{{QStringLiteral("id"), record.value(QStringLiteral("id"))}}}}};
}

QJsonObject Hub::sessionRecord(const QString &device, const QString &cwd, const QString &project, const QString &title,
                               const QString &agent)
{
    const QString id = newId(QStringLiteral("s"));
    m_store.put(QStringLiteral("route"), id, {{QStringLiteral("device"), device}});
    return {{QStringLiteral("id"), id},
            {QStringLiteral("cwd"), cwd},
            {QStringLiteral("project"), project},
            {QStringLiteral("title"), title},
            {QStringLiteral("startedAt"), now()},
            {QStringLiteral("agent"), agent},
            {QStringLiteral("device"), device},
            {QStringLiteral("deviceName"),
             m_store.get(QStringLiteral("device"), device).value_or(QJsonObject()).value(QStringLiteral("name"))}};
}

void Hub::runTurn(QJsonObject record, const QJsonObject &item, const QString &text, bool chat)
{
    const QString id = string(record, "id");
    addItem(id, item);
    record.insert(QStringLiteral("status"), QStringLiteral("running"));
    record.insert(QStringLiteral("updatedAt"), now());
    saveSession(record, QStringLiteral("start"));
    // What the agent needs to run it: the folder, the tool and its settings, and
    // the tool's own session to resume once there is one.
    QJsonObject turn{{QStringLiteral("type"), QStringLiteral("session-turn")}, {QStringLiteral("id"), id},
                     {QStringLiteral("cwd"), record.value(QStringLiteral("cwd"))}, {QStringLiteral("text"), text},
                     {QStringLiteral("agent"), record.value(QStringLiteral("agent"))}};
    for (const char *key : {"model", "effort"})
        if (record.contains(QLatin1String(key)))
            turn.insert(QLatin1String(key), record.value(QLatin1String(key)));
    if (const auto route = m_store.get(QStringLiteral("route"), id); route && route->contains(QStringLiteral("resume")))
        turn.insert(QStringLiteral("resume"), route->value(QStringLiteral("resume")));
    if (chat)
        turn.insert(QStringLiteral("chat"), true);
    if (QWebSocket *agent = agentOf(string(record, "device")))
        agent->sendTextMessage(compact(turn));
}

std::optional<QJsonArray> Hub::uploadedFiles(const QJsonValue &files) const
{
    QJsonArray checked;
    for (const QJsonValue &f : files.toArray()) {
        const QString key = string(f.toObject(), "key");
        const auto media = idPattern.match(key).hasMatch() ? m_store.get(QStringLiteral("media"), key) : std::nullopt;
        if (!media)
            return std::nullopt;
        checked.append(QJsonObject{{QStringLiteral("key"), key},
                                   {QStringLiteral("name"), string(f.toObject(), "name").left(200)},
                                   {QStringLiteral("mime"), media->value(QStringLiteral("mime"))}});
    }
    return checked;
}

bool Hub::sendTurnToAgent(const QString &conversation, int turn, const QString &text)
{
    // The first computer whose agent said it can run turns gets the turn, as a
    // session of its own: it can ask before its tools, and the conversation's next
    // turn resumes it.
    QString device;
    QString agent;
    for (const auto &[id, hello] : m_hello)
        if (agentOf(id) && hello.value(QStringLiteral("turns")).toBool()) {
            device = id;
            agent = hello.value(QStringLiteral("agents")).toArray().at(0).toString();
            break;
        }
    if (device.isEmpty())
        return false;
    const auto link = m_store.get(QStringLiteral("chat-session"), conversation);
    auto record = link ? m_store.get(QStringLiteral("session"), string(*link, "session")) : std::nullopt;
    if (!record || string(*record, "device") != device || string(*record, "status") == QLatin1String("running")) {
        record = sessionRecord(device, QStringLiteral("~"), QStringLiteral("Chat"), text.simplified().left(60),
                               agent == QLatin1String("codex") ? agent : QStringLiteral("claude"));
        m_store.put(QStringLiteral("chat-session"), conversation, {{QStringLiteral("session"), record->value(QStringLiteral("id"))}});
    }
    m_agentTurns[string(*record, "id")] = {conversation, turn, device};
    runTurn(*record, {{QStringLiteral("role"), QStringLiteral("user")}, {QStringLiteral("text"), text}}, text, true);
    broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("chat")},
               {QStringLiteral("ref"), conversation}, {QStringLiteral("step"), QStringLiteral("Asking your computer…")}});
    return true;
}

Hub::Reply Hub::sessionReply(const QJsonObject &body)
{
    const QString id = string(body, "id");
    auto record = idPattern.match(id).hasMatch() ? m_store.get(QStringLiteral("session"), id) : std::nullopt;
    if (!record)
        return error(404, QStringLiteral("No such session."), QStringLiteral("NOT_FOUND"));
    if (!body.value(QStringLiteral("text")).isString() || string(body, "text").size() > longestText)
        return error(400, QStringLiteral("text is at most 100,000 characters."), QStringLiteral("BAD_TEXT"));
    QString text = string(body, "text");
    const auto files = uploadedFiles(body.value(QStringLiteral("files")));
    if (!files)
        return error(400, QStringLiteral("A file is one uploaded to /app/media first."), QStringLiteral("BAD_FILE"));
    if (text.trimmed().isEmpty() && files->isEmpty())
        return error(400, QStringLiteral("Nothing to send."), QStringLiteral("EMPTY"));
    const QString status = string(*record, "status");
    if (status == QLatin1String("running") || status == QLatin1String("busy"))
        return error(409, QStringLiteral("The session is still working: wait for it, or stop it."), QStringLiteral("BUSY"));
    if (!agentOf(string(*record, "device")))
        return error(409, QStringLiteral("%1 is offline.").arg(string(*record, "deviceName")), QStringLiteral("COMPUTER_OFFLINE"));

    QJsonObject item{{QStringLiteral("role"), QStringLiteral("user")}, {QStringLiteral("text"), text}};
    if (!files->isEmpty())
        item.insert(QStringLiteral("files"), *files);
    // The tool reads files from links to the hub's media, given after the text.
    for (const QJsonValue &f : *files)
        text += QStringLiteral("\n\nAttached file %1: %2/media/%3")
                    .arg(string(f.toObject(), "name"), m_base, string(f.toObject(), "key"));
    runTurn(*record, item, text, false);
    return {200, {}};
}

Hub::Reply Hub::stopSession(const QJsonObject &body, bool remove)
{
    const QString id = string(body, "id");
    auto record = idPattern.match(id).hasMatch() ? m_store.get(QStringLiteral("session"), id) : std::nullopt;
    if (!record)
        return error(404, QStringLiteral("No such session."), QStringLiteral("NOT_FOUND"));
    if (QWebSocket *agent = agentOf(string(*record, "device")))
        agent->sendTextMessage(compact({{QStringLiteral("type"), QStringLiteral("session-stop")}, {QStringLiteral("id"), id}}));
    else if (string(*record, "status") == QLatin1String("running")) {
        record->insert(QStringLiteral("status"), QStringLiteral("failed"));
        record->insert(QStringLiteral("lastReply"), QStringLiteral("The computer is offline."));
        saveSession(*record, QStringLiteral("stop"));
    }
    if (remove) {
        for (const QJsonObject &p : m_store.list(QStringLiteral("permission"), id)) {
            m_store.remove(QStringLiteral("route"), string(p, "id"));
            m_store.remove(QStringLiteral("permission"), string(p, "id"));
        }
        m_store.removeGroup(QStringLiteral("item"), id);
        m_store.remove(QStringLiteral("route"), id);
        m_store.remove(QStringLiteral("session"), id);
        broadcast({{QStringLiteral("kind"), QStringLiteral("cc")},
                   {QStringLiteral("event"), QJsonObject{{QStringLiteral("type"), QStringLiteral("remove")}, {QStringLiteral("sessionId"), id}}}});
    }
    return {200, {}};
}

void Hub::sessionMessage(const QString &device, const QString &type, const QJsonObject &message)
{
    const QString id = type == QLatin1String("permission") ? string(message, "session") : string(message, "id");
    auto record = idPattern.match(id).hasMatch() ? m_store.get(QStringLiteral("session"), id) : std::nullopt;
    if (!record || string(*record, "device") != device)
        return; // not this computer's, or removed meanwhile
    // The chat's turn this session runs, while it is the conversation's current one.
    const auto chatTurn = [&]() -> std::optional<AgentTurn> {
        const auto found = m_agentTurns.find(id);
        if (found == m_agentTurns.end() || !m_turns.count(found->second.conversation)
            || m_turns[found->second.conversation] != found->second.turn)
            return std::nullopt;
        return found->second;
    };
    if (type == QLatin1String("session-step")) {
        const QString step = string(message, "step").left(200);
        broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("cc")},
                   {QStringLiteral("ref"), id}, {QStringLiteral("step"), step}});
        if (const auto turn = chatTurn())
            broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("chat")},
                       {QStringLiteral("ref"), turn->conversation}, {QStringLiteral("step"), step}});
        return;
    }
    if (type == QLatin1String("session-item")) {
        const QJsonObject item = message.value(QStringLiteral("item")).toObject();
        static const QStringList roles = {QStringLiteral("assistant"), QStringLiteral("tool")};
        if (!roles.contains(string(item, "role")) || !item.value(QStringLiteral("text")).isString())
            return;
        addItem(id, {{QStringLiteral("role"), string(item, "role")}, {QStringLiteral("text"), string(item, "text").left(longestText)}});
        record->insert(QStringLiteral("updatedAt"), now());
        saveSession(*record, QStringLiteral("item"));
        return;
    }
    if (type == QLatin1String("permission")) {
        const QString ref = string(message, "ref");
        if (!idPattern.match(ref).hasMatch())
            return;
        const QString permission = newId(QStringLiteral("p"));
        const QJsonObject request{{QStringLiteral("id"), permission},
                                  {QStringLiteral("sessionId"), id},
                                  {QStringLiteral("project"), record->value(QStringLiteral("project"))},
                                  {QStringLiteral("title"), record->value(QStringLiteral("title"))},
                                  {QStringLiteral("tool"), string(message, "tool").left(60)},
                                  {QStringLiteral("summary"), string(message, "summary").left(200)},
                                  {QStringLiteral("detail"), string(message, "detail").left(20000)},
                                  {QStringLiteral("at"), now()},
                                  {QStringLiteral("status"), QStringLiteral("pending")}};
        m_store.put(QStringLiteral("permission"), permission, request, id, now());
        m_store.put(QStringLiteral("route"), permission, {{QStringLiteral("device"), device}, {QStringLiteral("ref"), ref}});
        broadcast({{QStringLiteral("kind"), QStringLiteral("perm")}, {QStringLiteral("request"), request}});
        broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("cc")},
                   {QStringLiteral("ref"), id}, {QStringLiteral("step"), QStringLiteral("Waiting for your approval…")}});
        return;
    }
    if (type != QLatin1String("session-state"))
        return;
    static const QStringList states = {QStringLiteral("running"), QStringLiteral("idle"), QStringLiteral("failed")};
    const QString status = string(message, "status");
    if (!states.contains(status))
        return;
    record->insert(QStringLiteral("status"), status);
    record->insert(QStringLiteral("updatedAt"), now());
    if (message.value(QStringLiteral("lastReply")).isString())
        record->insert(QStringLiteral("lastReply"), string(message, "lastReply").left(longestText));
    const QString resume = string(message, "resume");
    static const QRegularExpression resumePattern(QStringLiteral("^[\\w-]{1,100}$"));
    if (resumePattern.match(resume).hasMatch()) {
        auto route = m_store.get(QStringLiteral("route"), id).value_or(QJsonObject{{QStringLiteral("device"), device}});
        route.insert(QStringLiteral("resume"), resume);
        m_store.put(QStringLiteral("route"), id, route);
        record->insert(QStringLiteral("resumeCommand"),
                       QStringLiteral("cd '%1' && %2 %3").arg(string(*record, "cwd").replace(QLatin1Char('\''), QStringLiteral("'\\''")),
                                                              string(*record, "agent") == QLatin1String("codex")
                                                                  ? QStringLiteral("codex resume") : QStringLiteral("claude --resume"),
                                                              resume));
    }
    const QJsonObject usage = message.value(QStringLiteral("usage")).toObject();
    if (!usage.isEmpty()) {
        // Totals over the session's turns.
        QJsonObject total = record->value(QStringLiteral("usage")).toObject();
        for (const char *key : {"ms", "turns", "input", "output", "cached", "usd"}) {
            const double add = usage.value(QLatin1String(key)).toDouble();
            if (std::isfinite(add) && add >= 0)
                total.insert(QLatin1String(key), total.value(QLatin1String(key)).toDouble() + add);
        }
        record->insert(QStringLiteral("usage"), total);
    }
    if (status != QLatin1String("running")) {
        if (status == QLatin1String("failed") || string(message, "lastReply") == QLatin1String("Stopped."))
            addItem(id, {{QStringLiteral("role"), QStringLiteral("assistant")}, {QStringLiteral("text"), string(*record, "lastReply")}});
        broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("cc")},
                   {QStringLiteral("ref"), id}}); // the working line ends
    }
    saveSession(*record, status == QLatin1String("running") ? QStringLiteral("start") : QStringLiteral("stop"));
    if (status == QLatin1String("running"))
        return;
    // A chat's turn ends with the session's answer in the conversation.
    const auto turn = chatTurn();
    m_agentTurns.erase(id);
    if (!turn)
        return; // stopped, or overtaken meanwhile
    m_turns.erase(turn->conversation);
    const QString last = string(*record, "lastReply");
    reply(turn->conversation, status == QLatin1String("idle") ? last : QStringLiteral("**The computer couldn't answer:** ") + last.left(500));
}

void Hub::sessionsAtHello(const QString &device, const QJsonArray &running)
{
    // What the hub thinks runs there but the agent doesn't know of was lost with
    // an earlier agent.
    for (QJsonObject record : m_store.list(QStringLiteral("session")))
        if (string(record, "device") == device && string(record, "status") == QLatin1String("running")
            && !running.contains(record.value(QStringLiteral("id")))) {
            record.insert(QStringLiteral("status"), QStringLiteral("failed"));
            record.insert(QStringLiteral("lastReply"), QStringLiteral("The computer's agent restarted and lost this turn."));
            saveSession(record, QStringLiteral("stop"));
        }
}

void Hub::sessionsGone(const QString &device)
{
    // Its questions can no longer be answered; its sessions may come back with it.
    for (QJsonObject request : m_store.list(QStringLiteral("permission"))) {
        const auto route = m_store.get(QStringLiteral("route"), string(request, "id"));
        if (!route || string(*route, "device") != device || string(request, "status") != QLatin1String("pending"))
            continue;
        request.insert(QStringLiteral("status"), QStringLiteral("expired"));
        m_store.put(QStringLiteral("permission"), string(request, "id"), request, string(request, "sessionId"),
                    request.value(QStringLiteral("at")).toDouble());
        m_store.remove(QStringLiteral("route"), string(request, "id"));
        broadcast({{QStringLiteral("kind"), QStringLiteral("perm")}, {QStringLiteral("request"), request}});
    }
}

} // namespace zuv::hub

#include "Hub.h"
#include "Wire.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHttpServerResponder>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTimer>
#include <QUrlQuery>

#include <cmath>

namespace zuv::hub {

namespace {

constexpr double accessLife = 3600 * 1000; // ms
constexpr double pairingLife = 10 * 60 * 1000;

QString randomText(int length, const QString &alphabet)
{
    QString out;
    for (int i = 0; i < length; ++i)
        out += alphabet[int(QRandomGenerator::system()->bounded(quint32(alphabet.size())))];
    return out;
}

QString token() { return randomText(40, QStringLiteral("abcdefghijklmnopqrstuvwxyz0123456789")); }


QByteArray mimeOf(const QString &path)
{
    if (path.endsWith(QLatin1String(".js")))
        return "text/javascript; charset=utf-8";
    if (path.endsWith(QLatin1String(".css")))
        return "text/css; charset=utf-8";
    if (path.endsWith(QLatin1String(".svg")))
        return "image/svg+xml";
    return "text/html; charset=utf-8";
}

QString methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get: return QStringLiteral("GET");
    case QHttpServerRequest::Method::Post: return QStringLiteral("POST");
    case QHttpServerRequest::Method::Put: return QStringLiteral("PUT");
    case QHttpServerRequest::Method::Patch: return QStringLiteral("PATCH");
    case QHttpServerRequest::Method::Delete: return QStringLiteral("DELETE");
    default: return QStringLiteral("OTHER");
    }
}

// The stand-in's answer: Markdown that shows what the chat can render.
QString standInReply(const QString &text)
{
    QString quoted = text.simplified().left(200);
    quoted.replace(QLatin1Char('|'), QLatin1Char('/'));
    return QStringLiteral("## Here is what I would do\n\n"
                          "You wrote: *%1*\n\n"
                          "This answer comes from the development hub's stand-in, because no computer of this "
                          "account has offered to run the turn.\n\n"
                          "1. Read the request\n2. Look at the files it names\n   and the ones around them\n3. Report back\n\n"
                          "| Step | Where | State |\n|:--|:-:|--:|\n| read | hub | done |\n| answer | stand-in | done |\n\n"
                          "```\n$ zuv-hub --listen 127.0.0.1:8765\n```\n\n"
                          "> Send `/tool Bash: ls -la` to see a tool request that waits for your approval.")
        .arg(quoted);
}

} // namespace

Hub::Hub(Options options, QObject *parent)
    : QObject(parent), m_options(std::move(options)),
      m_store((QDir().mkpath(m_options.data), m_options.data + QStringLiteral("/hub.sqlite")))
{
    m_server.setMissingHandler([this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
        answer(request, std::move(responder));
    });
    // QHttpServer upgrades to a WebSocket only where a route takes the request.
    for (const char *path : {"/app/ws", "/agent/ws"})
        m_server.route(QString::fromLatin1(path), [](const QHttpServerRequest &, QHttpServerResponder &&) {});
    connect(&m_server, &QHttpServer::newWebSocketConnection, this, [this] {
        while (m_server.hasPendingWebSocketConnections())
            accept(m_server.nextPendingWebSocketConnection());
    });
}

Hub::~Hub() = default;

quint16 Hub::listen()
{
    if (!m_store.open()) {
        m_problem = QStringLiteral("cannot open the store in %1: %2").arg(m_options.data, m_store.problem());
        return 0;
    }
    const quint16 port = m_server.listen(m_options.address, m_options.port);
    if (!port)
        m_problem = QStringLiteral("cannot listen on %1:%2").arg(m_options.address.toString()).arg(m_options.port);
    m_base = QStringLiteral("http://%1:%2")
                 .arg(m_options.address == QHostAddress::Any ? QStringLiteral("127.0.0.1") : m_options.address.toString())
                 .arg(port);
    return port;
}

double Hub::now() const { return double(QDateTime::currentMSecsSinceEpoch()); }

QString Hub::newId(const QString &prefix) const
{
    return prefix + randomText(15, QStringLiteral("abcdefghijklmnopqrstuvwxyz0123456789"));
}

Hub::Reply Hub::error(int status, const QString &message, const QString &code)
{
    QJsonObject inner{{QStringLiteral("message"), message}};
    if (!code.isEmpty())
        inner.insert(QStringLiteral("code"), code);
    return {status, QJsonObject{{QStringLiteral("error"), inner}}};
}

Hub::Caller Hub::caller(const QByteArray &authorization, const QString &queryToken) const
{
    QString presented = queryToken;
    if (authorization.startsWith("Bearer "))
        presented = QString::fromUtf8(authorization.mid(7)).trimmed();
    if (presented.isEmpty() || presented.size() > 200)
        return {};
    const auto record = m_store.get(QStringLiteral("token"), presented);
    if (!record)
        return {};
    const QString kind = string(*record, "kind");
    const double expires = record->value(QStringLiteral("expiresAt")).toDouble();
    if (expires > 0 && expires < now())
        return {};
    const QString device = string(*record, "device");
    if (!device.isEmpty() && !m_store.get(QStringLiteral("device"), device))
        return {}; // the computer was removed: its tokens went with it
    if (kind == QLatin1String("agent"))
        return {Caller::Kind::agent, device};
    if (kind == QLatin1String("access"))
        return {Caller::Kind::access, device};
    if (kind == QLatin1String("phone"))
        return {Caller::Kind::phone, {}};
    return {};
}

void Hub::answer(const QHttpServerRequest &request, QHttpServerResponder &&responder)
{
    const QString method = methodName(request.method());
    const QString path = request.url().path();
    const auto respond = [&responder](const Reply &reply) {
        responder.write(QJsonDocument(reply.body), QHttpServerResponder::StatusCode(reply.status));
    };

    // The phone page, and media by key.
    if (method == QLatin1String("GET") && !path.startsWith(QLatin1String("/app/")) && !path.startsWith(QLatin1String("/agent/"))
        && !path.startsWith(QLatin1String("/pair/")) && !path.startsWith(QLatin1String("/phone/"))) {
        if (path.startsWith(QLatin1String("/media/"))) {
            const QString key = path.mid(7);
            QFile file(m_options.data + QStringLiteral("/media/") + key);
            if (!idPattern.match(key).hasMatch() || !file.open(QIODevice::ReadOnly))
                return respond(error(404, QStringLiteral("No such file.")));
            const auto meta = m_store.get(QStringLiteral("media"), key);
            return responder.write(file.readAll(), meta ? string(*meta, "mime").toUtf8() : QByteArray("application/octet-stream"));
        }
        const QString name = path == QLatin1String("/") ? QStringLiteral("index.html") : path.mid(1);
        QFile page(QStringLiteral(":/page/") + name);
        if (name.contains(QLatin1String("..")) || !page.open(QIODevice::ReadOnly))
            return respond(error(404, QStringLiteral("No page %1.").arg(path)));
        return responder.write(page.readAll(), mimeOf(name));
    }

    if (request.body().size() > largestBody)
        return respond(error(413, QStringLiteral("Larger than 100 MB")));
    QJsonObject body;
    const bool media = path == QLatin1String("/app/media");
    if (!media && !request.body().trimmed().isEmpty()) {
        QJsonParseError parse;
        const QJsonDocument document = QJsonDocument::fromJson(request.body(), &parse);
        if (parse.error != QJsonParseError::NoError || !document.isObject())
            return respond(error(400, QStringLiteral("The body must be a JSON object."), QStringLiteral("BAD_JSON")));
        body = document.object();
    }
    const QUrlQuery query(request.url());
    const Caller who = caller(request.value("authorization"), {});
    const bool asksComputer = method == QLatin1String("POST")
        && (path == QLatin1String("/app/clipboard") || path == QLatin1String("/app/power"));
    if (asksComputer && (who.kind == Caller::Kind::access || who.kind == Caller::Kind::phone)) {
        QString why;
        const bool clipboard = path.endsWith(QLatin1String("clipboard"));
        const auto message = clipboard ? clipboardRequest(body, &why) : powerRequest(body, &why);
        if (!message)
            return respond(error(400, why, QStringLiteral("BAD_REQUEST")));
        return relay(clipboard ? QStringLiteral("clipboard") : QStringLiteral("power"), *message, std::move(responder));
    }
    const bool agentPath = path.startsWith(QLatin1String("/app/cc/")) || path == QLatin1String("/app/mac/clipboard")
        || path == QLatin1String("/app/screen");
    if (agentPath && (who.kind == Caller::Kind::access || who.kind == Caller::Kind::phone)) {
        if (auto reply = agentWork(method, path, query, body, responder))
            respond(*reply);
        return;
    }
    respond(route(method, path, query, body, who, request));
}

std::optional<QJsonObject> Hub::clipboardRequest(const QJsonObject &body, QString *why)
{
    static const QStringList ops = {QStringLiteral("list"), QStringLiteral("item"), QStringLiteral("use"),
                                    QStringLiteral("pin"), QStringLiteral("delete"), QStringLiteral("add")};
    const QString op = string(body, "op");
    if (!ops.contains(op)) {
        *why = QStringLiteral("op is one of %1.").arg(ops.join(QStringLiteral(", ")));
        return std::nullopt;
    }
    // Only known keys of the right type go on.
    QJsonObject out{{QStringLiteral("op"), op}};
    if (body.value(QStringLiteral("q")).isString())
        out.insert(QStringLiteral("q"), string(body, "q").left(200));
    for (const char *key : {"offset", "limit", "clip"}) {
        const QJsonValue v = body.value(QLatin1String(key));
        if (v.isDouble() && v.toDouble() >= 0 && v.toDouble() <= 1e9 && v.toDouble() == std::floor(v.toDouble()))
            out.insert(QLatin1String(key), qint64(v.toDouble()));
    }
    if (op == QLatin1String("add")) {
        const QJsonObject file = body.value(QStringLiteral("file")).toObject();
        if (!file.value(QStringLiteral("name")).isString() || !file.value(QStringLiteral("data")).isString()
            || string(file, "data").size() > 70 * 1024 * 1024) {
            *why = QStringLiteral("add wants file {name, data in base64}, at most 50 MiB.");
            return std::nullopt;
        }
        out.insert(QStringLiteral("file"), QJsonObject{{QStringLiteral("name"), string(file, "name").left(200)},
                                                       {QStringLiteral("data"), file.value(QStringLiteral("data"))}});
        out.insert(QStringLiteral("image"), body.value(QStringLiteral("image")).toBool(false));
    } else if (op != QLatin1String("list") && !out.contains(QStringLiteral("clip"))) {
        *why = QStringLiteral("%1 wants the clip's number.").arg(op);
        return std::nullopt;
    }
    return out;
}

std::optional<QJsonObject> Hub::powerRequest(const QJsonObject &body, QString *why)
{
    const QString power = string(body, "power");
    if (power == QLatin1String("status") || power == QLatin1String("allowSleep"))
        return QJsonObject{{QStringLiteral("power"), power}};
    const QJsonValue minutes = body.value(QStringLiteral("minutes"));
    if (power == QLatin1String("keepAwake") && minutes.isDouble() && minutes.toDouble() >= 0
        && minutes.toDouble() <= 525600 && minutes.toDouble() == std::floor(minutes.toDouble()))
        return QJsonObject{{QStringLiteral("power"), power}, {QStringLiteral("minutes"), qint64(minutes.toDouble())}};
    *why = QStringLiteral("power is status, allowSleep, or keepAwake with whole minutes up to a year.");
    return std::nullopt;
}

QWebSocket *Hub::agentOf(const QString &device, QString *found) const
{
    // One account, most often one computer: without a device, the first one online.
    for (const auto &[id, socket] : m_agents)
        if (socket && socket->state() == QAbstractSocket::ConnectedState && (device.isEmpty() || id == device)) {
            if (found)
                *found = id;
            return socket.get();
        }
    return nullptr;
}

void Hub::relay(const QString &type, QJsonObject message, QHttpServerResponder &&responder, const QString &device,
                int seconds, Done done)
{
    QString asked;
    QWebSocket *agent = agentOf(device, &asked);
    if (!agent) {
        const Reply offline = error(503, QStringLiteral("The computer is offline: its agent isn't connected."),
                                    QStringLiteral("COMPUTER_OFFLINE"));
        responder.write(QJsonDocument(offline.body), QHttpServerResponder::StatusCode(offline.status));
        return;
    }
    const QString id = QStringLiteral("r%1").arg(++m_nextRelay);
    message.insert(QStringLiteral("type"), type);
    message.insert(QStringLiteral("id"), id);
    m_relayed[id] = {std::make_shared<QHttpServerResponder>(std::move(responder)), std::move(done), asked};
    agent->sendTextMessage(compact(message));
    QTimer::singleShot(seconds * 1000, this, [this, id] {
        const auto held = m_relayed.find(id);
        if (held == m_relayed.end())
            return;
        const Reply late = error(504, QStringLiteral("The computer did not answer in time."), QStringLiteral("TIMEOUT"));
        held->second.responder->write(QJsonDocument(late.body), QHttpServerResponder::StatusCode(late.status));
        m_relayed.erase(held);
    });
}

void Hub::agentMessage(const QString &device, const QString &text)
{
    if (text.size() > 80 * 1024 * 1024)
        return;
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    const QString type = string(message, "type");
    if (type == QLatin1String("awake")) {
        m_awake = message.value(QStringLiteral("session")).toObject();
        m_awake.insert(QStringLiteral("device"), device);
        broadcast({{QStringLiteral("kind"), QStringLiteral("awake")}, {QStringLiteral("session"), m_awake}});
        return;
    }
    if (type == QLatin1String("hello")) {
        m_hello[device] = message;
        sessionsAtHello(device, message.value(QStringLiteral("sessions")).toArray());
        return;
    }
    if (type.startsWith(QLatin1String("session-")) && !type.endsWith(QLatin1String("-reply"))) {
        sessionMessage(device, type, message);
        return;
    }
    if (type == QLatin1String("permission")) {
        sessionMessage(device, type, message);
        return;
    }
    if (!type.endsWith(QLatin1String("-reply")))
        return;
    const auto held = m_relayed.find(message.value(QStringLiteral("id")).toVariant().toString());
    if (held == m_relayed.end() || held->second.device != device)
        return; // late, never asked, or asked of another computer
    const Relayed relayed = held->second;
    m_relayed.erase(held);
    const bool failed = message.contains(QStringLiteral("error"));
    const Reply reply = failed ? error(502, string(message, "error").left(500), QStringLiteral("COMPUTER_ERROR"))
                               : Reply{200, QJsonObject{{QStringLiteral("result"), message.value(QStringLiteral("result"))}}};
    if (!failed && relayed.done)
        relayed.done(message.value(QStringLiteral("result")));
    relayed.responder->write(QJsonDocument(reply.body), QHttpServerResponder::StatusCode(reply.status));
}

Hub::Reply Hub::route(const QString &method, const QString &path, const QUrlQuery &query, const QJsonObject &body,
                      const Caller &who, const QHttpServerRequest &request)
{
    const auto is = [&](const char *verb, const char *p) { return method == QLatin1String(verb) && path == QLatin1String(p); };

    // Without a token: pairing, from both sides.
    if (is("POST", "/pair/start"))
        return pairStart(body);
    if (is("POST", "/pair/poll"))
        return pairPoll(body);
    if (is("POST", "/phone/pair"))
        return phonePair(body);
    if (is("POST", "/agent/app-token"))
        return appToken(who);

    if (!path.startsWith(QLatin1String("/app/")))
        return error(404, QStringLiteral("No route for %1 %2.").arg(method, path), QStringLiteral("NOT_FOUND"));
    if (who.kind != Caller::Kind::access && who.kind != Caller::Kind::phone)
        return error(401, QStringLiteral("Sign in first: this request carries no valid token."), QStringLiteral("UNAUTHORIZED"));

    const QString conversation = string(body, "conversation");
    const auto checkConversation = [&](const QString &id) { return idPattern.match(id).hasMatch(); };

    // Revoking: a computer taken off the account (its tokens and its agent's link go
    // with it), or this phone signing out.
    if (method == QLatin1String("DELETE") && path.startsWith(QLatin1String("/app/devices/"))) {
        const QString id = path.mid(13);
        if (!idPattern.match(id).hasMatch() || !m_store.get(QStringLiteral("device"), id))
            return error(404, QStringLiteral("That computer isn't on this account."), QStringLiteral("NOT_FOUND"));
        m_store.remove(QStringLiteral("device"), id);
        m_store.removeGroup(QStringLiteral("token"), id);
        if (const auto agent = m_agents.find(id); agent != m_agents.end() && agent->second)
            agent->second->close(QWebSocketProtocol::CloseCode(4401), QStringLiteral("removed"));
        return {200, {}};
    }
    if (is("POST", "/app/phone/forget")) {
        if (who.kind != Caller::Kind::phone)
            return error(403, QStringLiteral("Only a phone signs itself out here."), QStringLiteral("NOT_A_PHONE"));
        m_store.remove(QStringLiteral("token"), QString::fromUtf8(request.value("authorization").mid(7)).trimmed());
        return {200, {}};
    }
    if (is("GET", "/app/conversations")) {
        QJsonArray list;
        for (const QJsonObject &c : m_store.list(QStringLiteral("conversation")))
            list.append(c);
        return {200, QJsonObject{{QStringLiteral("conversations"), list}}};
    }
    if (is("GET", "/app/history")) {
        const QString id = query.queryItemValue(QStringLiteral("conversation"));
        if (!checkConversation(id))
            return error(400, QStringLiteral("A conversation id is letters, digits, - and _."), QStringLiteral("BAD_ID"));
        const int limit = std::clamp(query.queryItemValue(QStringLiteral("limit")).toInt(), 1, 500);
        auto entries = m_store.list(QStringLiteral("entry"), id, query.hasQueryItem(QStringLiteral("limit")) ? limit : 60);
        QJsonArray list;
        for (auto it = entries.rbegin(); it != entries.rend(); ++it)
            list.append(*it);
        return {200, QJsonObject{{QStringLiteral("entries"), list}}};
    }
    if (is("POST", "/app/send"))
        return send(body, QStringLiteral("app"));
    if (is("POST", "/app/seen") || is("POST", "/app/cancel")) {
        if (!checkConversation(conversation))
            return error(400, QStringLiteral("A conversation id is letters, digits, - and _."), QStringLiteral("BAD_ID"));
        if (path.endsWith(QLatin1String("/seen"))) {
            if (auto c = m_store.get(QStringLiteral("conversation"), conversation)) {
                c->insert(QStringLiteral("unread"), false);
                m_store.put(QStringLiteral("conversation"), conversation, *c, QString(), c->value(QStringLiteral("updatedAt")).toDouble());
            }
            broadcast({{QStringLiteral("kind"), QStringLiteral("seen")}, {QStringLiteral("conversation"), conversation}});
        } else {
            m_turns.erase(conversation);
            for (const auto &[id, turn] : m_agentTurns)
                if (turn.conversation == conversation)
                    if (QWebSocket *agent = agentOf(turn.device))
                        agent->sendTextMessage(QStringLiteral("{\"type\":\"session-stop\",\"id\":\"%1\"}").arg(id));
            broadcast({{QStringLiteral("kind"), QStringLiteral("stopped")}, {QStringLiteral("conversation"), conversation}});
        }
        return {200, {}};
    }
    if (path.startsWith(QLatin1String("/app/conversations/"))) {
        const QString id = path.mid(19);
        if (!checkConversation(id))
            return error(400, QStringLiteral("A conversation id is letters, digits, - and _."), QStringLiteral("BAD_ID"));
        auto c = m_store.get(QStringLiteral("conversation"), id);
        if (!c)
            return error(404, QStringLiteral("No such conversation."), QStringLiteral("NOT_FOUND"));
        if (method == QLatin1String("PATCH")) {
            const QString title = string(body, "title").trimmed();
            if (title.isEmpty() || title.size() > 200)
                return error(400, QStringLiteral("A title is 1 to 200 characters."), QStringLiteral("BAD_TITLE"));
            c->insert(QStringLiteral("title"), title);
            m_store.put(QStringLiteral("conversation"), id, *c, QString(), c->value(QStringLiteral("updatedAt")).toDouble());
            broadcast({{QStringLiteral("kind"), QStringLiteral("titles")},
                       {QStringLiteral("titles"), QJsonArray{QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("title"), title}}}}});
            return {200, {}};
        }
        if (method == QLatin1String("DELETE")) {
            m_store.remove(QStringLiteral("conversation"), id);
            m_store.removeGroup(QStringLiteral("entry"), id);
            m_turns.erase(id);
            broadcast({{QStringLiteral("kind"), QStringLiteral("deleted")}, {QStringLiteral("conversation"), id}});
            return {200, {}};
        }
    }
    if (is("GET", "/app/search")) {
        const QString q = query.queryItemValue(QStringLiteral("q"), QUrl::FullyDecoded).trimmed();
        if (q.isEmpty() || q.size() > 200)
            return {200, QJsonObject{{QStringLiteral("results"), QJsonArray{}}}};
        QJsonArray results;
        for (const QJsonObject &e : m_store.search(QStringLiteral("entry"), q, 30))
            results.append(QJsonObject{{QStringLiteral("id"), e.value(QStringLiteral("id"))},
                                       {QStringLiteral("thread"), QStringLiteral("app:") + string(e, "conversation")},
                                       {QStringLiteral("role"), e.value(QStringLiteral("role"))},
                                       {QStringLiteral("text"), e.value(QStringLiteral("text"))},
                                       {QStringLiteral("at"), e.value(QStringLiteral("at"))},
                                       {QStringLiteral("channel"), e.value(QStringLiteral("channel"))}});
        return {200, QJsonObject{{QStringLiteral("results"), results}}};
    }
    if (is("GET", "/app/me")) {
        const QJsonObject model = m_store.get(QStringLiteral("setting"), QStringLiteral("model")).value_or(QJsonObject());
        QJsonArray macs;
        const auto devices = m_store.list(QStringLiteral("device"));
        for (const QJsonObject &d : devices)
            macs.append(QJsonObject{{QStringLiteral("id"), d.value(QStringLiteral("id"))},
                                    {QStringLiteral("name"), d.value(QStringLiteral("name"))},
                                    {QStringLiteral("online"), m_agents.count(string(d, "id")) > 0},
                                    // The first paired is the primary one; no computer is the hub's own.
                                    {QStringLiteral("primary"), string(d, "id") == string(devices.back(), "id")},
                                    {QStringLiteral("builtIn"), false},
                                    // Whether its agent offered to run the assistant's turns.
                                    {QStringLiteral("turns"), m_hello.count(string(d, "id"))
                                         && m_hello.at(string(d, "id")).value(QStringLiteral("turns")).toBool()}});
        QJsonObject me{{QStringLiteral("user"), QJsonObject{{QStringLiteral("id"), QStringLiteral("owner")},
                                                                      {QStringLiteral("name"), QStringLiteral("Owner")}}},
                                 {QStringLiteral("owner"), true},
                                 {QStringLiteral("macs"), macs},
                                 {QStringLiteral("model"), model.value(QStringLiteral("model"))},
                                 {QStringLiteral("effort"), model.value(QStringLiteral("effort"))},
                                 {QStringLiteral("telegram"),
                                  m_store.get(QStringLiteral("setting"), QStringLiteral("telegram"))
                                      .value_or(QJsonObject{{QStringLiteral("linked"), false}})}};
        if (!m_options.minimumBuild.isEmpty())
            me.insert(QStringLiteral("minMacBuild"), m_options.minimumBuild);
        return {200, me};
    }
    if (is("GET", "/app/overview")) {
        QJsonArray schedules, memory;
        for (const QJsonObject &schedule : m_store.list(QStringLiteral("schedule")))
            schedules.append(schedule);
        for (const QJsonObject &note : m_store.list(QStringLiteral("memory")))
            memory.append(note);
        return {200, QJsonObject{{QStringLiteral("status"),
                                  QJsonObject{{QStringLiteral("mac"), QJsonObject{{QStringLiteral("online"), !m_agents.empty()}}},
                                              {QStringLiteral("cloud"), QJsonObject{{QStringLiteral("online"), true}}},
                                              {QStringLiteral("queued"), 0}}},
                                 {QStringLiteral("schedules"), schedules},
                                 {QStringLiteral("memory"), memory},
                                 {QStringLiteral("memorySettings"),
                                  m_store.get(QStringLiteral("setting"), QStringLiteral("memory"))
                                      .value_or(QJsonObject{{QStringLiteral("review"), false}, {QStringLiteral("enabled"), true}})}}};
    }
    if (is("GET", "/app/power"))
        return {200, QJsonObject{{QStringLiteral("session"), m_awake}, {QStringLiteral("online"), !m_agents.empty()}}};
    if (is("POST", "/app/diagnostics")) {
        // A crash or problem report, kept as the admin console lists them.
        for (const char *key : {"source", "kind", "summary", "build", "os"})
            if (!body.value(QLatin1String(key)).isString())
                return error(400, QStringLiteral("A report has source, kind, summary, build and os, as strings."), QStringLiteral("BAD_REPORT"));
        static int reports = 0;
        const qint64 id = qint64(now()) * 1000 + (++reports % 1000);
        QJsonObject report{{QStringLiteral("id"), id}, {QStringLiteral("at"), now()}, {QStringLiteral("userId"), QStringLiteral("owner")}};
        for (const char *key : {"source", "kind", "summary", "build", "os", "device"})
            if (body.value(QLatin1String(key)).isString())
                report.insert(QLatin1String(key), string(body, key).left(500));
        report.insert(QStringLiteral("detail"), string(body, "detail").left(200000));
        m_store.put(QStringLiteral("report"), QString::number(id), report, QString(), now());
        return {200, {}};
    }
    if (is("PUT", "/app/media")) {
        const QString name = QFileInfo(query.queryItemValue(QStringLiteral("name"), QUrl::FullyDecoded)).fileName().left(200);
        const QString key = newId(QStringLiteral("m"));
        QDir().mkpath(m_options.data + QStringLiteral("/media"));
        QFile file(m_options.data + QStringLiteral("/media/") + key);
        if (!file.open(QIODevice::WriteOnly) || file.write(request.body()) != request.body().size())
            return error(500, QStringLiteral("Upload failed"));
        const QByteArray type = request.value("content-type");
        const QJsonObject record{{QStringLiteral("key"), key},
                                 {QStringLiteral("name"), name.isEmpty() ? QStringLiteral("file") : name},
                                 {QStringLiteral("mime"), type.isEmpty() ? QStringLiteral("application/octet-stream") : QString::fromUtf8(type).left(100)}};
        m_store.put(QStringLiteral("media"), key, record);
        return {200, record};
    }
    if (is("GET", "/app/media-url")) {
        const QString key = query.queryItemValue(QStringLiteral("key"), QUrl::FullyDecoded);
        if (!idPattern.match(key).hasMatch() || !m_store.get(QStringLiteral("media"), key))
            return error(404, QStringLiteral("No such file."), QStringLiteral("NOT_FOUND"));
        const QString host = QString::fromUtf8(request.value("host"));
        return {200, QJsonObject{{QStringLiteral("url"), QStringLiteral("http://%1/media/%2").arg(host, key)}}};
    }
    for (const char *prefix : {"/app/schedules", "/app/memory", "/app/settings", "/app/telegram", "/app/account"})
        if (path.startsWith(QLatin1String(prefix)))
            return account(method, path, body);
    return error(501, QStringLiteral("%1 %2 is not served by this development hub yet.").arg(method, path),
                 QStringLiteral("NOT_BUILT"));
}

Hub::Reply Hub::pairStart(const QJsonObject &body)
{
    const QString name = string(body, "name").trimmed().left(100);
    const QString code = randomText(8, QStringLiteral("ABCDEFGHJKLMNPQRSTUVWXYZ23456789"));
    const QJsonObject pairing{{QStringLiteral("code"), code},
                              {QStringLiteral("secret"), token()},
                              {QStringLiteral("name"), name.isEmpty() ? QStringLiteral("Computer") : name},
                              {QStringLiteral("status"), QStringLiteral("pending")},
                              {QStringLiteral("expiresAt"), now() + pairingLife}};
    m_store.put(QStringLiteral("pairing"), code, pairing, QString(), now());
    return {200, QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("secret"), pairing[QStringLiteral("secret")]},
                             {QStringLiteral("expiresAt"), pairing[QStringLiteral("expiresAt")]}}};
}

Hub::Reply Hub::pairPoll(const QJsonObject &body)
{
    auto pairing = m_store.get(QStringLiteral("pairing"), string(body, "code"));
    if (!pairing || string(*pairing, "secret") != string(body, "secret") || string(body, "secret").isEmpty())
        return error(404, QStringLiteral("No such pairing."), QStringLiteral("NOT_FOUND"));
    const QString status = string(*pairing, "status");
    if (status == QLatin1String("done") || pairing->value(QStringLiteral("expiresAt")).toDouble() < now())
        return {200, QJsonObject{{QStringLiteral("status"), QStringLiteral("expired")}}};
    if (status != QLatin1String("claimed"))
        return {200, QJsonObject{{QStringLiteral("status"), QStringLiteral("pending")}}};
    // The phone said yes: the computer gets its device and its agent token, once.
    const QString device = newId(QStringLiteral("d"));
    const QString agentToken = token();
    m_store.put(QStringLiteral("device"), device,
                {{QStringLiteral("id"), device}, {QStringLiteral("name"), pairing->value(QStringLiteral("name"))},
                 {QStringLiteral("pairedAt"), now()}},
                QString(), now());
    m_store.put(QStringLiteral("token"), agentToken,
                {{QStringLiteral("kind"), QStringLiteral("agent")}, {QStringLiteral("device"), device}}, device);
    pairing->insert(QStringLiteral("status"), QStringLiteral("done"));
    m_store.put(QStringLiteral("pairing"), string(*pairing, "code"), *pairing, QString(), now());
    return {200, QJsonObject{{QStringLiteral("status"), QStringLiteral("paired")}, {QStringLiteral("token"), agentToken},
                             {QStringLiteral("owner"), true}}};
}

Hub::Reply Hub::phonePair(const QJsonObject &body)
{
    QString code = string(body, "code").trimmed().toUpper();
    code.remove(QLatin1Char('-'));
    code.remove(QLatin1Char(' '));
    auto pairing = m_store.get(QStringLiteral("pairing"), code);
    if (code.isEmpty() || !pairing || string(*pairing, "status") != QLatin1String("pending")
        || pairing->value(QStringLiteral("expiresAt")).toDouble() < now())
        return error(404, QStringLiteral("That code isn't waiting for a phone. Show a new one on the computer."),
                     QStringLiteral("BAD_CODE"));
    pairing->insert(QStringLiteral("status"), QStringLiteral("claimed"));
    m_store.put(QStringLiteral("pairing"), code, *pairing, QString(), now());
    const QString phone = token();
    m_store.put(QStringLiteral("token"), phone, {{QStringLiteral("kind"), QStringLiteral("phone")}});
    return {200, QJsonObject{{QStringLiteral("token"), phone}, {QStringLiteral("computer"), pairing->value(QStringLiteral("name"))}}};
}

Hub::Reply Hub::appToken(const Caller &who)
{
    if (who.kind != Caller::Kind::agent)
        return error(401, QStringLiteral("This computer's token is not known here."), QStringLiteral("UNAUTHORIZED"));
    const QString access = token();
    const double expires = now() + accessLife;
    m_store.put(QStringLiteral("token"), access,
                {{QStringLiteral("kind"), QStringLiteral("access")}, {QStringLiteral("device"), who.device},
                 {QStringLiteral("expiresAt"), expires}},
                who.device);
    return {200, QJsonObject{{QStringLiteral("accessToken"), access}, {QStringLiteral("expiresAt"), expires},
                             {QStringLiteral("device"), who.device}}};
}

QJsonObject Hub::addEntry(const QString &conversation, const QString &role, const QString &text, const QJsonArray &files,
                          const QString &channel, const QString &id)
{
    QJsonObject entry{{QStringLiteral("id"), id.isEmpty() ? newId(QStringLiteral("h")) : id},
                      {QStringLiteral("role"), role},
                      {QStringLiteral("text"), text},
                      {QStringLiteral("at"), now()},
                      {QStringLiteral("conversation"), conversation},
                      {QStringLiteral("channel"), channel}};
    if (!files.isEmpty())
        entry.insert(QStringLiteral("files"), files);
    m_store.put(QStringLiteral("entry"), string(entry, "id"), entry, conversation, now());
    return entry;
}

void Hub::touchConversation(const QString &id, const QString &preview, bool unread)
{
    auto c = m_store.get(QStringLiteral("conversation"), id);
    QJsonObject record = c.value_or(QJsonObject{{QStringLiteral("id"), id},
                                                {QStringLiteral("title"), preview.simplified().left(40).isEmpty()
                                                     ? QStringLiteral("New chat") : preview.simplified().left(40)},
                                                {QStringLiteral("createdAt"), now()},
                                                {QStringLiteral("channel"), QStringLiteral("app")}});
    record.insert(QStringLiteral("updatedAt"), now());
    record.insert(QStringLiteral("preview"), preview.simplified().left(140));
    record.insert(QStringLiteral("unread"), unread);
    m_store.put(QStringLiteral("conversation"), id, record, QString(), now());
}

Hub::Reply Hub::send(const QJsonObject &body, const QString &channel)
{
    const QString conversation = body.contains(QStringLiteral("conversation")) ? string(body, "conversation") : QStringLiteral("main");
    if (!idPattern.match(conversation).hasMatch())
        return error(400, QStringLiteral("A conversation id is letters, digits, - and _."), QStringLiteral("BAD_ID"));
    if (!body.value(QStringLiteral("text")).isString() && !body.value(QStringLiteral("text")).isUndefined())
        return error(400, QStringLiteral("The text must be a string."), QStringLiteral("BAD_TEXT"));
    const QString text = string(body, "text");
    if (text.size() > longestText)
        return error(413, QStringLiteral("A message is at most %1 characters.").arg(longestText), QStringLiteral("TOO_LONG"));
    QJsonArray files;
    for (const QJsonValue &f : body.value(QStringLiteral("files")).toArray()) {
        const QJsonObject file = f.toObject();
        if (!file.value(QStringLiteral("key")).isString() || !file.value(QStringLiteral("name")).isString()
            || !file.value(QStringLiteral("mime")).isString())
            return error(400, QStringLiteral("A file is {key, name, mime}."), QStringLiteral("BAD_FILE"));
        files.append(QJsonObject{{QStringLiteral("key"), file[QStringLiteral("key")]},
                                 {QStringLiteral("name"), string(file, "name").left(200)},
                                 {QStringLiteral("mime"), string(file, "mime").left(100)}});
    }
    if (text.trimmed().isEmpty() && files.isEmpty())
        return error(400, QStringLiteral("Nothing to send."), QStringLiteral("EMPTY"));
    const QJsonObject entry = addEntry(conversation, QStringLiteral("user"), text, files, channel);
    touchConversation(conversation, text, false);
    broadcast({{QStringLiteral("kind"), QStringLiteral("message")}, {QStringLiteral("entry"), entry}});
    startTurn(conversation, text);
    return {200, QJsonObject{{QStringLiteral("entry"), entry}}};
}

void Hub::startTurn(const QString &conversation, const QString &text)
{
    static int turns = 0;
    const int turn = ++turns;
    m_turns[conversation] = turn;
    const QString trimmed = text.trimmed();
    if (trimmed.startsWith(QLatin1String("/tool "))) {
        // A tool request: a session asks, and the turn waits for the answer.
        const QString rest = trimmed.mid(6);
        const qsizetype colon = rest.indexOf(QLatin1Char(':'));
        const QString tool = (colon > 0 ? rest.left(colon) : QStringLiteral("Bash")).trimmed().left(40);
        const QString command = (colon > 0 ? rest.mid(colon + 1) : rest).trimmed().left(2000);
        const QString session = newId(QStringLiteral("s"));
        const QJsonObject record{{QStringLiteral("id"), session},        {QStringLiteral("cwd"), QDir::homePath()},
                                 {QStringLiteral("project"), QStringLiteral("zuv-hub")},
                                 {QStringLiteral("title"), QStringLiteral("%1 for a chat").arg(tool)},
                                 {QStringLiteral("status"), QStringLiteral("running")},
                                 {QStringLiteral("startedAt"), now()},  {QStringLiteral("updatedAt"), now()},
                                 {QStringLiteral("conversation"), conversation}};
        m_store.put(QStringLiteral("session"), session, record, QString(), now());
        const QJsonObject request{{QStringLiteral("id"), newId(QStringLiteral("p"))}, {QStringLiteral("sessionId"), session},
                                  {QStringLiteral("project"), QStringLiteral("zuv-hub")}, {QStringLiteral("tool"), tool},
                                  {QStringLiteral("summary"), command.left(80)}, {QStringLiteral("detail"), command},
                                  {QStringLiteral("at"), now()}, {QStringLiteral("status"), QStringLiteral("pending")}};
        m_store.put(QStringLiteral("permission"), string(request, "id"), request, conversation, now());
        broadcast({{QStringLiteral("kind"), QStringLiteral("cc")},
                   {QStringLiteral("event"), QJsonObject{{QStringLiteral("type"), QStringLiteral("start")},
                                                          {QStringLiteral("sessionId"), session}}}});
        broadcast({{QStringLiteral("kind"), QStringLiteral("perm")}, {QStringLiteral("request"), request}});
        broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("chat")},
                   {QStringLiteral("ref"), conversation}, {QStringLiteral("step"), QStringLiteral("Waiting for your approval…")}});
        return;
    }
    if (sendTurnToAgent(conversation, turn, text))
        return;
    step(conversation, turn, 0, text);
}

void Hub::agentGone(const QString &device)
{
    m_hello.erase(device);
    sessionsGone(device);
    // What it was asked will not be answered: say so now rather than at the time-out.
    for (auto it = m_relayed.begin(); it != m_relayed.end();) {
        if (it->second.device != device) {
            ++it;
            continue;
        }
        const Reply gone = error(503, QStringLiteral("The computer went offline before it answered."), QStringLiteral("COMPUTER_OFFLINE"));
        it->second.responder->write(QJsonDocument(gone.body), QHttpServerResponder::StatusCode(gone.status));
        it = m_relayed.erase(it);
    }
    for (auto it = m_agentTurns.begin(); it != m_agentTurns.end();) {
        if (it->second.device != device) {
            ++it;
            continue;
        }
        const AgentTurn lost = it->second;
        it = m_agentTurns.erase(it);
        if (m_turns.count(lost.conversation) && m_turns[lost.conversation] == lost.turn) {
            m_turns.erase(lost.conversation);
            reply(lost.conversation, QStringLiteral("**The computer went offline during the turn.** Send the message again once it is back."));
        }
    }
}

void Hub::step(const QString &conversation, int turn, int stage, QString text)
{
    static const char *steps[] = {"Reading your message…", "Writing the answer…"};
    if (m_turns.count(conversation) == 0 || m_turns[conversation] != turn)
        return; // stopped, deleted or overtaken
    if (stage < 2) {
        broadcast({{QStringLiteral("kind"), QStringLiteral("step")}, {QStringLiteral("target"), QStringLiteral("chat")},
                   {QStringLiteral("ref"), conversation}, {QStringLiteral("step"), QString::fromUtf8(steps[stage])}});
        QTimer::singleShot(int(m_options.turnDelay * 1000), this,
                           [this, conversation, turn, stage, text] { step(conversation, turn, stage + 1, text); });
        return;
    }
    m_turns.erase(conversation);
    reply(conversation, standInReply(text));
}

void Hub::reply(const QString &conversation, const QString &text)
{
    if (!m_store.get(QStringLiteral("conversation"), conversation))
        return; // deleted meanwhile
    const QJsonObject entry = addEntry(conversation, QStringLiteral("assistant"), text, {}, QStringLiteral("app"));
    touchConversation(conversation, text, true);
    broadcast({{QStringLiteral("kind"), QStringLiteral("message")}, {QStringLiteral("entry"), entry}});
}

Hub::Reply Hub::answerPermission(const QJsonObject &body)
{
    const QString id = string(body, "id");
    if (!body.value(QStringLiteral("allow")).isBool())
        return error(400, QStringLiteral("allow must be true or false."), QStringLiteral("BAD_ANSWER"));
    auto request = idPattern.match(id).hasMatch() ? m_store.get(QStringLiteral("permission"), id) : std::nullopt;
    if (!request)
        return error(404, QStringLiteral("No such tool request."), QStringLiteral("NOT_FOUND"));
    if (string(*request, "status") != QLatin1String("pending"))
        return {200, {}}; // answered already, from another device
    const bool allow = body.value(QStringLiteral("allow")).toBool();
    request->insert(QStringLiteral("status"), allow ? QStringLiteral("allowed") : QStringLiteral("denied"));
    if (const auto route = m_store.get(QStringLiteral("route"), id)) {
        // A computer's session waits for this answer; it reports what follows itself.
        m_store.put(QStringLiteral("permission"), id, *request, string(*request, "sessionId"), request->value(QStringLiteral("at")).toDouble());
        m_store.remove(QStringLiteral("route"), id);
        broadcast({{QStringLiteral("kind"), QStringLiteral("perm")}, {QStringLiteral("request"), *request}});
        if (QWebSocket *agent = agentOf(string(*route, "device")))
            agent->sendTextMessage(compact({{QStringLiteral("type"), QStringLiteral("permission-answer")},
                                            {QStringLiteral("ref"), route->value(QStringLiteral("ref"))},
                                            {QStringLiteral("allow"), allow}}));
        return {200, {}};
    }
    const QString sessionId = string(*request, "sessionId");
    auto session = m_store.get(QStringLiteral("session"), sessionId);
    const QString conversation = session ? string(*session, "conversation") : QString();
    m_store.put(QStringLiteral("permission"), id, *request, conversation, request->value(QStringLiteral("at")).toDouble());
    broadcast({{QStringLiteral("kind"), QStringLiteral("perm")}, {QStringLiteral("request"), *request}});
    if (session) {
        session->insert(QStringLiteral("status"), allow ? QStringLiteral("idle") : QStringLiteral("failed"));
        session->insert(QStringLiteral("updatedAt"), now());
        session->insert(QStringLiteral("lastReply"), allow ? QStringLiteral("Done.") : QStringLiteral("Stopped: not allowed."));
        m_store.put(QStringLiteral("session"), sessionId, *session, QString(), now());
        broadcast({{QStringLiteral("kind"), QStringLiteral("cc")},
                   {QStringLiteral("event"), QJsonObject{{QStringLiteral("type"), QStringLiteral("stop")},
                                                          {QStringLiteral("sessionId"), sessionId}}}});
    }
    if (!conversation.isEmpty() && m_turns.count(conversation)) {
        m_turns.erase(conversation);
        reply(conversation, allow ? QStringLiteral("**Allowed.** The stand-in ran `%1` (in its imagination: this hub runs nothing).")
                                        .arg(string(*request, "detail"))
                                  : QStringLiteral("**Denied.** Nothing ran."));
    }
    return {200, {}};
}

void Hub::broadcast(const QJsonObject &envelope)
{
    const QString frame = compact(envelope);
    for (const auto &socket : m_appSockets)
        if (socket && socket->state() == QAbstractSocket::ConnectedState)
            socket->sendTextMessage(frame);
}

void Hub::accept(std::unique_ptr<QWebSocket> socket)
{
    const QNetworkRequest request = socket->request();
    const QString path = request.url().path();
    const Caller who = caller(request.rawHeader("authorization"), QUrlQuery(request.url()).queryItemValue(QStringLiteral("token")));
    QWebSocket *raw = socket.get();
    if (path == QLatin1String("/agent/ws")) {
        if (who.kind != Caller::Kind::agent) {
            raw->close(QWebSocketProtocol::CloseCode(4401), QStringLiteral("unknown token"));
            raw->deleteLater();
            socket.release();
            return;
        }
        // One agent per computer: a newer one takes the link.
        if (auto old = m_agents.find(who.device); old != m_agents.end()) {
            // Out of the map before closing: the close reports at once.
            std::unique_ptr<QWebSocket> previous = std::move(old->second);
            m_agents.erase(old);
            agentGone(who.device); // its turns end with it
            if (previous) {
                previous->disconnect(this);
                previous->close(QWebSocketProtocol::CloseCode(4409), QStringLiteral("replaced"));
                previous.release()->deleteLater();
            }
        }
        const QString device = who.device;
        connect(raw, &QWebSocket::textMessageReceived, this,
                [this, device](const QString &text) { agentMessage(device, text); });
        connect(raw, &QWebSocket::disconnected, this, [this, raw, device] {
            auto it = m_agents.find(device);
            if (it != m_agents.end() && it->second.get() == raw) {
                it->second.release()->deleteLater();
                m_agents.erase(it);
                agentGone(device);
            }
        });
        m_agents[device] = std::move(socket);
        return;
    }
    if (who.kind != Caller::Kind::access && who.kind != Caller::Kind::phone) {
        raw->close(QWebSocketProtocol::CloseCode(4401), QStringLiteral("unknown token"));
        raw->deleteLater();
        socket.release();
        return;
    }
    connect(raw, &QWebSocket::textMessageReceived, this, [raw](const QString &message) {
        if (message.size() < 200 && QJsonDocument::fromJson(message.toUtf8()).object().value(QStringLiteral("kind")) == QLatin1String("ping"))
            raw->sendTextMessage(QStringLiteral("{\"kind\":\"pong\"}"));
    });
    connect(raw, &QWebSocket::disconnected, this, [this, raw] {
        for (auto it = m_appSockets.begin(); it != m_appSockets.end(); ++it)
            if (it->get() == raw) {
                it->release()->deleteLater();
                m_appSockets.erase(it);
                break;
            }
    });
    m_appSockets.push_back(std::move(socket));
}

} // namespace zuv::hub

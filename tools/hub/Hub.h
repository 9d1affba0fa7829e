#pragma once

#include "HubStore.h"

#include <QHttpServer>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QWebSocket>
#include <QHttpServerResponder>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace zuv::hub {

// A hub of one account on one machine, for development: pairing, tokens, the chat
// with a stand-in assistant, agent sessions and tool requests, the sockets of the
// app, the phone page and the agent. Every request is checked; failures answer
// {"error": {"message", "code"}}.
class Hub : public QObject {
    Q_OBJECT
public:
    struct Options {
        QString data;           // the folder of its store and media
        QHostAddress address = QHostAddress::LocalHost;
        quint16 port = 8765;    // 0: any free port
        double turnDelay = 0.4; // seconds between the stand-in's steps
        QString minimumBuild;   // the desktop's lowest build, when the hub demands one
    };

    explicit Hub(Options options, QObject *parent = nullptr);
    ~Hub() override;

    // The port it listens on; 0 when it could not listen.
    quint16 listen();
    QString problem() const { return m_problem; }

    static constexpr qint64 largestBody = 100 * 1024 * 1024;

private:
    struct Caller {
        enum class Kind { none, agent, access, phone };
        Kind kind = Kind::none;
        QString device; // the computer, for agent and access tokens
    };
    struct Reply {
        int status = 200;
        QJsonObject body;
    };

    void answer(const QHttpServerRequest &request, QHttpServerResponder &&responder);
    Reply route(const QString &method, const QString &path, const QUrlQuery &query, const QJsonObject &body,
                const Caller &caller, const QHttpServerRequest &request);
    Caller caller(const QByteArray &authorization, const QString &queryToken) const;
    void accept(std::unique_ptr<QWebSocket> socket);

    // Requests for the computer go to its agent (that of `device`, or the first one
    // online); the answer comes back on its socket, and `done` sees a result first.
    using Done = std::function<void(const QJsonValue &result)>;
    void relay(const QString &type, QJsonObject message, QHttpServerResponder &&responder, const QString &device = {},
               int seconds = 30, Done done = {});
    QWebSocket *agentOf(const QString &device, QString *found = nullptr) const;

    // Agent sessions, tool requests and clipboards sent to a computer (Sessions.cpp).
    // Gives no reply when the request went on to an agent, which answers it.
    std::optional<Reply> agentWork(const QString &method, const QString &path, const QUrlQuery &query,
                                   const QJsonObject &body, QHttpServerResponder &responder);
    Reply newSession(const QJsonObject &body);
    Reply sessionReply(const QJsonObject &body);
    Reply stopSession(const QJsonObject &body, bool remove);
    void sessionMessage(const QString &device, const QString &type, const QJsonObject &message);
    void sessionsAtHello(const QString &device, const QJsonArray &running);
    void sessionsGone(const QString &device);
    void saveSession(const QJsonObject &session, const QString &event);
    // A new session's record on `device` (its route kept); saved by its first turn.
    QJsonObject sessionRecord(const QString &device, const QString &cwd, const QString &project, const QString &title,
                              const QString &agent);
    // The session's next turn: the person's item, the record saved as running, the
    // turn sent to the computer's agent with what it needs to resume.
    void runTurn(QJsonObject record, const QJsonObject &item, const QString &text, bool chat);
    // Files of a request, each one uploaded here first; none when one is not.
    std::optional<QJsonArray> uploadedFiles(const QJsonValue &files) const;
    void addItem(const QString &session, QJsonObject item);
    double tick();
    double m_lastTick = 0;
    QString m_base; // http://address:port, as it listens
    void agentMessage(const QString &device, const QString &text);
    static std::optional<QJsonObject> clipboardRequest(const QJsonObject &body, QString *why);
    static std::optional<QJsonObject> powerRequest(const QJsonObject &body, QString *why);

    // Pairing and tokens
    Reply pairStart(const QJsonObject &body);
    Reply pairPoll(const QJsonObject &body);
    Reply phonePair(const QJsonObject &body);
    Reply appToken(const Caller &caller);

    // The chat
    Reply send(const QJsonObject &body, const QString &channel);
    void startTurn(const QString &conversation, const QString &text);
    void step(const QString &conversation, int turn, int stage, QString text);
    void reply(const QString &conversation, const QString &text);
    QJsonObject addEntry(const QString &conversation, const QString &role, const QString &text, const QJsonArray &files,
                         const QString &channel, const QString &id = {});
    void touchConversation(const QString &id, const QString &preview, bool unread);
    Reply answerPermission(const QJsonObject &body);
    Reply account(const QString &method, const QString &path, const QJsonObject &body); // Account.cpp

    void broadcast(const QJsonObject &envelope);
    static Reply error(int status, const QString &message, const QString &code = {});
    double now() const;
    QString newId(const QString &prefix) const;

    Options m_options;
    HubStore m_store;
    QHttpServer m_server;
    QString m_problem;
    std::vector<std::unique_ptr<QWebSocket>> m_appSockets;
    std::map<QString, std::unique_ptr<QWebSocket>> m_agents; // by device
    std::map<QString, int> m_turns; // conversation → the running turn's number
    struct Relayed {
        std::shared_ptr<QHttpServerResponder> responder;
        Done done;
        QString device; // whose agent was asked
    };
    std::map<QString, Relayed> m_relayed; // by request id
    int m_nextRelay = 0;
    QJsonObject m_awake; // what the computer's agent last said of staying awake
    std::map<QString, QJsonObject> m_hello; // by device: what each agent can run
    struct AgentTurn {
        QString conversation;
        int turn = 0;
        QString device;
    };
    std::map<QString, AgentTurn> m_agentTurns; // by the session that runs it
    bool sendTurnToAgent(const QString &conversation, int turn, const QString &text);
    void agentGone(const QString &device);
};

} // namespace zuv::hub

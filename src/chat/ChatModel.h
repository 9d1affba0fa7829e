#pragma once

#include "base/Shared.h"

#include "base/Job.h"
#include "chat/EntryList.h"
#include "chat/OutgoingFile.h"
#include "hub/ArchivedMessage.h"
#include "hub/CcChanges.h"
#include "hub/CcPermission.h"
#include "hub/CcSession.h"
#include "hub/Conversation.h"
#include "hub/MacAPI.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QCoro/QCoroTask>

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace zuv {

class AppActivity;
class Badge;
class ChatConnection;
class Clock;
class Defaults;
class Keychain;
class Notifier;

// POSTs `body` and ignores the reply and any failure.
QCoro::Task<void> postQuietly(MacAPI *api, QString path, QJsonObject body, CancelToken token);

// The app's one model of what is said on the account: conversations and their
// messages, agent sessions, open tool requests. It keeps the chat socket open
// while the computer is paired and turns each frame into a change. Main thread.
class ChatModel : public QObject, public Shared<ChatModel> {
    Q_OBJECT
public:
    // Why a session wants the person, in order of weight.
    enum class NeedsYou { approval, failed, reply };

    struct Detail {
        enum class Kind { loaded, failed, gone };
        Kind kind = Kind::failed;
        std::vector<CcItem> items;
        std::optional<CcSession> session;
        std::optional<MacAPI::Failure> failure; // for `failed`, when it was an HTTP one
        QString message;
    };

    struct Handoff {
        QString text;
        std::vector<OutgoingFile> files;
    };

    ChatModel(Clock &clock, Defaults &defaults, Keychain &keychain, MacAPI &api, Notifier &notifier, Badge &badge,
              AppActivity &activity, QObject *parent = nullptr);
    ~ChatModel() override;

    // The conversation that the Quick Ask panel shows while it is up; none otherwise.
    void setQuickAsk(std::function<std::optional<QString>()> conversation) { m_quickAsk = std::move(conversation); }

    // --- The socket
    void start();
    void stop();
    bool live() const { return m_live; }
    bool started() const { return m_socketTask.isRunning(); }

    // Applies one text frame of the socket.
    void handle(const QByteArray &frame);

    // --- Conversations and messages
    const std::vector<Conversation> &conversations() const { return m_conversations; }
    const std::map<QString, EntryList> &entries() const { return m_entries; }
    const EntryList *entries(const QString &conversation) const;
    const QSet<QString> &waiting() const { return m_waiting; }
    const QHash<QString, QString> &steps() const { return m_steps; }
    bool conversationsLoaded() const { return m_conversationsLoaded; }
    bool conversationsFailed() const { return m_conversationsFailed; }
    const QSet<QString> &deleted() const { return m_deleted; }
    const QSet<QString> &loadFailed() const { return m_loadFailed; }
    std::optional<QString> visible() const { return m_visible; }
    void setVisible(const std::optional<QString> &conversation);

    QCoro::Task<void> reloadConversations(bool quiet);
    QCoro::Task<void> reloadLoaded();
    QCoro::Task<void> refresh(QString id);
    void markSeen(const QString &id);
    QString title(const QString &id) const;
    QCoro::Task<void> rename(QString id, QString text);
    QCoro::Task<void> deleteConversation(QString id);
    QString transcript(const QString &id) const;
    QCoro::Task<std::vector<ArchivedMessage>> search(QString query);

    // --- Sending
    QCoro::Task<bool> send(QString text, std::vector<OutgoingFile> files, std::vector<Entry::File> reusing,
                           QString conversation);
    void cancel(const QString &conversation);
    const std::map<QString, Handoff> &handoff() const { return m_handoff; }
    void setHandoff(const QString &conversation, Handoff content);
    std::optional<Handoff> takeHandoff(const QString &conversation);

    // --- Agent sessions
    const std::vector<CcSession> &sessions() const { return m_sessions; }
    bool sessionsLoaded() const { return m_sessionsLoaded; }
    const QHash<QString, QString> &sessionSteps() const { return m_sessionSteps; }
    std::optional<QString> visibleSession() const { return m_visibleSession; }
    void setVisibleSession(const std::optional<QString> &session);
    const QHash<QString, double> &seen() const { return m_seen; }

    QCoro::Task<void> reloadSessions();
    QCoro::Task<Detail> sessionDetail(QString id);
    void noteDetail(const CcSession &session);
    QCoro::Task<std::optional<QString>> newSession(QString cwd, QString prompt, QString agent, QString model,
                                                   QString effort, std::optional<QString> device);
    QCoro::Task<bool> reply(QString text, std::vector<OutgoingFile> files, QString session);
    void stopSession(const QString &id);
    QCoro::Task<bool> removeSession(QString id);
    QCoro::Task<QString> openInTerminal(QString session);
    QCoro::Task<CcChanges> changes(QString id);
    QCoro::Task<std::vector<CcProject>> projects(std::optional<QString> device);
    std::optional<QString> device(const QString &session) const;
    void markSessionSeen(const QString &id);

    // --- Tool requests and what needs the person
    const std::vector<CcPermission> &permissions() const { return m_permissions; }
    QCoro::Task<void> reloadPermissions();
    QCoro::Task<void> answer(QString permission, bool allow);
    std::optional<NeedsYou> needsYou(const CcSession &session) const;
    int needsYouCount() const;

    // Work is under way: a reply awaited or a session working.
    bool busy() const;

    std::optional<QString> error() const { return m_error; }
    void clearError();

    static constexpr double heartbeat = 25;   // seconds between pings
    static constexpr double stallLimit = 70;  // seconds of silence that end a connection
    static constexpr double longestDelay = 30; // seconds between attempts at most
    static constexpr int previewLength = 140;
    static constexpr const char *seenKey = "cc-last-seen";

signals:
    void liveChanged(bool live);
    void conversationsChanged();
    void entriesChanged(const QString &conversation);
    void waitingChanged(); // `waiting` and `steps`
    void deletedChanged();
    void loadFailedChanged();
    void visibleChanged();
    void sessionsChanged(); // `sessions`, `sessionsLoaded`, `sessionSteps`, `seen`, `permissions`
    void handoffChanged();
    void errorChanged();

private:
    struct Attempt {
        bool tookPing = false;
        bool heard = false;
        bool unauthorized = false;
    };

    QCoro::Task<void> socketLoop(CancelToken token);
    QCoro::Task<Attempt> connectOnce(bool first, CancelToken token);
    QCoro::Task<void> beat(ChatConnection *connection, CancelToken token);
    QCoro::Task<void> afterConnect(bool first);
    QCoro::Task<void> reloadSessionsAndPermissions();
    QCoro::Task<void> catchUp();
    QCoro::Task<void> sessionEvent(QString type, QString sessionId);
    QCoro::Task<void> quietReloads();
    void becameActive();
    void heard(Attempt *attempt);

    void handleMessage(const Entry &entry);
    void handleStep(const QString &target, const QString &ref, const std::optional<QString> &step);
    void handlePermission(const CcPermission &request);
    void forget(const QString &conversation); // what a deletion takes away locally
    void bump(const QString &id, const Entry &entry);
    // A quiet reload of the list, merged with one already under way.
    void reloadQuietly();
    Conversation *conversation(const QString &id);
    bool lookingAt(const QString &conversation) const;
    void setUnread(const QString &conversation, bool unread);
    void stopWaiting(const QString &conversation);
    void setLive(bool live);
    void setError(const QString &text);
    // A write whose reply nobody reads: the failure's text, or none when the hub
    // took it. With `goneIsDone`, a session or computer already gone counts as done.
    QCoro::Task<std::optional<QString>> write(QString path, QString method, std::optional<QJsonValue> body,
                                              bool goneIsDone = false);
    // The hub's 404 for a session or computer that no longer exists.
    static bool gone(const MacAPI::Failure &failure);

    void sessionsDidChange(); // the documented sessionsChanged() operation
    void storeSeen();
    void showBadge();
    QString deviceQuery(const QString &session) const;
    const CcSession *session(const QString &id) const;
    static double activity(const CcSession &session);

    Clock &m_clock;
    Defaults &m_defaults;
    Keychain &m_keychain;
    MacAPI &m_api;
    Notifier &m_notifier;
    Badge &m_badge;
    AppActivity &m_activity;
    std::function<std::optional<QString>()> m_quickAsk;

    std::vector<Conversation> m_conversations;
    std::map<QString, EntryList> m_entries;
    QSet<QString> m_waiting;
    QHash<QString, QString> m_steps;
    std::vector<CcSession> m_sessions;
    bool m_sessionsLoaded = false;
    bool m_conversationsLoaded = false;
    bool m_conversationsFailed = false;
    QHash<QString, QString> m_sessionSteps;
    std::vector<CcPermission> m_permissions;
    bool m_live = false;
    std::optional<QString> m_error;
    std::map<QString, Handoff> m_handoff;
    QSet<QString> m_deleted;
    QSet<QString> m_loadFailed;
    std::optional<QString> m_visible;
    std::optional<QString> m_visibleSession;
    QHash<QString, double> m_seen;

    Job m_socketTask;
    QPointer<ChatConnection> m_connection;
    bool m_observing = false;
    Job m_catchUp;
    double m_lastHeard = 0; // uptime
    double m_lastStatusSync = -1e300;
    Job m_sessionsReload;
    Job m_quietReloads;
    bool m_reloadAgain = false;
    CancelToken m_lifetime; // cancelled when the model goes: ends the waits of its tasks
};

} // namespace zuv

#pragma once

#include "clipboard/Clip.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QCoro/QCoroTask>

#include <functional>

namespace zuv {

class ClipboardHistory;
class Workspace;

// The phone's requests for the clipboard history, as the agent prints them
// ("clipboard-ask {…}"), and their answers, one JSON line each on the agent's
// standard input. Pictures go both ways as files in the outbox folder.
class ClipboardRemote : public QObject {
    Q_OBJECT
public:
    // `send` writes one line to the agent.
    ClipboardRemote(ClipboardHistory &history, Workspace &workspace, QString outbox,
                    std::function<bool(const QString &)> send, QObject *parent = nullptr);

    // The folder the agent and we share: Zuv/work/clipboard in the data folder.
    static QString defaultOutbox();

    // One line of the agent's; a malformed one is dropped without a word.
    void handle(const QString &line);
    // The result of one request, or an Error with the text the phone shows.
    QCoro::Task<QJsonObject> answer(QString op, QJsonObject message);
    QJsonObject describe(const Clip &clip) const;
    // Whether `path`, links resolved, lies inside the outbox.
    bool inOutbox(const QString &path) const;

private:
    QCoro::Task<void> answerAndReply(qint64 id, QString op, QJsonObject message);
    void reply(qint64 id, QJsonObject payload);

    ClipboardHistory &m_history;
    Workspace &m_workspace;
    QString m_outbox;
    std::function<bool(const QString &)> m_send;
};

} // namespace zuv

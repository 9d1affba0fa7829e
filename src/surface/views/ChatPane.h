#pragma once

#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QPushButton;
class QStackedWidget;

namespace zuv {

class ChatModel;
class Clock;
class Composer;
class MessageList;
struct Entry;

// One conversation: its messages, the line that tells Zuv is at work, and the
// composer. Files dropped anywhere on it are attached.
class ChatPane : public QWidget {
    Q_OBJECT
public:
    ChatPane(ChatModel &chat, Clock &clock, QWidget *parent = nullptr);
    ~ChatPane() override;

    // Shows `id` (none: shows nothing and lets the model know).
    void setConversation(const std::optional<QString> &id);
    std::optional<QString> conversation() const { return m_conversation; }

    // Sends what the composer holds, as Return does.
    void send();
    // Sends `text` as though typed (the "--send-test" flag).
    void sendText(const QString &text);

    Composer *composer() const { return m_composer; }
    MessageList *messages() const { return m_list; }
    QLabel *workingLine() const { return m_working; }

    std::function<void(const QString &)> readAloud;

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void reload(bool fresh);
    void updateWorking();
    void takeHandoff();
    void resend(const Entry &entry);
    void open(QString id);

    ChatModel &m_chat;
    Clock &m_clock;
    std::optional<QString> m_conversation;
    QLabel *m_note = nullptr;
    QStackedWidget *m_body = nullptr;
    QWidget *m_failed = nullptr;
    QWidget *m_empty = nullptr;
    MessageList *m_list = nullptr;
    QLabel *m_working = nullptr;
    Composer *m_composer = nullptr;
    QLabel *m_dropOverlay = nullptr;
};

} // namespace zuv

#pragma once

#include "base/Job.h"
#include "hub/ArchivedMessage.h"

#include <QMainWindow>

#include <deque>
#include <optional>
#include <vector>

class QLabel;
class QLineEdit;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;

namespace zuv {

class AppModel;
class ChatModel;
class ChatPane;
class Clock;
class Defaults;
class MacAPI;
class SettingsModel;

// The main window: the sidebar of chats and agent sessions, grouped by what they
// need from the person, and the selected one beside it.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    struct Selection {
        enum class Kind { chat, session };
        Kind kind = Kind::chat;
        QString id;
        bool operator==(const Selection &) const = default;
    };

    MainWindow(AppModel &app, ChatModel &chat, SettingsModel &settings, MacAPI &api, Clock &clock, Defaults &defaults,
               QWidget *parent = nullptr);
    ~MainWindow() override;

    const std::optional<Selection> &selection() const { return m_selection; }
    void select(const std::optional<Selection> &selection);
    void newChat();
    // "zuv.open": a conversation, then a session, whichever are given.
    void showItem(const std::optional<QString> &conversation, const std::optional<QString> &session);
    // "--open-chat" id with "--send-test" text: selects, waits two seconds, sends.
    void runTestFlags(const QStringList &arguments);

    QTreeWidget *sidebar() const { return m_tree; }
    QLineEdit *search() const { return m_search; }
    ChatPane *chatPane() const { return m_pane; }
    QLabel *footer() const { return m_footer; }
    const std::vector<ArchivedMessage> &results() const { return m_results; }
    // Rebuilds the sidebar now rather than on the next turn.
    void rebuildNow();

    // Asks before acting; tests answer for the person.
    std::function<std::optional<QString>(const QString &title)> askTitle;
    std::function<bool(const QString &title)> confirmDelete;
    std::function<void(const QString &text)> readAloud;

    static constexpr const char *stateKey = "main-window";

protected:
    void showEvent(QShowEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void rebuild();
    struct Row;
    void fill(const std::deque<Row> &rows, int current);
    void scheduleRebuild();
    void updateDetail();
    void updateFooter();
    void updatePaired();
    void applySelectionRules();
    void searchChanged();
    void contextMenu(const QPoint &at);
    void showError();
    void saveState();
    void restoreState();
    QCoro::Task<void> searchMessages(QString query, CancelToken token);
    QCoro::Task<void> startTasks(CancelToken token);
    QCoro::Task<void> sendAfterWait(QString id, QString text, CancelToken token);

    AppModel &m_app;
    ChatModel &m_chat;
    SettingsModel &m_settings;
    MacAPI &m_api;
    Clock &m_clock;
    Defaults &m_defaults;

    std::optional<Selection> m_selection;
    std::optional<QString> m_thisMac;
    std::vector<ArchivedMessage> m_results;
    QString m_firstConversation;
    QSet<QString> m_deletedSeen;

    QStackedWidget *m_pages = nullptr;
    QTreeWidget *m_tree = nullptr;
    QLineEdit *m_search = nullptr;
    QLabel *m_footer = nullptr;
    QLabel *m_reconnecting = nullptr;
    QStackedWidget *m_detail = nullptr;
    QLabel *m_placeholder = nullptr;
    ChatPane *m_pane = nullptr;
    QLabel *m_session = nullptr;
    bool m_rebuildQueued = false;
    bool m_filling = false;
    bool m_errorShown = false;

    Job m_searchTask;
    Job m_startTask;
    Job m_testSend;
};

} // namespace zuv

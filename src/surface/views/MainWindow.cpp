#include "surface/views/MainWindow.h"

#include "app/AppDelegate.h"
#include "app/Handoff.h"
#include "app/views/Tray.h"
#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Ids.h"
#include "chat/ChatModel.h"
#include "hub/MacAPI.h"
#include "link/AppModel.h"
#include "settings/SettingsModel.h"
#include "surface/Sidebar.h"
#include "surface/TimeLabel.h"
#include "surface/views/ChatPane.h"
#include "surface/views/Headline.h"

#include <QAction>
#include <QCloseEvent>
#include <QFileInfo>
#include <QHeaderView>
#include <QIcon>
#include <QInputDialog>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPointer>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QToolBar>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace zuv {

namespace {

enum Role { kindRole = Qt::UserRole + 1, idRole, dotRole };
enum class RowKind { header, chat, message, session, scheduled };

// The marks are drawn once per colour.
QIcon dot(QRgb color)
{
    static QHash<QRgb, QIcon> drawn;
    if (const auto found = drawn.constFind(color); found != drawn.constEnd())
        return *found;
    QPixmap pixmap(12, 12);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor::fromRgb(color));
    painter.setPen(Qt::NoPen);
    painter.drawEllipse(QRectF(2, 2, 8, 8));
    return *drawn.insert(color, QIcon(pixmap));
}

constexpr QRgb unreadMark = 0xff2f6feb;
constexpr QRgb approvalMark = 0xffe08a00;
constexpr QRgb failedMark = 0xffd0312d;

QString agentWord(const std::optional<QString> &agent)
{
    return agent == QLatin1String("codex") ? QStringLiteral("Codex") : QStringLiteral("Claude");
}

} // namespace

// One line of the sidebar as it should stand; the tree's items are brought in line
// with these in place, so that a change to one chat does not remake ten thousand.
struct MainWindow::Row {
    QString text;
    int kind = 0;         // a RowKind
    QString id;
    bool section = false; // a section's title: bold and dimmed, not selectable
    bool selectable = true;
    QRgb dot = 0;         // the mark's colour; 0: no mark
    QString tooltip;
};

MainWindow::MainWindow(AppModel &app, ChatModel &chat, SettingsModel &settings, MacAPI &api, Clock &clock,
                       Defaults &defaults, QWidget *parent)
    : QMainWindow(parent), m_app(app), m_chat(chat), m_settings(settings), m_api(api), m_clock(clock), m_defaults(defaults)
{
    Tray::loadIcons();
    setWindowTitle(QStringLiteral("Zuv"));
    setWindowIcon(QIcon(QStringLiteral(":/zuv/app.svg")));
    resize(1000, 700);

    m_pages = new QStackedWidget;
    setCentralWidget(m_pages);

    // Unpaired, the whole window asks for pairing.
    auto *prompt = new QWidget;
    {
        auto *box = new QVBoxLayout(prompt);
        box->addStretch();
        auto *icon = new QLabel;
        icon->setPixmap(QIcon(QStringLiteral(":/zuv/app.svg")).pixmap(72, 72));
        icon->setAlignment(Qt::AlignCenter);
        box->addWidget(icon);
        box->addWidget(headline(tr("Pair Zuv with your iPhone"), 1.5));
        auto *text = new QLabel(tr("Sign in to Zuv on your iPhone, then pair this computer to chat here and let Zuv work on it."));
        text->setWordWrap(true);
        text->setAlignment(Qt::AlignCenter);
        box->addWidget(text);
        auto *pair = new QPushButton(tr("Pair with iPhone…"));
        pair->setObjectName(QStringLiteral("pairFromWindow"));
        connect(pair, &QPushButton::clicked, this, [] {
            if (AppDelegate *delegate = AppDelegate::shared())
                delegate->showSetup();
        });
        box->addWidget(pair, 0, Qt::AlignCenter);
        box->addStretch();
    }
    m_pages->addWidget(prompt);

    auto *split = new QSplitter;
    split->setObjectName(QStringLiteral("split"));
    split->setChildrenCollapsible(false);
    auto *side = new QWidget;
    auto *sideColumn = new QVBoxLayout(side);
    sideColumn->setContentsMargins(8, 8, 0, 8);
    m_search = new QLineEdit;
    m_search->setPlaceholderText(tr("Search"));
    m_search->setClearButtonEnabled(true);
    sideColumn->addWidget(m_search);
    m_tree = new QTreeWidget;
    m_tree->setHeaderHidden(true);
    m_tree->setRootIsDecorated(false);
    m_tree->setIndentation(0);
    m_tree->setUniformRowHeights(false);
    m_tree->setContextMenuPolicy(Qt::CustomContextMenu);
    m_tree->setTextElideMode(Qt::ElideRight);
    m_tree->setStyleSheet(QStringLiteral("QTreeWidget::item { padding: 4px 2px; }"));
    sideColumn->addWidget(m_tree, 1);
    m_footer = new QLabel;
    m_footer->setObjectName(QStringLiteral("statusFooter"));
    sideColumn->addWidget(m_footer);
    m_reconnecting = new QLabel(tr("Reconnecting…"));
    m_reconnecting->setForegroundRole(QPalette::PlaceholderText);
    sideColumn->addWidget(m_reconnecting);
    split->addWidget(side);

    m_detail = new QStackedWidget;
    m_placeholder = new QLabel(tr("Pick a conversation, or start a new one with Ctrl+N."));
    m_placeholder->setAlignment(Qt::AlignCenter);
    m_placeholder->setForegroundRole(QPalette::PlaceholderText);
    m_detail->addWidget(m_placeholder);
    m_pane = new ChatPane(chat, clock);
    m_pane->readAloud = [this](const QString &text) {
        if (readAloud)
            readAloud(text);
    };
    m_detail->addWidget(m_pane);
    m_session = new QLabel;
    m_session->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    m_session->setWordWrap(true);
    m_session->setMargin(24);
    m_session->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_detail->addWidget(m_session);
    split->addWidget(m_detail);
    split->setStretchFactor(1, 1);
    split->setSizes({300, 700});
    m_pages->addWidget(split);

    auto *toolbar = addToolBar(tr("Chats"));
    toolbar->setObjectName(QStringLiteral("toolbar"));
    toolbar->setMovable(false);
    QAction *newChatAction = toolbar->addAction(QIcon::fromTheme(QStringLiteral("document-new")), tr("New Chat"));
    newChatAction->setShortcut(QKeySequence::New);
    connect(newChatAction, &QAction::triggered, this, &MainWindow::newChat);
    auto *find = new QAction(tr("Find"), this);
    find->setShortcut(QKeySequence::Find);
    connect(find, &QAction::triggered, this, [this] { m_search->setFocus(); m_search->selectAll(); });
    addAction(find);

    connect(m_tree, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem *item) {
        if (m_filling || !item)
            return;
        const auto kind = RowKind(item->data(0, kindRole).toInt());
        const QString id = item->data(0, idRole).toString();
        if (kind == RowKind::chat || kind == RowKind::message)
            select(Selection{Selection::Kind::chat, id});
        else if (kind == RowKind::session)
            select(Selection{Selection::Kind::session, id});
    });
    connect(m_tree, &QTreeWidget::customContextMenuRequested, this, &MainWindow::contextMenu);
    connect(m_tree, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem *item) {
        if (item->data(0, idRole).toString() == QLatin1String("retry"))
            spawn(m_chat.reloadConversations(false), QStringLiteral("Loading chats"));
    });
    connect(m_search, &QLineEdit::textChanged, this, &MainWindow::searchChanged);

    for (auto signal : {&ChatModel::conversationsChanged, &ChatModel::waitingChanged, &ChatModel::sessionsChanged})
        connect(&m_chat, signal, this, &MainWindow::scheduleRebuild);
    connect(&m_chat, &ChatModel::conversationsChanged, this, &MainWindow::applySelectionRules);
    connect(&m_chat, &ChatModel::deletedChanged, this, &MainWindow::applySelectionRules);
    connect(&m_chat, &ChatModel::sessionsChanged, this, &MainWindow::updateDetail);
    connect(&m_chat, &ChatModel::liveChanged, this, &MainWindow::updateFooter);
    connect(&m_chat, &ChatModel::errorChanged, this, &MainWindow::showError);
    connect(&m_settings, &SettingsModel::changed, this, &MainWindow::scheduleRebuild);
    connect(&m_app, &AppModel::connectedChanged, this, &MainWindow::updateFooter);
    connect(&m_app, &AppModel::pairingChanged, this, &MainWindow::updatePaired);

    askTitle = [this](const QString &title) -> std::optional<QString> {
        bool ok = false;
        const QString text = QInputDialog::getText(this, tr("Rename Chat"), tr("Title"), QLineEdit::Normal, title, &ok);
        return ok ? std::optional<QString>(text) : std::nullopt;
    };
    confirmDelete = [this](const QString &title) {
        QMessageBox box(QMessageBox::Warning, tr("Delete “%1”?").arg(title),
                        tr("The conversation and its messages are removed from Zuv."), QMessageBox::NoButton, this);
        QPushButton *remove = box.addButton(tr("Delete"), QMessageBox::DestructiveRole);
        box.addButton(QMessageBox::Cancel);
        box.exec();
        return box.clickedButton() == remove;
    };

    restoreState();
    updatePaired();
    updateFooter();
    rebuild();
}

MainWindow::~MainWindow()
{
    // The app quits with the window open: its place is kept all the same.
    if (isVisible())
        saveState();
}

void MainWindow::updatePaired()
{
    const bool paired = m_app.pairing().state == AppModel::Pairing::State::paired;
    m_pages->setCurrentIndex(paired ? 1 : 0);
    if (paired && isVisible() && !m_startTask.isRunning())
        m_startTask = Job::start([this](CancelToken token) { return startTasks(std::move(token)); },
                                 QStringLiteral("Starting the main window"));
}

QCoro::Task<void> MainWindow::startTasks(CancelToken token)
{
    QPointer<MainWindow> self(this);
    m_chat.start(); // harmless when it runs
    if (!m_settings.overview())
        spawn(m_settings.load(), QStringLiteral("Loading the account"));
    const std::optional<QString> mac = co_await m_api.thisMac();
    if (!self || token.isCancelled())
        co_return;
    m_thisMac = mac;
    scheduleRebuild();
}

void MainWindow::showEvent(QShowEvent *event)
{
    QMainWindow::showEvent(event);
    updatePaired();
    applySelectionRules();
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    saveState();
    // The pane lets go of its conversation: nobody reads it with the window shut.
    select(std::nullopt);
    QMainWindow::closeEvent(event);
}

void MainWindow::saveState()
{
    QJsonObject state;
    state.insert(QStringLiteral("geometry"), QString::fromLatin1(saveGeometry().toBase64()));
    if (auto *split = findChild<QSplitter *>(QStringLiteral("split")))
        state.insert(QStringLiteral("split"), QString::fromLatin1(split->saveState().toBase64()));
    m_defaults.set(stateKey, state);
}

void MainWindow::restoreState()
{
    const QJsonObject state = m_defaults.value(stateKey).toObject();
    if (state.isEmpty())
        return;
    restoreGeometry(QByteArray::fromBase64(state.value(QStringLiteral("geometry")).toString().toLatin1()));
    if (auto *split = findChild<QSplitter *>(QStringLiteral("split")))
        split->restoreState(QByteArray::fromBase64(state.value(QStringLiteral("split")).toString().toLatin1()));
}

void MainWindow::select(const std::optional<Selection> &selection)
{
    m_selection = selection;
    updateDetail();
    scheduleRebuild();
}

void MainWindow::newChat() { select(Selection{Selection::Kind::chat, Ids::conversation()}); }

void MainWindow::showItem(const std::optional<QString> &conversation, const std::optional<QString> &session)
{
    if (conversation)
        select(Selection{Selection::Kind::chat, *conversation});
    if (session)
        select(Selection{Selection::Kind::session, *session});
}

void MainWindow::runTestFlags(const QStringList &arguments)
{
    const auto id = Handoff::value(arguments, QStringLiteral("--open-chat"));
    const auto text = Handoff::value(arguments, QStringLiteral("--send-test"));
    if (!id || !text)
        return;
    select(Selection{Selection::Kind::chat, *id});
    m_testSend = Job::start([this, id = *id, text = *text](CancelToken token) { return sendAfterWait(id, text, token); },
                            QStringLiteral("Sending the test message"));
}

QCoro::Task<void> MainWindow::sendAfterWait(QString id, QString text, CancelToken token)
{
    QPointer<MainWindow> self(this);
    const bool waited = co_await m_clock.sleep(2.0, token);
    if (!waited || !self)
        co_return;
    // Through the composer, as a person would send it.
    // No braced lists in this coroutine: GCC 12 mishandles them.
    if (!m_selection || m_selection->kind != Selection::Kind::chat || m_selection->id != id)
        showItem(id, std::nullopt);
    m_pane->sendText(text);
}

void MainWindow::updateDetail()
{
    if (!m_selection) {
        m_pane->setConversation(std::nullopt);
        m_detail->setCurrentWidget(m_placeholder);
        return;
    }
    if (m_selection->kind == Selection::Kind::chat) {
        m_pane->setConversation(m_selection->id);
        m_detail->setCurrentWidget(m_pane);
        return;
    }
    m_pane->setConversation(std::nullopt);
    // The session's own pane comes with its change; until then its facts.
    QString text;
    for (const CcSession &s : m_chat.sessions()) {
        if (s.id != m_selection->id)
            continue;
        text = QStringLiteral("<h3>%1</h3><p>%2 · %3</p><p>%4</p>")
                   .arg(s.title.value_or(s.project).toHtmlEscaped(), agentWord(s.agent), s.project.toHtmlEscaped(),
                        s.lastReply.value_or(QString()).toHtmlEscaped());
    }
    m_session->setText(text.isEmpty() ? tr("This session is no longer listed.") : text);
    m_detail->setCurrentWidget(m_session);
}

void MainWindow::updateFooter()
{
    const bool connected = m_app.connected();
    m_footer->setText(QStringLiteral("<span style=\"color:%1\">●</span> %2")
                          .arg(connected ? QStringLiteral("#2e9d5b") : QStringLiteral("#e08a00"),
                               connected ? tr("This computer is connected") : tr("This computer is offline")));
    m_reconnecting->setVisible(!m_chat.live());
}

void MainWindow::applySelectionRules()
{
    const auto &conversations = m_chat.conversations();
    // A deleted chat that was selected gives way to the first one.
    if (m_selection && m_selection->kind == Selection::Kind::chat && m_chat.deleted().contains(m_selection->id)) {
        select(conversations.empty() ? std::nullopt
                                     : std::optional<Selection>(Selection{Selection::Kind::chat, conversations.front().id}));
    }
    const QString first = conversations.empty() ? QString() : conversations.front().id;
    if (!m_selection && !first.isEmpty() && (isVisible() || first != m_firstConversation))
        select(Selection{Selection::Kind::chat, first});
    m_firstConversation = first;
}

void MainWindow::searchChanged()
{
    scheduleRebuild();
    m_searchTask = Job::start([this, q = m_search->text()](CancelToken token) { return searchMessages(q, token); },
                              QStringLiteral("Searching messages"));
}

QCoro::Task<void> MainWindow::searchMessages(QString query, CancelToken token)
{
    QPointer<MainWindow> self(this);
    if (!Sidebar::searchesMessages(query)) {
        m_results.clear();
        scheduleRebuild();
        co_return;
    }
    const bool waited = co_await m_clock.sleep(0.3, token);
    if (!waited || !self)
        co_return;
    std::vector<ArchivedMessage> found = co_await m_chat.search(query.trimmed());
    if (!self || token.isCancelled())
        co_return;
    m_results = std::move(found);
    scheduleRebuild();
}

void MainWindow::scheduleRebuild()
{
    if (m_rebuildQueued)
        return;
    m_rebuildQueued = true;
    QMetaObject::invokeMethod(this, &MainWindow::rebuild, Qt::QueuedConnection);
}

void MainWindow::rebuildNow() { rebuild(); }

void MainWindow::rebuild()
{
    m_rebuildQueued = false;
    const QDateTime now = m_clock.date();
    const QString query = m_search->text();
    std::deque<Row> rows; // a deque: the references handed out stay good
    int current = -1;

    const auto section = [&rows](const QString &title) {
        Row header;
        header.text = title;
        header.section = true;
        header.selectable = false;
        rows.push_back(header);
    };
    const auto row = [&](const QString &text, RowKind kind, const QString &id) -> Row & {
        Row line;
        line.text = text;
        line.kind = int(kind);
        line.id = id;
        const bool chosen = m_selection && ((kind == RowKind::chat && m_selection->kind == Selection::Kind::chat)
                                            || (kind == RowKind::session && m_selection->kind == Selection::Kind::session))
            && m_selection->id == id;
        if (chosen)
            current = int(rows.size());
        rows.push_back(line);
        return rows.back();
    };

    section(tr("Chats"));
    const auto conversations = Sidebar::filtered(m_chat.conversations(), query);
    if (m_chat.conversationsFailed() && m_chat.conversations().empty()) {
        Row &failed = row(QStringLiteral("⚠ ") + tr("Couldn't load your chats") + u'\n' + tr("Try Again"), RowKind::header, {});
        failed.id = QStringLiteral("retry");
    } else if (m_chat.conversations().empty() && query.trimmed().isEmpty()) {
        row(tr("No chats yet. Write to Zuv to start one (Ctrl+N)."), RowKind::header, {}).selectable = false;
    }
    for (const Conversation &c : conversations) {
        const bool waiting = m_chat.waiting().contains(c.id);
        const QString second = waiting ? m_chat.steps().value(c.id, tr("Zuv is thinking…")) : Conversation::plain(c.preview);
        Row &item = row(c.title + QStringLiteral("  ·  ") + TimeLabel::relative(c.updatedAt, now) + u'\n' + second.left(120),
                        RowKind::chat, c.id);
        if (c.unread.value_or(false)) {
            item.dot = unreadMark;
            item.tooltip = tr("Unread");
        }
    }

    if (!m_results.empty()) {
        section(tr("Messages"));
        for (const ArchivedMessage &m : m_results) {
            const QString who = m.role == QLatin1String("user") ? tr("You") : QStringLiteral("Zuv");
            row(who + QStringLiteral(" · ") + m.place() + u'\n' + m.text.left(120), RowKind::message,
                m.conversation().value_or(QString()));
        }
    }

    const Sidebar::Sections sections = Sidebar::sections(m_chat, m_settings.overview(), query);
    const auto sessionRow = [&](const CcSession &s) {
        QStringList second{QStringLiteral("📁 ") + s.project};
        if (s.model)
            second << *s.model;
        if (s.terminal.value_or(false))
            second << tr("Continued in Terminal");
        if (const auto other = Sidebar::macName(s.device, m_thisMac, m_settings.me()))
            second << *other;
        QString state;
        const auto reason = m_chat.needsYou(s);
        if (reason == ChatModel::NeedsYou::approval)
            state = tr("Needs approval");
        else if (Sidebar::working(s))
            state = m_chat.sessionSteps().value(s.id, tr("Working"));
        else if (s.status == QLatin1String("failed"))
            state = tr("failed");
        else
            state = TimeLabel::relative(s.updatedAt.value_or(s.startedAt), now);
        Row &item = row(agentWord(s.agent) + QStringLiteral("  ") + s.title.value_or(s.project) + QStringLiteral("  ·  ") + state
                            + u'\n' + second.join(QStringLiteral(" · ")),
                        RowKind::session, s.id);
        if (reason == ChatModel::NeedsYou::approval)
            item.dot = approvalMark;
        else if (reason)
            item.dot = unreadMark;
        else if (s.status == QLatin1String("failed"))
            item.dot = failedMark;
    };
    if (!sections.needsYou.empty()) {
        section(QStringLiteral("📥 ") + tr("Needs You"));
        for (const CcSession &s : sections.needsYou)
            sessionRow(s);
    }
    if (!sections.working.empty()) {
        section(tr("Working"));
        for (const CcSession &s : sections.working)
            sessionRow(s);
    }
    if (!sections.scheduled.empty()) {
        section(tr("Scheduled"));
        for (const Sidebar::Scheduled &s : sections.scheduled) {
            QString where = QStringLiteral("📁 ") + QFileInfo(s.target.cwd).fileName();
            if (const auto other = Sidebar::macName(s.target.device, m_thisMac, m_settings.me()))
                where += QStringLiteral(" · ") + *other;
            row(QStringLiteral("🕑 ") + agentWord(s.target.agent) + QStringLiteral("  ") + s.schedule.prompt + u'\n'
                    + (s.schedule.spec ? s.schedule.spec->summary() : s.schedule.when) + QStringLiteral(" · ") + where,
                RowKind::scheduled, s.schedule.id);
        }
    }
    if (!sections.rest.empty() || !m_chat.sessionsLoaded()) {
        section(sections.restTitle);
        if (!m_chat.sessionsLoaded())
            row(tr("Loading sessions…"), RowKind::header, {}).selectable = false;
        for (const CcSession &s : sections.rest)
            sessionRow(s);
    }
    fill(rows, current);
}

void MainWindow::fill(const std::deque<Row> &rows, int current)
{
    m_filling = true;
    m_tree->setUpdatesEnabled(false);
    QFont bold = m_tree->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 0.9);
    const QColor dim = m_tree->palette().color(QPalette::PlaceholderText);
    const int count = int(rows.size());
    for (int i = 0; i < count; ++i) {
        const Row &r = rows[size_t(i)];
        QTreeWidgetItem *item = m_tree->topLevelItem(i);
        if (!item)
            item = new QTreeWidgetItem(m_tree);
        // Only what differs is set: an unchanged row costs a few comparisons.
        if (item->text(0) != r.text)
            item->setText(0, r.text);
        if (item->data(0, kindRole) != QVariant(r.kind))
            item->setData(0, kindRole, r.kind);
        if (item->data(0, idRole).toString() != r.id)
            item->setData(0, idRole, r.id);
        const Qt::ItemFlags flags = r.selectable ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::ItemIsEnabled;
        if (item->flags() != flags)
            item->setFlags(flags);
        if (item->data(0, dotRole).toUInt() != r.dot) {
            item->setData(0, dotRole, r.dot);
            item->setIcon(0, r.dot ? dot(r.dot) : QIcon());
        }
        if (item->toolTip(0) != r.tooltip)
            item->setToolTip(0, r.tooltip);
        if (item->data(0, Qt::FontRole).isValid() != r.section) {
            item->setData(0, Qt::FontRole, r.section ? QVariant(bold) : QVariant());
            item->setData(0, Qt::ForegroundRole, r.section ? QVariant(QBrush(dim)) : QVariant());
        }
    }
    while (m_tree->topLevelItemCount() > count)
        delete m_tree->takeTopLevelItem(m_tree->topLevelItemCount() - 1);
    if (current >= 0) {
        m_tree->setCurrentItem(m_tree->topLevelItem(current));
    } else {
        m_tree->clearSelection();
        m_tree->setCurrentItem(nullptr);
    }
    m_tree->setUpdatesEnabled(true);
    m_filling = false;
}

void MainWindow::contextMenu(const QPoint &at)
{
    QTreeWidgetItem *item = m_tree->itemAt(at);
    if (!item)
        return;
    const auto kind = RowKind(item->data(0, kindRole).toInt());
    const QString id = item->data(0, idRole).toString();
    QMenu menu;
    if (kind == RowKind::chat) {
        menu.addAction(tr("Rename…"), this, [this, id] {
            if (const auto title = askTitle(m_chat.title(id)))
                spawn(m_chat.rename(id, *title), QStringLiteral("Renaming a chat"));
        });
        menu.addAction(tr("Delete…"), this, [this, id] {
            if (confirmDelete(m_chat.title(id)))
                spawn(m_chat.deleteConversation(id), QStringLiteral("Deleting a chat"));
        });
    } else if (kind == RowKind::session) {
        for (const CcSession &s : m_chat.sessions())
            if (s.id == id && m_chat.needsYou(s) == ChatModel::NeedsYou::reply)
                menu.addAction(tr("Mark as Read"), this, [this, id] { m_chat.markSessionSeen(id); });
        menu.addAction(tr("Remove from List"), this, [this, id] {
            if (m_selection && m_selection->kind == Selection::Kind::session && m_selection->id == id)
                select(std::nullopt);
            spawn([](ChatModel *chat, QString id) -> QCoro::Task<void> { co_await chat->removeSession(id); }(&m_chat, id),
                  QStringLiteral("Removing a session"));
        });
    } else if (id == QLatin1String("retry")) {
        menu.addAction(tr("Try Again"), this, [this] { spawn(m_chat.reloadConversations(false), QStringLiteral("Loading chats")); });
    }
    if (!menu.isEmpty())
        menu.exec(m_tree->viewport()->mapToGlobal(at));
}

void MainWindow::showError()
{
    const auto error = m_chat.error();
    if (!error || m_errorShown)
        return;
    m_errorShown = true;
    auto *box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Zuv"), *error, QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("chatError"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this] {
        m_errorShown = false;
        m_chat.clearError();
    });
    box->open();
}

} // namespace zuv

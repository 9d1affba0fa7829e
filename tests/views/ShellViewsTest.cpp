// The faces of the app on real widgets against the in-process hub: the tray menu,
// the setup guide through pairing, the main window's list and composer, drops,
// hand-offs and the flags of a launch.
#include "app/Handoff.h"
#include "app/WindowOpener.h"
#include "app/views/AppShell.h"
#include "app/views/SetupWindow.h"
#include "app/views/Tray.h"
#include "settings/Models.h"
#include "settings/SettingsModel.h"
#include "surface/views/ChatPane.h"
#include "surface/views/Composer.h"
#include "surface/views/MainWindow.h"
#include "surface/views/MessageList.h"

#include "../chat/ChatFixture.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMimeData>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTest>
#include <QTreeWidget>

using namespace zuv;
using namespace zuv::test;

namespace {

QStringList menuLines(QMenu *menu)
{
    QStringList out;
    for (QAction *a : menu->actions())
        out << (a->isSeparator() ? QStringLiteral("—") : a->text() + (a->isEnabled() ? "" : " [off]"));
    return out;
}

QStringList rows(QTreeWidget *tree)
{
    QStringList out;
    for (int i = 0; i < tree->topLevelItemCount(); ++i)
        out << tree->topLevelItem(i)->text(0);
    return out;
}

QTreeWidgetItem *rowFor(QTreeWidget *tree, const QString &id)
{
    for (int i = 0; i < tree->topLevelItemCount(); ++i)
        if (tree->topLevelItem(i)->data(0, Qt::UserRole + 2).toString() == id)
            return tree->topLevelItem(i);
    return nullptr;
}

// A paired computer with its chat against the hub, and the app's faces on top.
struct Shell : ChatFixture, ::testing::Test {
    Models models{clock, defaults};
    SettingsModel settings{api, models};
    WindowOpener opener;
    std::unique_ptr<AppModel> model;
    std::unique_ptr<AppShell> shell;
    MenuContent::State state;
    std::vector<MenuContent::Action> performed;

    explicit Shell(bool paired = true)
    {
        if (!paired)
            keychain.setToken(std::nullopt);
        hub.on("GET", "/app/me", TestHub::json(QJsonObject{{"user", QJsonObject{{"id", "u"}}}, {"owner", false}}));
        hub.on("GET", "/app/overview", TestHub::json(QJsonObject{}));
        hub.on("GET", "/app/history", TestHub::json(QJsonObject{{"entries", QJsonArray{}}}));
        model = makeModel();
        model->setDesktop({nullptr, nullptr, [](const QString &, const QStringList &, double) {
                               return std::optional<LoginShell::Result>();
                           }, {}});
        shell = std::make_unique<AppShell>(AppShell::Parts{*model, *chat, settings, api, clock, defaults, opener,
                                                           [this] { return state; }, {}, {}, {}, {}, {}});
    }
    ~Shell() override
    {
        shell.reset();
        model->stopChildren();
    }
    MainWindow &window()
    {
        shell->openMain();
        return *shell->mainWindow();
    }
};

} // namespace

TEST(TrayView, theMenuIsRebuiltFromTheStateAndItsLinesAct)
{
    MenuContent::State state;
    Tray tray([&] { return state; });
    std::vector<MenuContent::Action> acted;
    QObject::connect(&tray, &Tray::triggered, [&](MenuContent::Action a) { acted.push_back(a); });

    emit tray.menu()->aboutToShow();
    EXPECT_EQ(menuLines(tray.menu()), QStringList({"Not paired with an iPhone [off]", "—", "Open Zuv", "—",
                                                   "Pair with iPhone…", "Open Logs Folder", "Check for Updates…", "—",
                                                   "Quit Zuv"}));
    state.paired = true;
    state.connected = true;
    state.answers = false;
    state.lastError = "The hub refused this computer's token; pair it again to go on.";
    emit tray.menu()->aboutToShow();
    const QStringList lines = menuLines(tray.menu());
    EXPECT_EQ(lines.mid(0, 4), QStringList({"Connected (Zuv doesn't answer here) [off]",
                                            "The hub refused this computer's token; [off]", "pair it again to go on. [off]",
                                            "Set Up Claude Code…"}));
    EXPECT_TRUE(lines.contains("Disconnect This Computer…"));
    for (QAction *a : tray.menu()->actions()) {
        if (a->text() == "Settings…") {
            EXPECT_EQ(a->shortcut(), QKeySequence("Ctrl+,"));
        }
    }
    tray.menu()->actions().at(3)->trigger();
    ASSERT_EQ(acted.size(), 1u);
    EXPECT_EQ(acted[0], MenuContent::Action::setUpClaude);

    tray.setNeedsYou(2);
    EXPECT_TRUE(tray.icon()->toolTip().contains("2 session(s) need you") || tray.icon()->toolTip().contains("2 sessions"))
        << qPrintable(tray.icon()->toolTip());
    EXPECT_FALSE(Tray::trayIcon(true).pixmap(22).isNull());
}

struct Unpaired : Shell {
    Unpaired() : Shell(false) {}
};

TEST_F(Unpaired, theGuidePairsWithAQrCodeAndTheWindowFollows)
{
    hub.on("POST", "/pair/start",
           TestHub::json(QJsonObject{{"code", "ABCD1234"}, {"secret", "s"}, {"expiresAt", 1.9e12}}));
    hub.sequence("POST", "/pair/poll",
                 {TestHub::json(QJsonObject{{"status", "pending"}}),
                  TestHub::json(QJsonObject{{"status", "paired"}, {"token", "agent-token"}})});
    MainWindow &main = window();
    auto *pairFromWindow = main.findChild<QPushButton *>("pairFromWindow");
    ASSERT_TRUE(pairFromWindow);
    EXPECT_TRUE(pairFromWindow->isVisible()) << "unpaired, the whole window asks for pairing";

    shell->showSetup();
    SetupWindow *guide = shell->setupWindow();
    ASSERT_TRUE(guide);
    auto *pair = guide->findChild<QPushButton *>("pairButton");
    auto *code = guide->findChild<QLabel *>("code");
    auto *qr = guide->findChild<QLabel *>("qr");
    EXPECT_EQ(pair->text(), "Show Pairing Code");
    EXPECT_EQ(guide->findChild<QLabel *>("pairingText")->text(), "Get the Zuv app on your iPhone and sign in, then:");
    QTest::mouseClick(pair, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return code->isVisible(); }));
    EXPECT_EQ(code->text(), "ABCD-1234");
    EXPECT_FALSE(pair->isVisible()) << "no second press while the code shows";
    EXPECT_FALSE(qr->pixmap().isNull());

    for (int i = 0; i < 10 && model->pairing().state != AppModel::Pairing::State::paired; ++i) {
        waitUntil([&] { return clock.sleepers() > 0; });
        clock.advance(2);
        waitUntil([&] { return model->pairing().state == AppModel::Pairing::State::paired; }, 500);
    }
    ASSERT_EQ(model->pairing().state, AppModel::Pairing::State::paired);
    EXPECT_EQ(guide->findChild<QLabel *>("pairingText")->text(), "Paired. Zuv answers from this computer.");
    EXPECT_EQ(pair->text(), "Pair Again");
    EXPECT_FALSE(pairFromWindow->isVisible()) << "paired, the window shows the chats";
    EXPECT_EQ(guide->findChild<QLabel *>("codexStatus")->text(), "Codex: not installed (optional)");
    EXPECT_TRUE(waitUntil([&] { return settings.me().has_value() || settings.failed(); })) << "paired, the window loads the account";
}

TEST_F(Shell, theWindowListsChatsMarksUnreadAndSendsFromTheComposer)
{
    list("/app/conversations", "conversations",
         {conversationJson("c1", "Plans", 2000), conversationJson("c2", "Recipes", 1000, true)});
    hub.on("GET", "/app/history",
           TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("a1", "assistant", "# Hello\n\n| a | b |\n|---|---|\n| 1 | 2 |\n\n```\ncode\n```", 1500, "c1")}}}));
    MainWindow &main = window();
    ASSERT_TRUE(connectSocket());
    ASSERT_TRUE(waitUntil([&] { return rowFor(main.sidebar(), "c2") != nullptr; }));
    QTreeWidgetItem *plans = rowFor(main.sidebar(), "c1");
    ASSERT_TRUE(plans);
    EXPECT_TRUE(plans->text(0).startsWith("Plans"));
    EXPECT_EQ(plans->toolTip(0), "");
    EXPECT_EQ(rowFor(main.sidebar(), "c2")->toolTip(0), "Unread") << "the chat nobody opened keeps its mark";
    EXPECT_FALSE(rows(main.sidebar()).contains("Agents")) << "a section without rows stays hidden";
    ASSERT_TRUE(main.selection());
    EXPECT_EQ(main.selection()->id, "c1") << "the first conversation is chosen on opening";

    ChatPane *pane = main.chatPane();
    ASSERT_TRUE(waitUntil([&] { return pane->messages()->rows() == 1; }));
    EXPECT_TRUE(waitUntil([&] { return hub.count("POST", "/app/seen") == 1; })) << "the opened chat is marked seen";

    // Return sends; the echo shows at once and the hub's entry takes its place.
    hub.on("POST", "/app/send", [](const TestHub::Request &r) {
        const QJsonObject body = r.json().toObject();
        auto response = TestHub::json(QJsonObject{{"entry", entryJson("h1", "user", body["text"].toString(), 5000, "c1", "app")}});
        response.delayMs = 100;
        return response;
    });
    pane->composer()->field()->setFocus();
    QTest::keyClicks(pane->composer()->field(), "first line");
    QTest::keyClick(pane->composer()->field(), Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(pane->composer()->field(), "second");
    EXPECT_EQ(pane->composer()->text(), "first line\nsecond") << "Shift+Return breaks the line";
    QTest::keyClick(pane->composer()->field(), Qt::Key_Return);
    EXPECT_EQ(pane->composer()->text(), "");
    ASSERT_TRUE(waitUntil([&] { return pane->messages()->rows() == 2; })) << "the echo";
    EXPECT_TRUE(pane->workingLine()->isVisible());
    ASSERT_TRUE(waitUntil([&] { return ids("c1").contains("h1"); }));
    EXPECT_EQ(ids("c1"), QStringList({"a1", "h1"})) << "the hub's entry replaced the echo";
    EXPECT_EQ(pane->messages()->rows(), 2);
    EXPECT_EQ(hub.requests("POST", "/app/send").at(0).json().toObject()["text"].toString(), "first line\nsecond");

    // A reply frame lands in the list and ends the working line.
    ASSERT_TRUE(frame(QJsonObject{{"kind", "message"}, {"entry", entryJson("a2", "assistant", "**Done**", 6000, "c1")}}));
    EXPECT_EQ(pane->messages()->rows(), 3);
    EXPECT_FALSE(chat->waiting().contains("c1"));

    // A failing send gives the draft back, but never over what was typed meanwhile.
    hub.on("POST", "/app/send", TestHub::error(500, "down"));
    pane->sendText("lost?");
    ASSERT_TRUE(waitUntil([&] { return pane->composer()->text() == "lost?"; }));
    pane->composer()->setText("");

    // The search filters the list; rename goes to the hub.
    QTest::keyClicks(main.search(), "rec");
    main.rebuildNow();
    EXPECT_EQ(rowFor(main.sidebar(), "c1"), nullptr);
    EXPECT_NE(rowFor(main.sidebar(), "c2"), nullptr);
    main.search()->clear();
}

TEST_F(Shell, dropsHandOffsAndLaunchFlagsReachTheComposerAndTheHub)
{
    list("/app/conversations", "conversations", {conversationJson("c1", "Plans", 2000)});
    writeText(home.file("notes.txt"), "notes");
    MainWindow &main = window();
    ChatPane *pane = main.chatPane();
    ASSERT_TRUE(waitUntil([&] { return main.selection().has_value(); }));

    // A file dragged from the file manager is attached.
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(home.file("notes.txt"))});
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pane, &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pane, &drop);
    ASSERT_EQ(pane->composer()->files().size(), 1u);
    EXPECT_EQ(pane->composer()->files()[0].name, "notes.txt");

    // A second launch with a file: a fresh chat holding it.
    const auto files = Handoff::files({"zuv", home.file("notes.txt")});
    Handoff::start(*model, *chat, opener, {}, "look at this", *files);
    ASSERT_TRUE(waitUntil([&] { return main.selection() && main.selection()->id != "c1"; }));
    EXPECT_EQ(main.selection()->id.size(), 16);
    EXPECT_EQ(pane->composer()->text(), "look at this");
    ASSERT_EQ(pane->composer()->files().size(), 1u);
    EXPECT_TRUE(chat->handoff().empty()) << "taken once";

    // "--open-chat" with "--send-test": the chat, two seconds, then the message.
    hub.on("POST", "/app/send", [](const TestHub::Request &r) {
        return TestHub::json(QJsonObject{{"entry", entryJson("h9", "user", r.json().toObject()["text"].toString(), 5000, "c1", "app")}});
    });
    shell->runFlags({"zuv", "--send-test", "ping"});
    EXPECT_EQ(main.selection()->id.size(), 16) << "one flag alone does nothing";
    shell->runFlags({"zuv", "--open-chat", "c1", "--send-test", "ping"});
    EXPECT_EQ(main.selection()->id, "c1");
    clock.advance(1.9);
    drain();
    EXPECT_EQ(hub.count("POST", "/app/send"), 0);
    clock.advance(0.2);
    ASSERT_TRUE(waitUntil([&] { return hub.count("POST", "/app/send") == 1; }));
    EXPECT_EQ(hub.requests("POST", "/app/send").at(0).json().toObject()["text"].toString(), "ping");

    // A new chat from the menu, and the window's item requests.
    shell->perform(MenuContent::Action::newChat);
    EXPECT_NE(main.selection()->id, "c1");
    main.showItem(QString("c1"), QString("s9"));
    EXPECT_EQ(main.selection()->kind, MainWindow::Selection::Kind::session) << "the session wins";
}

TEST_F(Shell, disconnectAsksFirstAndTheChatErrorShowsOnce)
{
    int asked = 0;
    shell->confirmDisconnect = [&] {
        ++asked;
        return false;
    };
    shell->perform(MenuContent::Action::disconnect);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(model->pairing().state, AppModel::Pairing::State::paired) << "cancelled: still paired";
    shell->confirmDisconnect = [] { return true; };
    shell->perform(MenuContent::Action::disconnect);
    EXPECT_EQ(model->pairing().state, AppModel::Pairing::State::unpaired);
}

TEST_F(Shell, hostileContentDegradesWithoutLosingTheWayToTheWindow)
{
    // A hub that fails every load: the list says so and offers to try again.
    hub.on("GET", "/app/conversations", TestHub::error(500, "down"));
    MainWindow &main = window();
    await(chat->reloadConversations(false));
    main.rebuildNow();
    ASSERT_TRUE(rowFor(main.sidebar(), "retry")) << qPrintable(rows(main.sidebar()).join('|'));
    EXPECT_TRUE(rows(main.sidebar()).join('|').contains("Couldn't load your chats"));

    // Ten thousand chats, an enormous reply, a huge table, a broken link.
    QJsonArray many;
    for (int i = 0; i < 10000; ++i)
        many.append(conversationJson(QStringLiteral("c%1").arg(i), QStringLiteral("Chat %1").arg(i), 1000 + i));
    list("/app/conversations", "conversations", many);
    QString table = "| a | b |\n|---|---|\n";
    for (int i = 0; i < 3000; ++i)
        table += QStringLiteral("| %1 | %2 |\n").arg(i).arg(QString(40, 'x'));
    hub.on("GET", "/app/history",
           TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("big", "assistant", QString(300000, 'w'), 1000, "c0"),
                                                           entryJson("table", "assistant", table, 2000, "c0"),
                                                           entryJson("link", "assistant", "[broken](ht!tp://::nope) ![x](nowhere.png)", 3000, "c0")}}}));
    await(chat->reloadConversations(false));
    main.rebuildNow();
    EXPECT_GE(main.sidebar()->topLevelItemCount(), 10000);
    // One chat changes: its row is brought up to date in place, the others stay as they are.
    QTreeWidgetItem *untouched = rowFor(main.sidebar(), "c100");
    QTreeWidgetItem *renamed = rowFor(main.sidebar(), "c7");
    ASSERT_TRUE(untouched && renamed);
    QJsonObject changed = many[7].toObject();
    changed["title"] = "Renamed";
    changed["unread"] = true;
    many[7] = changed;
    list("/app/conversations", "conversations", many);
    await(chat->reloadConversations(false));
    main.rebuildNow();
    EXPECT_EQ(rowFor(main.sidebar(), "c100"), untouched);
    EXPECT_EQ(rowFor(main.sidebar(), "c7"), renamed);
    EXPECT_TRUE(renamed->text(0).startsWith("Renamed")) << qPrintable(renamed->text(0));
    EXPECT_EQ(renamed->toolTip(0), "Unread");
    main.select(MainWindow::Selection{MainWindow::Selection::Kind::chat, "c0"});
    ASSERT_TRUE(waitUntil([&] { return main.chatPane()->messages()->rows() == 3; }));
    main.chatPane()->messages()->measureAll();
    EXPECT_EQ(main.chatPane()->messages()->measured(), 3);
    EXPECT_GT(main.chatPane()->messages()->rowRect(0).height(), 1000) << "the long reply wraps";
    EXPECT_FALSE(main.grab().isNull());
}

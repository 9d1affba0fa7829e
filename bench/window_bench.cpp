// The chat pane with a conversation of 2,000 entries of mixed Markdown, offscreen:
// from choosing the conversation to its first frame painted, and then every frame
// of a scroll from the top to the bottom. With "--screenshots FOLDER" it also
// saves pictures of the main window, the setup guide and the tray menu.
#include "app/WindowOpener.h"
#include "app/views/AppShell.h"
#include "app/views/SetupWindow.h"
#include "app/views/Tray.h"
#include "platform/linux/AutostartEntry.h"
#include "settings/Models.h"
#include "settings/SettingsModel.h"
#include "surface/views/ChatPane.h"
#include "surface/views/MainWindow.h"
#include "surface/views/MessageList.h"

#include "../tests/chat/ChatFixture.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMenu>
#include <QScrollBar>

#include <algorithm>
#include <cstdio>

using namespace zuv;
using namespace zuv::test;

namespace {

QString reply(int i)
{
    switch (i % 6) {
    case 0:
        return QStringLiteral("## Step %1\n\nThe build **passed** on `main`; see [the log](https://example.com/%1).\n\n"
                              "- compiled 257 files\n- ran 215 tests\n  with sanitizers\n1. ship it\n2) tell the team")
            .arg(i);
    case 1:
        return QStringLiteral("Here is the function:\n\n```\nint add(int a, int b)\n{\n    return a + b; // %1\n}\n```\n\n"
                              "It adds *two* numbers.")
            .arg(i);
    case 2:
        return QStringLiteral("| file | lines | owner |\n|:--|--:|:-:|\n| main.cpp | %1 | app |\n| Chat.cpp | 412 | chat |\n"
                              "| Clip.cpp | 97 | clipboard |")
            .arg(i);
    case 3:
        return QStringLiteral("> A quote from the docs that goes on for a while, so that it wraps over more than one "
                              "line in a pane of the usual width.\n\n---\n\nAnd a paragraph after the rule, number %1.")
            .arg(i);
    case 4:
        return QStringLiteral("Short answer %1.").arg(i);
    default:
        return QString(QStringLiteral("A longer paragraph with ~~struck~~ words, **bold** and _italic_ text. ")).repeated(6)
            + QString::number(i);
    }
}

QJsonArray conversation(int count)
{
    QJsonArray entries;
    for (int i = 0; i < count; ++i) {
        const bool user = i % 2 == 0;
        entries.append(entryJson(QStringLiteral("e%1").arg(i), user ? "user" : "assistant",
                                 user ? QStringLiteral("Question %1: what about the build?").arg(i) : reply(i),
                                 1.7e12 + i * 60000.0, "c1"));
    }
    return entries;
}

double percentile(std::vector<qint64> v, double p)
{
    std::sort(v.begin(), v.end());
    return double(v[std::min(v.size() - 1, size_t(double(v.size()) * p))]) / 1e6;
}

struct Setup : ChatFixture {
    Models models{clock, defaults};
    SettingsModel settings{api, models};
    WindowOpener opener;
    std::unique_ptr<AppModel> model = makeModel();
    MenuContent::State state;
    AppShell shell{{*model, *chat, settings, api, clock, defaults, opener, [this] { return state; }, {}, {}, {}, {}, {}}};
    ~Setup() { model->stopChildren(); }
};

void screenshots(const QString &folder)
{
    Setup s;
    QJsonObject release = conversationJson("c1", "Release checklist", 1.7e12 + 3.6e6);
    release.insert("preview", "The build passed on main; see the log.");
    QJsonObject holiday = conversationJson("c2", "Holiday plans", 1.7e12, true);
    holiday.insert("preview", "Three options for the train to Lyon");
    QJsonObject disk = conversationJson("c3", "Disk space on the server", 1.69e12);
    disk.insert("preview", "/var/log holds 14 GB of old journals");
    s.list("/app/conversations", "conversations", {release, holiday, disk});
    s.hub.on("GET", "/app/history",
             TestHub::json(QJsonObject{{"entries", QJsonArray{entryJson("u1", "user", "How did the nightly build go?", 1.7e12, "c1"),
                                                             entryJson("a1", "assistant", reply(0), 1.7e12 + 60000, "c1"),
                                                             entryJson("u2", "user", "Which files changed most?", 1.7e12 + 120000, "c1"),
                                                             entryJson("a2", "assistant", reply(2), 1.7e12 + 180000, "c1")}}}));
    s.clock.advance(1.7e9 + 3600 - s.clock.now());
    s.model->setConnected(true);
    MainWindow &main = [&]() -> MainWindow & { s.shell.openMain(); return *s.shell.mainWindow(); }();
    main.resize(1000, 640);
    s.connectSocket();
    waitUntil([&] { return main.chatPane()->messages()->rows() == 4; });
    drain();
    main.grab().save(folder + QStringLiteral("/main-window.png"));

    s.hub.on("POST", "/pair/start", TestHub::json(QJsonObject{{"code", "K7QP3XMD"}, {"secret", "s"}, {"expiresAt", 1.9e12}}));
    s.hub.on("POST", "/pair/poll", TestHub::json(QJsonObject{{"status", "pending"}}));
    s.keychain.setToken(std::nullopt);
    auto unpaired = s.makeModel();
    DesktopScreenAccess x11(QStringLiteral("xcb"));
    unpaired->setDesktop({&x11, nullptr, [](const QString &, const QStringList &, double) {
                              return std::optional<LoginShell::Result>();
                          }, {}});
    SetupWindow guide(*unpaired);
    unpaired->startPairing();
    waitUntil([&] { return unpaired->pairing().state == AppModel::Pairing::State::showing; });
    guide.show();
    drain();
    guide.grab().save(folder + QStringLiteral("/setup-guide.png"));
    unpaired->stopChildren();

    s.state.paired = true;
    s.state.connected = true;
    s.state.clipboardEnabled = true;
    s.state.clipboardCombo = QStringLiteral("Super+Shift+C");
    s.shell.tray()->rebuild();
    QMenu *menu = s.shell.tray()->menu();
    menu->popup(QPoint(0, 0));
    drain();
    menu->grab().save(folder + QStringLiteral("/tray-menu.png"));
    menu->close();
    std::printf("screenshots: %s/{main-window,setup-guide,tray-menu}.png\n", qPrintable(folder));
}

} // namespace

// The sidebar of an account with 10,000 chats: drawn the first time, then brought
// up to date after one chat changed (what every reply, step and unread mark asks for).
void sidebar()
{
    Setup s;
    QJsonArray many;
    for (int i = 0; i < 10000; ++i)
        many.append(conversationJson(QStringLiteral("c%1").arg(i), QStringLiteral("Chat %1").arg(i), 1.7e12 - i * 60000.0));
    s.list("/app/conversations", "conversations", many);
    await(s.chat->reloadConversations(false));
    s.shell.openMain();
    MainWindow &main = *s.shell.mainWindow();
    QElapsedTimer first;
    first.start();
    main.rebuildNow();
    const double firstMs = double(first.nsecsElapsed()) / 1e6;
    std::vector<qint64> updates;
    for (int round = 0; round < 20; ++round) {
        QJsonObject changed = many[round].toObject();
        changed["title"] = QStringLiteral("Renamed %1").arg(round);
        many[round] = changed;
        s.list("/app/conversations", "conversations", many);
        await(s.chat->reloadConversations(false));
        QElapsedTimer update;
        update.start();
        main.rebuildNow();
        updates.push_back(update.nsecsElapsed());
    }
    std::sort(updates.begin(), updates.end());
    std::printf("sidebar: first %.0f ms, update after one change %.1f ms median (10,000 chats)\n", firstMs,
                double(updates[updates.size() / 2]) / 1e6);
}

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    for (int i = 1; i + 1 < argc; ++i)
        if (QByteArray(argv[i]) == "--screenshots")
            screenshots(QString::fromLocal8Bit(argv[i + 1]));

    sidebar();

    Setup s;
    s.hub.on("GET", "/app/history", TestHub::json(QJsonObject{{"entries", conversation(2000)}}));
    await(s.chat->refresh("c1"));
    if (!s.chat->entries("c1") || s.chat->entries("c1")->size() != 2000) {
        std::fprintf(stderr, "window_bench: the conversation did not load\n");
        return 1;
    }

    std::vector<qint64> opens;
    std::vector<qint64> frames;
    for (int round = 0; round < 5; ++round) {
        ChatPane pane(*s.chat, s.clock);
        pane.resize(760, 700);
        pane.show();
        QApplication::processEvents();
        QElapsedTimer open;
        open.start();
        pane.setConversation(QStringLiteral("c1"));
        pane.repaint();
        opens.push_back(open.nsecsElapsed());

        // From the top to the bottom in wheel steps, with the app's idle turns between frames.
        MessageList *list = pane.messages();
        list->verticalScrollBar()->setValue(0);
        QApplication::processEvents();
        while (list->verticalScrollBar()->value() < list->verticalScrollBar()->maximum()) {
            QElapsedTimer frame;
            frame.start();
            list->verticalScrollBar()->setValue(list->verticalScrollBar()->value() + 120);
            list->viewport()->repaint();
            frames.push_back(frame.nsecsElapsed());
            QApplication::processEvents();
        }
        pane.setConversation(std::nullopt);
    }
    std::sort(opens.begin(), opens.end());
    std::printf("chat pane: open %.0f ms, scroll %.1f ms per frame p95 (2,000 entries)\n", double(opens[opens.size() / 2]) / 1e6,
                percentile(frames, 0.95));
    return 0;
}

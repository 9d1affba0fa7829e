// The clipboard panel on the test display: opened by its global shortcut, typed
// into and used with real key presses (xdotool), pasting through XTest into the
// window that was in front.
#include "clipboard/ClipboardPanel.h"
#include "clipboard/views/ClipPreview.h"
#include "clipboard/views/ClipWindow.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "platform/linux/LinuxWorkspace.h"
#include "platform/linux/X11HotKeyService.h"
#include "platform/linux/X11Pasteboard.h"
#include "platform/linux/X11PastePoster.h"
#include "shortcuts/HotKeys.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QLineEdit>
#include <QProcess>
#include <QWindow>

using namespace zuv;

namespace {

bool xdotool(const QStringList &arguments)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), arguments);
    return p.waitForFinished(10000) && p.exitCode() == 0;
}

// A window of another kind that pastes what Ctrl+V brings.
class Target : public QWindow {
public:
    QStringList pasted;

protected:
    void keyPressEvent(QKeyEvent *event) override
    {
        if (event->matches(QKeySequence::Paste))
            pasted << QGuiApplication::clipboard()->text();
    }
};

} // namespace

TEST(ClipWindow, theShortcutOpensItTypingFiltersAndReturnPastesIntoTheWindowInFront)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("defaults.json"));
    defaults.set("clip-paste", true);
    X11Pasteboard pasteboard;
    LinuxWorkspace workspace;
    X11HotKeyService keys(clock);
    HotKeys hotKeys(keys);
    X11PastePoster poster;
    ClipboardHistory history(clock, defaults, pasteboard, workspace, &hotKeys, home.file("Zuv"));
    history.poster = &poster;
    ClipboardPanel panel(clock, defaults, history);
    ClipWindow window(panel, history, defaults, workspace);
    panel.window = &window;
    panel.desktop = [] { return PanelDesktop{QCursor::pos(), {QRect(0, 0, 1280, 1024)}, std::nullopt}; };
    std::optional<quint32> front;
    panel.rememberFront = [&] { front = workspace.activeWindow(); };
    panel.restoreFront = [&] {
        if (front)
            workspace.activateWindow(*front, 0);
    };
    history.togglePanel = [&panel] { panel.toggle(); };
    history.setEnabled(true);
    for (const char *text : {"alpha one", "gamma two", "gamma three"}) {
        clock.advance(1);
        history.record({{ClipRules::plainText, QByteArray(text)}}, std::nullopt, clock.now());
    }

    Target target;
    target.setTitle("paste target");
    target.resize(300, 200);
    target.show();
    target.requestActivate();
    // In front for the window manager too, which is what the panel notes.
    ASSERT_TRUE(test::waitUntil([&] { return target.isActive() && workspace.activeWindow(); }));
    const auto targetWindow = workspace.activeWindow();

    // The shortcut (Super+Shift+C) opens the panel, which takes the keyboard.
    ASSERT_TRUE(xdotool({"key", "super+shift+c"}));
    ASSERT_TRUE(test::waitUntil([&] { return window.isVisible() && window.isActiveWindow(); }));
    EXPECT_EQ(window.model().rowCount(), 3);

    ASSERT_TRUE(xdotool({"type", "gamma"}));
    ASSERT_TRUE(test::waitUntil([&] { return panel.state().query == "gamma"; }));
    EXPECT_EQ(window.model().rowCount(), 2);
    EXPECT_EQ(window.model().index(0).data(ClipListModel::RangesRole).toList().value(0).toPoint(), QPoint(0, 5));

    // The preview comes after its delay, in the panel's own time.
    clock.advance(0.6);
    ASSERT_TRUE(test::waitUntil([&] { return window.preview()->isVisible(); }));
    EXPECT_EQ(window.preview()->clipId(), history.clips()[0].id);

    // Down, then Return: "gamma two" is pasted into the window that was in front.
    ASSERT_TRUE(xdotool({"key", "Down", "Return"}));
    ASSERT_TRUE(test::waitUntil([&] { return !window.isVisible(); }));
    ASSERT_TRUE(test::waitUntil([&] { return target.isActive(); }));
    clock.advance(0.2); // the pause before the keys go out
    ASSERT_TRUE(test::waitUntil([&] { return !target.pasted.isEmpty(); }));
    EXPECT_EQ(target.pasted, QStringList{"gamma two"});

    // Escape gives the keyboard back to the window in front.
    ASSERT_TRUE(xdotool({"key", "super+shift+c"}));
    ASSERT_TRUE(test::waitUntil([&] { return window.isActiveWindow(); }));
    EXPECT_TRUE(window.searchField()->text().isEmpty()); // a fresh opening
    ASSERT_TRUE(xdotool({"key", "Escape"}));
    ASSERT_TRUE(test::waitUntil([&] { return !window.isVisible() && target.isActive(); }));
    EXPECT_TRUE(test::waitUntil([&] { return workspace.activeWindow() == targetWindow; }));

    // The menu of each kind of clip.
    EXPECT_EQ(window.menuLabels(history.clips()[0].id),
              (QStringList{"Copy", "Paste", "Paste Without Formatting", "Pin", "Delete"}));
    history.record({{ClipRules::fileURL, QByteArray("file:///tmp/a.txt")}}, std::nullopt, clock.now() + 5);
    EXPECT_EQ(window.menuLabels(history.clips()[0].id),
              (QStringList{"Copy", "Paste", "Pin", "Delete", "Show in File Manager"}));
}

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

#include <xcb/xcb.h>

#include <cstring>

using namespace zuv;

namespace {

bool xdotool(const QStringList &arguments)
{
    QProcess p;
    p.start(QStringLiteral("xdotool"), arguments);
    return p.waitForFinished(10000) && p.exitCode() == 0;
}

// The names of the atoms in a window's property, as the window manager reads them.
QStringList atoms(WId window, const char *property)
{
    QStringList out;
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    auto *name = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(strlen(property)), property), nullptr);
    auto *value = xcb_get_property_reply(c, xcb_get_property(c, 0, xcb_window_t(window), name->atom, XCB_ATOM_ATOM, 0, 64), nullptr);
    if (value) {
        const auto *list = static_cast<const xcb_atom_t *>(xcb_get_property_value(value));
        for (int i = 0; i < xcb_get_property_value_length(value) / 4; ++i) {
            auto *n = xcb_get_atom_name_reply(c, xcb_get_atom_name(c, list[i]), nullptr);
            out << QString::fromLatin1(xcb_get_atom_name_name(n), xcb_get_atom_name_name_length(n));
            free(n);
        }
    }
    free(value);
    free(name);
    xcb_disconnect(c);
    return out;
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
    const auto targetWindow = std::optional<quint32>(quint32(target.winId()));
    ASSERT_TRUE(test::waitUntil([&] { return target.isActive() && workspace.activeWindow() == targetWindow; }));

    // The shortcut (Super+Shift+C) opens the panel, which takes the keyboard.
    ASSERT_TRUE(xdotool({"key", "super+shift+c"}));
    ASSERT_TRUE(test::waitUntil([&] { return window.isVisible() && window.isActiveWindow(); }));
    EXPECT_EQ(window.model().rowCount(), 3);
    // A utility window, out of the taskbar.
    EXPECT_TRUE(atoms(window.winId(), "_NET_WM_WINDOW_TYPE").contains("_NET_WM_WINDOW_TYPE_UTILITY"));
    EXPECT_TRUE(test::waitUntil([&] {
        return atoms(window.winId(), "_NET_WM_STATE").contains("_NET_WM_STATE_SKIP_TASKBAR");
    }));

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
    EXPECT_TRUE(test::waitUntil([&] {
        return atoms(window.winId(), "_NET_WM_STATE").contains("_NET_WM_STATE_SKIP_TASKBAR");
    }));
    ASSERT_TRUE(xdotool({"key", "Escape"}));
    ASSERT_TRUE(test::waitUntil([&] { return !window.isVisible() && target.isActive(); }));
    EXPECT_TRUE(test::waitUntil([&] { return workspace.activeWindow() == targetWindow; }));

    // The menu of each kind of clip.
    EXPECT_EQ(window.menuLabels(history.clips()[0].id),
              (QStringList{"Copy", "Paste", "Paste Without Formatting", "Pin", "Delete", "Ask Zuv About This…"}));
    history.record({{ClipRules::fileURL, QByteArray("file:///tmp/a.txt")}}, std::nullopt, clock.now() + 5);
    EXPECT_EQ(window.menuLabels(history.clips()[0].id),
              (QStringList{"Copy", "Paste", "Pin", "Delete", "Ask Zuv About This…", "Show in File Manager"}));
}

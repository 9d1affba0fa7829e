// Real key grabs on the test session's Xvfb display, pressed with xdotool. One
// test, so that nothing else on the display grabs or changes the layout meanwhile.
#include "base/Defaults.h"
#include "platform/linux/LinuxWorkspace.h"
#include "platform/linux/RealClock.h"
#include "platform/linux/X11HotKeyService.h"
#include "shortcuts/AppShortcuts.h"
#include "shortcuts/HotKeys.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <QDir>
#include <QProcess>

#include <csignal>

#include "platform/linux/Xcb.h"

using namespace zuv;

namespace {

bool run(const QString &program, const QStringList &arguments)
{
    QProcess p;
    p.start(program, arguments);
    return p.waitForFinished(15000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

bool xdotool(const QStringList &arguments) { return run(QStringLiteral("xdotool"), arguments); }

// Sees the client messages that go to the window manager through the root window.
class RootSpy {
public:
    RootSpy() : m_connection(xcb_connect(nullptr, nullptr))
    {
        xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
        const quint32 mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(m_connection, screen->root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(m_connection);
    }
    ~RootSpy() { xcb_disconnect(m_connection); }
    // The data of the last client message of this type seen so far.
    std::optional<std::vector<quint32>> find(const char *type)
    {
        const xcb_atom_t wanted = xcb::atom(m_connection, type);
        while (xcb_generic_event_t *event = xcb_poll_for_event(m_connection)) {
            if ((event->response_type & 0x7f) == XCB_CLIENT_MESSAGE) {
                auto *message = reinterpret_cast<xcb_client_message_event_t *>(event);
                m_seen.push_back({message->type, std::vector<quint32>(message->data.data32, message->data.data32 + 5)});
            }
            std::free(event);
        }
        std::optional<std::vector<quint32>> found;
        for (const auto &[kind, data] : m_seen)
            if (kind == wanted)
                found = data;
        return found;
    }

private:
    xcb_connection_t *m_connection;
    std::vector<std::pair<xcb_atom_t, std::vector<quint32>>> m_seen;
};

// Super+Shift+K, in stored numbers.
const KeyCombo superShiftK{40, KeyCombo::command | KeyCombo::shift, "K"};

} // namespace

TEST(X11HotKeys, grabsFireOnceWithAnyLockKeysAreRefusedWhenTakenAndFollowTheLayout)
{
    RealClock clock; // the real keyboard settles in real time
    ASSERT_FALSE(qEnvironmentVariableIsEmpty("DISPLAY")) << "the tests run inside scripts/desktop-session";
    X11HotKeyService service(clock);
    ASSERT_TRUE(service.problem().isEmpty()) << service.problem().toStdString();
    HotKeys keys(service);
    int presses = 0;
    const auto id = keys.add(superShiftK, [&] { ++presses; });
    ASSERT_TRUE(id);

    ASSERT_TRUE(xdotool({"key", "super+shift+k"}));
    ASSERT_TRUE(test::waitUntil([&] { return presses == 1; }));
    // With NumLock, then with Caps Lock and NumLock on.
    for (const char *lock : {"Num_Lock", "Caps_Lock"}) {
        ASSERT_TRUE(xdotool({"key", lock}));
        const int before = presses;
        ASSERT_TRUE(xdotool({"key", "super+shift+k"}));
        EXPECT_TRUE(test::waitUntil([&] { return presses == before + 1; })) << lock;
    }
    ASSERT_TRUE(xdotool({"key", "Caps_Lock", "Num_Lock"}));

    // Held for over a second, the key repeats on the server: it fires once.
    const int before = presses;
    ASSERT_TRUE(xdotool({"keydown", "super+shift+k", "sleep", "1.2", "keyup", "super+shift+k"}));
    ASSERT_TRUE(test::waitUntil([&] { return presses > before; }));
    test::drain();
    EXPECT_EQ(presses, before + 1);

    // Another program holds the combo: a refusal, and none of its variants stay ours.
    X11HotKeyService other(clock);
    const KeyCombo ctrlAltJ{38, KeyCombo::control | KeyCombo::option, "J"};
    ASSERT_TRUE(other.grab(1, ctrlAltJ.keyCode, ctrlAltJ.modifiers));
    EXPECT_FALSE(keys.add(ctrlAltJ, [] {}));
    other.ungrab(1);
    X11HotKeyService third(clock);
    EXPECT_TRUE(third.grab(1, ctrlAltJ.keyCode, ctrlAltJ.modifiers)) << "a refused combo leaves no grab behind";
    third.ungrab(1);
    EXPECT_FALSE(keys.add({2, KeyCombo::command, "D"}, [] {})) << "openbox's own Super+D";

    // Unregistered and suspended keys are free for others, and come back after.
    keys.suspend();
    EXPECT_TRUE(third.grab(2, superShiftK.keyCode, superShiftK.modifiers)) << "suspended: not grabbed";
    third.ungrab(2);
    ASSERT_TRUE(xdotool({"key", "super+shift+k"}));
    test::drain();
    keys.resume();
    EXPECT_TRUE(keys.held(*id));
    const int resumed = presses;
    ASSERT_TRUE(xdotool({"key", "super+shift+k"}));
    ASSERT_TRUE(test::waitUntil([&] { return presses == resumed + 1; }));
    EXPECT_EQ(resumed, before + 1) << "nothing fired while suspended";

    // Another layout: the characters follow it, and the grab is taken again by position.
    EXPECT_EQ(service.character(6), "z");
    EXPECT_EQ(service.character(49), " ");
    int changes = 0;
    QObject::connect(&service, &X11HotKeyService::keymapChanged, [&] { ++changes; });
    ASSERT_TRUE(run("setxkbmap", {"-layout", "de"}));
    ASSERT_TRUE(test::waitUntil([&] { return changes > 0 && service.character(6) == "y"; }));
    EXPECT_EQ(service.character(16), "z") << "the German Z sits where the US Y does";
    EXPECT_EQ(service.keyCode("z"), 16);
    const int german = presses;
    ASSERT_TRUE(xdotool({"key", "super+shift+k"}));
    EXPECT_TRUE(test::waitUntil([&] { return presses == german + 1; }));
    ASSERT_TRUE(run("setxkbmap", {"-layout", "fr"}));
    ASSERT_TRUE(test::waitUntil([&] { return service.character(0) == "q"; })) << "AZERTY: Q where A is";
    ASSERT_TRUE(run("setxkbmap", {"-layout", "us"}));
    ASSERT_TRUE(test::waitUntil([&] { return service.character(0) == "a"; }));

    keys.remove(*id);
    EXPECT_TRUE(third.grab(3, superShiftK.keyCode, superShiftK.modifiers)) << "removed: nothing left grabbed";
}

TEST(X11HotKeys, withoutADisplayThereAreNoShortcutsAndSaysWhy)
{
    RealClock clock; // the real keyboard settles in real time
    X11HotKeyService service(clock, ":9999");
    EXPECT_FALSE(service.problem().isEmpty());
    EXPECT_FALSE(service.grab(1, 40, 256));
    EXPECT_FALSE(service.character(0));
    service.ungrab(1);
}

// A desktop entry of the test's own: its shortcut starts it with the key's time,
// hides it when it is in front, and brings it back.
TEST(X11AppShortcuts, aShortcutOpensHidesAndBringsBackAnApplication)
{
    RealClock clock; // the real keyboard settles in real time
    test::TempHome home;
    const QString apps = qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/applications");
    QDir().mkpath(apps);
    const QString entry = apps + QStringLiteral("/org.zuv.TestApp.desktop");
    const QString environment = home.file("environment");
    // Written before GIO first looks, so that its list of entries holds it.
    test::writeText(entry, "[Desktop Entry]\nType=Application\nName=Test App\nExec=" ZUV_TEST_WINDOW " "
                               + environment.toUtf8() + "\nStartupWMClass=ZuvTestApp\nStartupNotify=true\n");
    X11HotKeyService service(clock);
    HotKeys keys(service);
    LinuxWorkspace workspace;
    Defaults defaults(home.file("defaults.json"));
    AppShortcuts shortcuts(defaults, keys, workspace);
    const QUuid id = shortcuts.add(entry);
    ASSERT_EQ(shortcuts.items().size(), 1u);
    EXPECT_EQ(shortcuts.items()[0].name, "Test App");
    EXPECT_EQ(shortcuts.items()[0].bundleID, "org.zuv.TestApp.desktop");
    ASSERT_EQ(shortcuts.setCombo(KeyCombo{37, KeyCombo::command | KeyCombo::shift, "L"}, id), std::nullopt);
    const QString app = QStringLiteral("org.zuv.TestApp.desktop");

    ASSERT_TRUE(xdotool({"key", "super+shift+l"}));
    ASSERT_TRUE(test::waitUntil([&] { return !test::readText(environment).isEmpty(); }, 10000));
    const QString env = test::readText(environment);
    EXPECT_TRUE(env.contains(QRegularExpression("DESKTOP_STARTUP_ID=zuv-\\d+-org\\.zuv\\.TestApp_TIME[1-9]\\d*\\n"))) << env.toStdString();
    EXPECT_TRUE(env.contains("GIO_LAUNCHED_DESKTOP_FILE=" + entry + "\n"));
    const qint64 pid = QRegularExpression("GIO_LAUNCHED_DESKTOP_FILE_PID=(\\d+)").match(env).captured(1).toLongLong();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(test::waitUntil([&] { return workspace.frontmost() == app; }, 10000)) << "the new window is in front";

    // Another window in front: the press brings ours forward, asking as the person
    // (source 2) with the key's own time, which a spy on the root window sees.
    QProcess other;
    other.start(QStringLiteral(ZUV_TEST_WINDOW), {home.file("other-environment"), QStringLiteral("Elsewhere")});
    ASSERT_TRUE(other.waitForStarted());
    ASSERT_TRUE(test::waitUntil([&] { return workspace.frontmost() != app; }, 10000));
    RootSpy spy;
    ASSERT_TRUE(xdotool({"key", "super+shift+l"}));
    ASSERT_TRUE(test::waitUntil([&] { return workspace.frontmost() == app; }, 10000)) << "brought forward";
    std::optional<std::vector<quint32>> request;
    ASSERT_TRUE(test::waitUntil([&] { return (request = spy.find("_NET_ACTIVE_WINDOW")).has_value(); }));
    EXPECT_EQ(request->at(0), 2u) << "source: the person";
    EXPECT_EQ(request->at(1), keys.lastPressTime());
    EXPECT_GT(request->at(1), 0u);

    // In front: the press hides it, by asking the window manager to iconify it.
    ASSERT_TRUE(xdotool({"key", "super+shift+l"}));
    EXPECT_TRUE(test::waitUntil([&] { return workspace.frontmost() != app; }, 10000)) << "in front: hidden";
    std::optional<std::vector<quint32>> iconify;
    ASSERT_TRUE(test::waitUntil([&] { return (iconify = spy.find("WM_CHANGE_STATE")).has_value(); }));
    EXPECT_EQ(iconify->at(0), 3u) << "IconicState";
    ASSERT_TRUE(xdotool({"key", "super+shift+l"}));
    EXPECT_TRUE(test::waitUntil([&] { return workspace.frontmost() == app; }, 10000)) << "brought back";
    other.kill();
    other.waitForFinished();
    ::kill(pid_t(pid), SIGTERM);
}

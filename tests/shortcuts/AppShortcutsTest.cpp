// App shortcuts: the list, its conflicts and what a press does, against a
// recorded workspace; window-to-entry matching.
#include "base/Defaults.h"
#include "platform/HotKeyService.h"
#include "platform/Workspace.h"
#include "platform/linux/LinuxWorkspace.h"
#include "shortcuts/AppShortcuts.h"
#include "shortcuts/HotKeys.h"

#include "FakeHotKeyService.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QJsonArray>

#include <set>

using namespace zuv;
using test::FakeWorkspace;

namespace {

const KeyCombo superE{14, KeyCombo::command, "E"};
const KeyCombo superF{3, KeyCombo::command, "F"};

struct AppShortcutsTest : ::testing::Test {
    test::TempHome home;
    Defaults defaults{home.file("defaults.json")};
    test::FakeHotKeyService service;
    FakeWorkspace workspace;
    std::unique_ptr<HotKeys> hotKeys = std::make_unique<HotKeys>(service, [](const KeyCombo &c) { return c.keyCode == 4; });
    std::vector<std::pair<QString, KeyCombo>> owners;
    std::unique_ptr<AppShortcuts> make()
    {
        return std::make_unique<AppShortcuts>(defaults, *hotKeys, workspace, [this] { return owners; });
    }
};

} // namespace

TEST_F(AppShortcutsTest, bindingsSettleConflictsInOrderAndAreKeptInTheSettings)
{
    auto shortcuts = make();
    const QUuid editor = shortcuts->add("/apps/org.example.Editor.desktop");
    EXPECT_EQ(shortcuts->add("/apps/org.example.Editor.desktop"), editor) << "the same app twice is one row";
    const QUuid files = shortcuts->add("/apps/org.example.Files.desktop");
    ASSERT_EQ(shortcuts->items().size(), 2u);
    EXPECT_EQ(shortcuts->items()[0].name, "Editor");
    EXPECT_EQ(shortcuts->items()[0].bundleID, "org.example.Editor.desktop");

    EXPECT_EQ(shortcuts->setCombo(superE, editor), std::nullopt);
    EXPECT_EQ(shortcuts->setCombo(superE, editor), std::nullopt) << "its own combo again is no conflict";
    EXPECT_EQ(shortcuts->setCombo(superE, files), "Editor");
    EXPECT_FALSE(shortcuts->items()[1].combo) << "nothing changed";
    owners = {{"Quick Ask", superF}};
    EXPECT_EQ(shortcuts->setCombo(superF, files), "Quick Ask");
    EXPECT_EQ(shortcuts->setCombo(KeyCombo{4, 256, "H"}, files), "The desktop");
    EXPECT_EQ(shortcuts->setCombo(KeyCombo{3, 256 | 512, "F"}, files), std::nullopt);
    EXPECT_EQ(service.grabbed.size(), 2u);

    // A combo the system refuses is kept, marked, and tried again at each apply.
    service.taken.insert({3, 256 | 512});
    shortcuts->apply();
    EXPECT_TRUE(shortcuts->refused().contains(files));
    service.taken.clear();
    shortcuts->apply();
    EXPECT_TRUE(shortcuts->refused().isEmpty());

    // Cleared, the item stays; a fresh owner reads the list back.
    EXPECT_EQ(shortcuts->setCombo(std::nullopt, files), std::nullopt);
    shortcuts->setHideWhenFront(false);
    shortcuts.reset();
    EXPECT_TRUE(service.grabbed.empty()) << "nothing stays grabbed with the owner gone";
    auto again = make();
    ASSERT_EQ(again->items().size(), 2u);
    EXPECT_EQ(again->items()[0].combo, superE);
    EXPECT_FALSE(again->items()[1].combo);
    EXPECT_FALSE(again->hideWhenFront());
    again->remove(editor);
    EXPECT_EQ(again->items().size(), 1u);

    // One broken item spoils the stored list, which then starts empty.
    QJsonArray stored = defaults.value(AppShortcuts::itemsKey).toArray();
    stored.append(QJsonObject{{"id", "not a uuid"}, {"name", "X"}, {"path", "/x"}});
    defaults.set(AppShortcuts::itemsKey, stored);
    EXPECT_TRUE(make()->items().empty());
}

TEST_F(AppShortcutsTest, aPressOpensBringsForwardOrHides)
{
    auto shortcuts = make();
    const QUuid editor = shortcuts->add("/apps/org.example.Editor.desktop");
    shortcuts->setCombo(superE, editor);
    const auto press = [&] {
        service.press(superE.keyCode, superE.modifiers);
        test::drain();
    };
    press();
    EXPECT_EQ(workspace.calls, (QStringList{"activate org.example.Editor.desktop 42", "launch org.example.Editor.desktop 42"}));
    workspace.calls.clear();
    workspace.running.insert("org.example.Editor.desktop");
    press();
    EXPECT_EQ(workspace.calls, QStringList{"activate org.example.Editor.desktop 42"}) << "running: brought forward";
    workspace.calls.clear();
    workspace.front = "org.example.Editor.desktop";
    press();
    EXPECT_EQ(workspace.calls, QStringList{"hide org.example.Editor.desktop"}) << "in front: hidden";
    workspace.calls.clear();
    shortcuts->setHideWhenFront(false);
    press();
    EXPECT_EQ(workspace.calls, QStringList{"activate org.example.Editor.desktop 42"});

    // Moved: found again by its id; gone: a log line, nothing else.
    workspace.calls.clear();
    workspace.front.reset();
    workspace.apps[0].path = "/elsewhere/org.example.Editor.desktop";
    press();
    EXPECT_EQ(workspace.calls.size(), 1);
    workspace.apps.erase(workspace.apps.begin());
    workspace.calls.clear();
    press();
    EXPECT_TRUE(workspace.calls.isEmpty());
}

TEST(LinuxWorkspace, windowsAreMatchedToEntriesInOrder)
{
    const std::vector<LinuxWorkspace::Entry> entries{{"org.gnome.TextEditor.desktop", "/a/org.gnome.TextEditor.desktop", ""},
                                                     {"firefox-esr.desktop", "/a/firefox-esr.desktop", "Firefox-esr"},
                                                     {"my-tool.desktop", "/a/my-tool.desktop", ""},
                                                     {"launched.desktop", "/a/launched.desktop", ""}};
    using W = LinuxWorkspace::WindowFacts;
    EXPECT_EQ(LinuxWorkspace::match(W{"Navigator", "Firefox-esr", "", ""}, entries), "firefox-esr.desktop")
        << "StartupWMClass against the class";
    EXPECT_EQ(LinuxWorkspace::match(W{"My Tool", "X", "", ""}, entries), "my-tool.desktop") << "a desktop-id guess";
    EXPECT_EQ(LinuxWorkspace::match(W{"gnome-text-editor", "Gnome-text-editor", "org.gnome.TextEditor", ""}, entries),
              "org.gnome.TextEditor.desktop")
        << "the GTK application id";
    EXPECT_EQ(LinuxWorkspace::match(W{"a.out", "A.out", "", "/a/launched.desktop"}, entries), "launched.desktop");
    EXPECT_EQ(LinuxWorkspace::match(W{"firefox-esr", "Other", "", "/a/launched.desktop"}, entries), "firefox-esr.desktop")
        << "the class comes before the launching entry";
    EXPECT_FALSE(LinuxWorkspace::match(W{}, entries));
}

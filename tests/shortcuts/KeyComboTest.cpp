// The rules of key combos and of the hot key owner, without a display.
#include "platform/HotKeyService.h"
#include "platform/Keyboard.h"
#include "platform/linux/DesktopShortcuts.h"
#include "shortcuts/HotKeys.h"
#include "shortcuts/KeyCombo.h"
#include "shortcuts/SystemShortcuts.h"

#include "FakeHotKeyService.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <map>
#include <set>

using namespace zuv;

namespace {

class FakeKeyboard final : public Keyboard {
public:
    std::map<quint16, QString> keys{{0, "a"}, {6, "y"}, {50, "^"}, {10, "<"}};
    std::optional<QString> character(quint16 code) const override
    {
        const auto it = keys.find(code);
        return it == keys.end() ? std::nullopt : std::optional<QString>(it->second);
    }
};

} // namespace

TEST(KeyCombo, recordsLabelsAndStoresAsTheSettingsExpect)
{
    EXPECT_EQ(KeyCombo::fromPress(96, 0, ""), (KeyCombo{96, 0, "F5"})) << "a bare F-key is a shortcut";
    EXPECT_EQ(KeyCombo::fromPress(96, KeyCombo::shift, ""), (KeyCombo{96, 512, "F5"}));
    EXPECT_FALSE(KeyCombo::fromPress(40, KeyCombo::shift, "k")) << "Shift alone makes no shortcut";
    EXPECT_EQ(KeyCombo::fromPress(40, KeyCombo::command | 0x10000, "k"), (KeyCombo{40, 256, "K"}));
    EXPECT_FALSE(KeyCombo::fromPress(33, KeyCombo::command, "")) << "a dead key gives no character";
    EXPECT_FALSE(KeyCombo::fromPress(33, KeyCombo::command, "ab"));
    EXPECT_EQ(KeyCombo::fromPress(36, KeyCombo::control, "\r")->key, "↩");
    EXPECT_EQ(KeyCombo::fromPress(12, KeyCombo::option, "😀")->key, "😀");
    EXPECT_NE((KeyCombo{40, 256, "K"}), (KeyCombo{40, 256, "k"})) << "the name counts in equality";

    EXPECT_EQ((KeyCombo{40, 256 | 512 | 2048 | 4096, "K"}).label(), "Ctrl+Alt+Shift+Super+K");
    EXPECT_EQ((KeyCombo{49, 2048, "Space"}).label(), "Alt+Space");
    EXPECT_EQ((KeyCombo{36, 4096, "↩"}).label(), "Ctrl+Return");
    EXPECT_EQ((KeyCombo{121, 256, "⇟"}).label(), "Super+Page Down");
    EXPECT_EQ((KeyCombo{123, 256, "←"}).label(), "Super+←");

    const KeyCombo combo{9, 768, "V"};
    EXPECT_EQ(KeyCombo::fromJson(combo.toJson()), combo);
    EXPECT_EQ(QJsonDocument(combo.toJson()).toJson(QJsonDocument::Compact), R"({"key":"V","keyCode":9,"modifiers":768})");
    for (const char *bad : {R"("x")", R"({"keyCode":9,"modifiers":768})", R"({"keyCode":-1,"modifiers":0,"key":"A"})",
                            R"({"keyCode":1.5,"modifiers":0,"key":"A"})", R"({"keyCode":9,"modifiers":"256","key":"V"})",
                            R"({"keyCode":4294967296,"modifiers":0,"key":"A"})"})
        EXPECT_FALSE(KeyCombo::fromJson(QJsonDocument::fromJson(QByteArray("[") + bad + "]").array().at(0))) << bad;

    FakeKeyboard keyboard;
    EXPECT_EQ(KeyCombo::name(49, &keyboard), "Space");
    EXPECT_EQ(KeyCombo::name(111, &keyboard), "F12");
    EXPECT_FALSE(KeyCombo::name(105, &keyboard)) << "F13 is not in the short table and has no character";
    EXPECT_FALSE(KeyCombo::name(115, &keyboard)) << "nor is Home";
    EXPECT_EQ(KeyCombo::name(6, &keyboard), "Y") << "the layout names the key";
    EXPECT_FALSE(KeyCombo::name(70000, &keyboard));
    EXPECT_EQ(keyboard.keyCode("^"), 50);
    EXPECT_FALSE(keyboard.keyCode("Y")) << "characters compare exactly";
}

TEST(HotKeys, idsSuspensionAndPressesOnTheMainThread)
{
    test::FakeHotKeyService service;
    service.taken.insert({2, 256});
    HotKeys keys(service);
    int a = 0, b = 0;
    const auto first = keys.add({40, 256, "K"}, [&] { ++a; });
    ASSERT_TRUE(first);
    EXPECT_FALSE(keys.add({2, 256, "D"}, [] {})) << "refused by the system";
    const auto second = keys.add({41, 256, ";"}, [&] { ++b; });
    ASSERT_TRUE(second);
    EXPECT_EQ(*first, 1u);
    EXPECT_EQ(*second, 3u) << "an id is never used twice, a refused one included";

    service.press(*first);
    EXPECT_EQ(a, 0) << "the action runs on a later turn, not inside the event";
    test::drain();
    EXPECT_EQ(a, 1);
    EXPECT_EQ(keys.lastPressTime(), 77u);

    // Removed between the press and the turn: not run.
    service.press(*second);
    keys.remove(*second);
    test::drain();
    EXPECT_EQ(b, 0);
    EXPECT_FALSE(service.grabbed.count(*second));

    // Nested recorders: two suspends need two resumes; a key added meanwhile waits.
    keys.suspend();
    keys.suspend();
    EXPECT_TRUE(service.grabbed.empty());
    int c = 0;
    const auto third = keys.add({8, 4096, "C"}, [&] { ++c; });
    ASSERT_TRUE(third);
    EXPECT_FALSE(keys.held(*third));
    service.press(*third);
    test::drain();
    EXPECT_EQ(c, 0) << "nothing fires while recording";
    keys.resume();
    EXPECT_TRUE(service.grabbed.empty());
    keys.resume();
    keys.resume(); // at zero: nothing
    EXPECT_EQ(keys.suspended(), 0);
    EXPECT_TRUE(keys.held(*first));
    EXPECT_TRUE(keys.held(*third));
    service.press(*third);
    test::drain();
    EXPECT_EQ(c, 1);
}

TEST(SystemShortcuts, theDesktopsOwnBindingsAreReadAndCompared)
{
    FakeKeyboard keyboard;
    keyboard.keys = {{2, "d"}, {4, "h"}, {43, ","}, {24, "="}, {40, "k"}};
    using Combo = SystemShortcuts::Combo;
    EXPECT_EQ(SystemShortcuts::parseGnome("<Super>d", keyboard), (Combo{2, 256}));
    EXPECT_EQ(SystemShortcuts::parseGnome("<Primary><Alt>Page_Up", keyboard), (Combo{116, 4096 | 2048}));
    EXPECT_EQ(SystemShortcuts::parseGnome("<Shift><Super>comma", keyboard), (Combo{43, 512 | 256}));
    EXPECT_EQ(SystemShortcuts::parseGnome("F11", keyboard), (Combo{103, 0}));
    for (const char *skipped : {"XF86AudioMute", "<Hyper>d", "<Super", "", "<Super>"})
        EXPECT_FALSE(SystemShortcuts::parseGnome(skipped, keyboard)) << skipped;
    EXPECT_EQ(SystemShortcuts::parseKde("Meta+Shift+D", keyboard), (Combo{2, 256 | 512}));
    EXPECT_EQ(SystemShortcuts::parseKde("Ctrl+Alt+Del", keyboard), (Combo{117, 4096 | 2048}));
    EXPECT_EQ(SystemShortcuts::parseKde("Ctrl+=", keyboard), (Combo{24, 4096}));
    EXPECT_FALSE(SystemShortcuts::parseKde("Ctrl++", keyboard)) << "no plus key on this layout";
    EXPECT_FALSE(SystemShortcuts::parseKde("Launch (1)", keyboard));

    // GNOME's defaults (the memory back end holds nothing else) and a KDE file.
    qputenv("GSETTINGS_BACKEND", "memory");
    const QStringList gnome = DesktopShortcuts::gnome();
    EXPECT_TRUE(gnome.contains("<Super>h")) << "minimize, from gsettings-desktop-schemas";
    test::TempHome home;
    test::writeText(home.file("kglobalshortcutsrc"), "[kwin]\n_k_friendly_name=KWin\nShow Desktop=Meta+D,Meta+D,Peek at Desktop\n"
                                                     "Kill Window=none,Meta+Ctrl+Esc,Kill\nWindow Close=Alt+F4\tCtrl+K,Alt+F4,Close\n");
    const QStringList kde = DesktopShortcuts::kde(home.path());
    EXPECT_EQ(kde, (QStringList{"Meta+D", "Alt+F4", "Ctrl+K"}));
    EXPECT_TRUE(DesktopShortcuts::kde(home.file("nowhere")).isEmpty());

    SystemShortcuts shortcuts;
    shortcuts.load(gnome, kde, keyboard);
    EXPECT_TRUE(shortcuts.contains({4, 256, "H"}));
    EXPECT_TRUE(shortcuts.contains({2, 256, "D"}));
    EXPECT_TRUE(shortcuts.contains({40, 4096 | 0x8000, "K"})) << "bits beyond the four modifiers do not count";
    EXPECT_FALSE(shortcuts.contains({40, 4096 | 512, "K"}));
}

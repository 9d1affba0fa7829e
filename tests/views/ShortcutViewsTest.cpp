// The shortcut recorder and the app shortcuts list, driven with key events.
#include "base/Defaults.h"
#include "platform/HotKeyService.h"
#include "platform/Keyboard.h"
#include "shortcuts/AppShortcuts.h"
#include "shortcuts/HotKeys.h"
#include "shortcuts/views/AppShortcutsView.h"
#include "shortcuts/views/ShortcutRecorder.h"

#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QTimer>

#include <map>

using namespace zuv;

namespace {

class Service final : public HotKeyService {
public:
    std::map<quint32, std::pair<quint32, quint32>> grabbed;
    bool grab(quint32 id, quint32 code, quint32 mods) override
    {
        grabbed[id] = {code, mods};
        return code != 99; // F3 is "held by another program"
    }
    void ungrab(quint32 id) override { grabbed.erase(id); }
    QString problem() const override { return {}; }
};

// X key code 45 is K, 46 is L, 22 Backspace, 9 Escape.
class Keys final : public Keyboard {
public:
    std::optional<QString> character(quint16 code) const override
    {
        if (code == 40)
            return QStringLiteral("k");
        if (code == 37)
            return QStringLiteral("l");
        return std::nullopt;
    }
    std::optional<quint32> storedKeyCode(quint32 native) const override
    {
        static const std::map<quint32, quint32> codes{{45, 40}, {46, 37}, {22, 51}, {9, 53}, {69, 99}};
        const auto it = codes.find(native);
        return it == codes.end() ? std::nullopt : std::optional<quint32>(it->second);
    }
};

void type(QWidget *to, int key, Qt::KeyboardModifiers mods, quint32 native)
{
    QKeyEvent event(QEvent::KeyPress, key, mods, native, 0, 0);
    QApplication::sendEvent(to, &event);
}

} // namespace

TEST(ShortcutViews, recordingSuspendsKeysAndBindsWhatIsTyped)
{
    test::TempHome home;
    Defaults defaults(home.file("defaults.json"));
    Service service;
    HotKeys hotKeys(service);
    Keys keys;
    test::FakeWorkspace workspace;
    AppShortcuts shortcuts(defaults, hotKeys, workspace);
    AppShortcutsView view(shortcuts, hotKeys, keys, workspace);
    view.show();
    EXPECT_FALSE(view.findChild<QLabel *>("problem")) << "shortcuts work here: nothing to warn of";

    // A new application is bound at once: its row records.
    view.addApp("/apps/org.example.Editor.desktop");
    const QUuid editor = shortcuts.items().at(0).id;
    ShortcutRecorder *recorder = view.recorder(editor);
    ASSERT_TRUE(recorder);
    EXPECT_TRUE(recorder->recording());
    EXPECT_EQ(hotKeys.suspended(), 1);
    EXPECT_EQ(recorder->text(), "Type Shortcut…");
    type(recorder, Qt::Key_Shift, Qt::ShiftModifier, 50);
    EXPECT_TRUE(recorder->recording()) << "a modifier alone waits";
    type(recorder, Qt::Key_K, Qt::ShiftModifier, 45);
    EXPECT_TRUE(recorder->recording()) << "Shift alone makes no shortcut: it beeps and waits";
    type(recorder, Qt::Key_K, Qt::MetaModifier | Qt::ShiftModifier, 45);
    EXPECT_FALSE(recorder->recording());
    EXPECT_EQ(hotKeys.suspended(), 0);
    EXPECT_EQ(shortcuts.items()[0].combo, (KeyCombo{40, KeyCombo::command | KeyCombo::shift, "K"}));
    ASSERT_TRUE(view.recorder(editor));
    EXPECT_EQ(view.recorder(editor)->text(), "Shift+Super+K");

    // Another row takes the same combo: refused with the owner's name, the old combo stays.
    view.addApp("/apps/org.example.Files.desktop");
    const QUuid files = shortcuts.items().at(1).id;
    ShortcutRecorder *second = view.recorder(files);
    ASSERT_TRUE(second && second->recording());
    QString said;
    QObject::connect(&view, &AppShortcutsView::conflictShown, [&](const QString &text) { said = text; });
    QTimer::singleShot(0, [] {
        if (QWidget *box = QApplication::activeModalWidget())
            box->close();
    });
    type(second, Qt::Key_K, Qt::MetaModifier | Qt::ShiftModifier, 45);
    EXPECT_EQ(said, "Editor already uses this shortcut.");
    EXPECT_FALSE(shortcuts.items()[1].combo);
    EXPECT_EQ(second->text(), "Record Shortcut");

    // Escape leaves things as they were; Backspace clears and keeps the row.
    view.recorder(editor)->click();
    type(view.recorder(editor), Qt::Key_Escape, Qt::NoModifier, 9);
    EXPECT_TRUE(shortcuts.items()[0].combo);
    view.recorder(editor)->click();
    type(view.recorder(editor), Qt::Key_Backspace, Qt::NoModifier, 22);
    test::drain();
    EXPECT_FALSE(shortcuts.items()[0].combo);
    EXPECT_EQ(shortcuts.items().size(), 2u);

    // A combo the system will not give shows "Not available" on its row.
    view.recorder(files)->click();
    type(view.recorder(files), Qt::Key_F3, Qt::NoModifier, 69);
    test::drain();
    EXPECT_TRUE(shortcuts.refused().contains(files));
    bool warned = false;
    for (QLabel *label : view.findChildren<QLabel *>())
        warned = warned || (label->objectName() == "refused" && label->text().contains("Not available"));
    EXPECT_TRUE(warned);
}

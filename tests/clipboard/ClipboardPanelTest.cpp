// The panel's logic: rows, keys, the preview and where the window goes, with a
// window in memory and virtual time.
#include "clipboard/ClipboardPanel.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QJsonArray>

using namespace zuv;

namespace {

class Window final : public PanelWindow {
public:
    bool visible = false;
    QRect at;
    std::optional<QRect> preview;
    std::pair<bool, bool> answer{true, false};
    QStringList asked;
    int presents = 0;

    bool isVisible() const override { return visible; }
    QRect frame() const override { return at; }
    void present(const QRect &frame) override
    {
        visible = true;
        at = frame;
        ++presents;
    }
    void setFrame(const QRect &frame) override { at = frame; }
    void hide() override { visible = false; }
    void showPreview(const QRect &frame) override { preview = frame; }
    void hidePreview() override { preview.reset(); }
    std::pair<bool, bool> confirm(const QString &message, const QString &) override
    {
        asked << message;
        return answer;
    }
};

class Poster final : public PastePoster {
public:
    int posts = 0;
    bool can = true;
    bool canPost() const override { return can; }
    bool postPaste() override
    {
        ++posts;
        return true;
    }
};

struct Panel {
    test::TempHome home;
    TestClock clock;
    Defaults defaults{home.file("defaults.json")};
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv")};
    ClipboardPanel panel{clock, defaults, history};
    Window window;
    Poster poster;
    int restored = 0;
    QStringList messages;

    Panel()
    {
        history.setEnabled(true);
        history.poster = &poster;
        panel.window = &window;
        panel.desktop = [] {
            return PanelDesktop{{100, 100}, {QRect(0, 0, 1000, 800), QRect(1000, 0, 800, 600)}, std::nullopt};
        };
        panel.restoreFront = [this] { ++restored; };
        panel.message = [this](const QString &m) { messages << m; };
    }
    void copy(const QString &text)
    {
        clock.advance(1);
        pasteboard.copy({{{ClipRules::plainText, text.toUtf8()}}});
        test::drain();
    }
    qint64 id(const QString &text)
    {
        for (const Clip &c : history.clips())
            if (c.text == text)
                return c.id;
        return 0;
    }
    bool key(int k, Qt::KeyboardModifiers m = {}, quint32 scan = 0)
    {
        return panel.handle({k, m, scan, false});
    }
    QStringList rows()
    {
        QStringList out;
        for (const auto &m : panel.visible())
            out << m.clip.text;
        return out;
    }
    QString current()
    {
        const auto c = panel.current(panel.visible());
        return c ? c->text : QString();
    }
};

} // namespace

TEST(ClipboardPanel, rowsNumbersAndTheActionTable)
{
    Panel p;
    for (const char *t : {"one", "two", "three"})
        p.copy(t);
    p.history.togglePin(p.id("one"));
    EXPECT_EQ(p.rows(), (QStringList{"one", "three", "two"}));
    EXPECT_EQ(p.current(), "three"); // the newest unpinned, not the pin
    EXPECT_EQ(ClipboardPanel::number(p.id("two"), p.panel.visible()), 2);
    EXPECT_FALSE(ClipboardPanel::number(p.id("one"), p.panel.visible()));
    p.defaults.set("clip-pins", "bottom");
    EXPECT_EQ(p.rows(), (QStringList{"three", "two", "one"}));

    using U = ClipboardPanel::Use;
    const auto is = [](std::optional<U> u, bool paste, bool plain) { return u && u->paste == paste && u->plain == plain; };
    // Paste and plain on: Return pastes plain, Alt copies rich, Ctrl+Shift pastes rich.
    EXPECT_TRUE(is(ClipboardPanel::action({}, true, true), true, true));
    EXPECT_TRUE(is(ClipboardPanel::action(Qt::AltModifier, true, true), false, false));
    EXPECT_TRUE(is(ClipboardPanel::action(Qt::ControlModifier | Qt::ShiftModifier, true, true), true, false));
    // Paste off: Return copies, Alt pastes, Alt+Shift pastes the other way, Ctrl+Shift does nothing.
    EXPECT_TRUE(is(ClipboardPanel::action({}, false, false), false, false));
    EXPECT_TRUE(is(ClipboardPanel::action(Qt::AltModifier, false, false), true, false));
    EXPECT_TRUE(is(ClipboardPanel::action(Qt::AltModifier | Qt::ShiftModifier, false, false), true, true));
    EXPECT_FALSE(ClipboardPanel::action(Qt::ControlModifier | Qt::ShiftModifier, false, false));
    EXPECT_FALSE(ClipboardPanel::action(Qt::MetaModifier, false, false));
}

TEST(ClipboardPanel, keysMoveEditUseAndFallThroughAsTheTableSays)
{
    Panel p;
    p.panel.show(); // empty
    EXPECT_TRUE(p.key(Qt::Key_Return)); // nothing to use: it stays open
    EXPECT_TRUE(p.window.visible);
    EXPECT_TRUE(p.pasteboard.written.empty());
    p.panel.close();

    for (const char *t : {"alpha", "beta", "gamma", "delta"})
        p.copy(t);
    p.history.togglePin(p.id("alpha"));
    const QString pin = *p.history.clips()[0].pin;
    p.panel.show();
    EXPECT_EQ(p.rows(), (QStringList{"alpha", "delta", "gamma", "beta"}));
    EXPECT_TRUE(p.key(Qt::Key_Down));
    EXPECT_EQ(p.current(), "gamma");
    EXPECT_TRUE(p.key(Qt::Key_Down, Qt::ControlModifier));
    EXPECT_EQ(p.current(), "beta");
    EXPECT_TRUE(p.key(Qt::Key_K, Qt::ControlModifier));
    EXPECT_EQ(p.current(), "gamma");
    EXPECT_TRUE(p.key(Qt::Key_Home));
    EXPECT_EQ(p.current(), "alpha");
    EXPECT_FALSE(p.key(Qt::Key_Q)); // typed

    // Editing the query from the keyboard.
    p.panel.setQuery("foo bar  ");
    EXPECT_TRUE(p.key(Qt::Key_W, Qt::ControlModifier));
    EXPECT_EQ(p.panel.state().query, "foo ");
    EXPECT_TRUE(p.key(Qt::Key_H, Qt::ControlModifier));
    EXPECT_EQ(p.panel.state().query, "foo");
    EXPECT_TRUE(p.key(Qt::Key_U, Qt::ControlModifier));
    EXPECT_EQ(p.panel.state().query, "");
    EXPECT_FALSE(p.panel.handle({Qt::Key_Return, {}, 0, true})); // an input method composing

    // A pin letter is typed bare and used with Ctrl; a digit counts unpinned rows only.
    const int letter = Qt::Key_A + (pin.at(0).unicode() - 'a');
    if (letter != Qt::Key_H && letter != Qt::Key_J && letter != Qt::Key_K && letter != Qt::Key_N && letter != Qt::Key_U) {
        EXPECT_FALSE(p.key(letter));
    }
    EXPECT_FALSE(p.key(Qt::Key_9, Qt::ControlModifier, 18)); // only three unpinned rows
    p.clock.advance(1);
    EXPECT_TRUE(p.key(Qt::Key_2, Qt::ControlModifier, 11));
    EXPECT_FALSE(p.window.visible);
    EXPECT_EQ(p.pasteboard.written.back()[0][0].data, "gamma");
    EXPECT_EQ(p.restored, 2); // each closing gives the keyboard back
    EXPECT_EQ(p.poster.posts, 0); // paste is off: a copy

    // Alt+Return pastes once the window in front has the keyboard back.
    p.panel.show();
    EXPECT_TRUE(p.key(Qt::Key_Return, Qt::AltModifier));
    EXPECT_EQ(p.pasteboard.written.back()[0][0].data, "gamma"); // the newest now
    EXPECT_EQ(p.poster.posts, 0);
    p.clock.advance(0.2);
    test::drain();
    EXPECT_EQ(p.poster.posts, 1);
    p.poster.can = false;
    p.panel.show();
    p.key(Qt::Key_Return, Qt::AltModifier);
    EXPECT_EQ(p.messages, QStringList{"Copied. Press Ctrl+V to paste it."});

    // Deleting moves the selection on, or back from the last row.
    p.panel.show();
    p.key(Qt::Key_End);
    EXPECT_EQ(p.current(), "beta");
    EXPECT_TRUE(p.key(Qt::Key_Backspace, Qt::AltModifier));
    EXPECT_EQ(p.current(), "delta");
    EXPECT_EQ(p.rows().size(), 3);
    EXPECT_TRUE(p.key(Qt::Key_P, Qt::AltModifier)); // pins the current one
    EXPECT_TRUE(p.history.clips()[1].pin.has_value());
    EXPECT_TRUE(p.key(Qt::Key_Escape));
    EXPECT_FALSE(p.window.visible);
}

TEST(ClipboardPanel, thePreviewOpensAfterItsDelayAndStaysClosedWhenClosedByKeys)
{
    Panel p;
    p.copy("first");
    p.copy("second");
    p.panel.show();
    EXPECT_FALSE(p.window.preview);
    p.clock.advance(0.4);
    test::drain();
    EXPECT_FALSE(p.window.preview);
    p.clock.advance(0.2);
    test::drain();
    ASSERT_TRUE(p.window.preview);
    EXPECT_EQ(p.window.preview->left(), p.window.at.right() + 1 + 6); // to the right, with a gap
    EXPECT_EQ(p.window.preview->top(), p.window.at.top());

    p.key(Qt::Key_Space, Qt::ControlModifier);
    EXPECT_FALSE(p.window.preview);
    p.key(Qt::Key_Down);
    p.clock.advance(2);
    test::drain();
    EXPECT_FALSE(p.window.preview); // suppressed until the next opening

    // A selection change cancels a pending opening.
    p.panel.show();
    p.clock.advance(0.3);
    p.key(Qt::Key_Down);
    p.clock.advance(0.3);
    test::drain();
    EXPECT_FALSE(p.window.preview);
    p.clock.advance(0.3);
    test::drain();
    EXPECT_TRUE(p.window.preview);

    // Near the right edge the preview goes to the left.
    p.panel.close();
    p.defaults.set("clip-preview", 0);
    p.panel.desktop = [] { return PanelDesktop{{990, 10}, {QRect(0, 0, 1000, 800)}, std::nullopt}; };
    p.panel.show();
    p.clock.advance(5);
    test::drain();
    EXPECT_FALSE(p.window.preview); // only by the keys now
    p.key(Qt::Key_Space, Qt::ControlModifier);
    ASSERT_TRUE(p.window.preview);
    EXPECT_EQ(p.window.preview->right() + 1 + 6, p.window.at.left());
}

TEST(ClipboardPanel, whereThePanelGoesAndHowTallItIs)
{
    Panel p;
    const PanelDesktop two{{1700, 590}, {QRect(0, 0, 1000, 800), QRect(1000, 0, 800, 600)}, QRect(100, 100, 400, 300)};
    const QSize size(450, 400);
    // At the pointer, pushed back inside the screen that holds it.
    EXPECT_EQ(p.panel.origin(size, two), QPoint(1800 - 450, 600 - 400));
    p.defaults.set("clip-position", "center");
    EXPECT_EQ(p.panel.origin(size, two), QPoint(1000 + 175, 100));
    p.defaults.set("clip-position", "window");
    // Centred on the window in front, then kept on the pointer's screen.
    EXPECT_EQ(p.panel.origin(size, two), QPoint(1000, 100 + 150 - 200));
    PanelDesktop noWindow = two;
    noWindow.frontWindow.reset();
    EXPECT_EQ(p.panel.origin(size, noWindow), QPoint(1175, 100));
    p.defaults.set("clip-position", "last");
    EXPECT_EQ(p.panel.origin(size, two), QPoint(1000 + 400 - 225, 120));
    p.panel.desktop = [&two] { return two; };
    p.panel.moved(QRect(1100, 300, 450, 400));
    EXPECT_EQ(p.defaults.array("clip-panel-anchor").value, (QJsonArray{(1324 - 1000) / 800.0, 0.5}));
    p.defaults.set("clip-position", "nonsense");
    EXPECT_EQ(p.panel.origin(size, PanelDesktop{{10, 20}, {QRect(0, 0, 1000, 800)}, {}}), QPoint(10, 20));

    EXPECT_EQ(p.panel.fittingHeight(800), 132 + 80 + 2); // with the empty state
    p.copy("a");
    p.copy("b");
    EXPECT_EQ(p.panel.fittingHeight(800), 200); // 132 + 48 + 2 = 182, raised to 200
    for (int i = 0; i < 30; ++i)
        p.copy(QString("clip %1").arg(i));
    p.history.togglePin(p.history.clips()[3].id);
    EXPECT_EQ(p.panel.fittingHeight(2000), 132 + 32 * 24 + 13 + 2);
    EXPECT_EQ(p.panel.fittingHeight(500), 500);
    p.defaults.set("clip-footer", false);
    EXPECT_EQ(p.panel.fittingHeight(2000), 54 + 32 * 24 + 13 + 2);
}

TEST(ClipboardPanel, clearingAsksUnlessToldNotTo)
{
    Panel p;
    p.copy("kept");
    p.copy("gone");
    p.history.togglePin(p.id("kept"));
    p.panel.show();
    p.window.answer = {false, false};
    p.key(Qt::Key_Backspace, Qt::ControlModifier | Qt::AltModifier);
    EXPECT_EQ(p.window.asked, QStringList{"Clear the clipboard history?"});
    EXPECT_EQ(p.history.clips().size(), 2u);
    EXPECT_TRUE(p.window.visible);

    p.window.answer = {false, true}; // "Don't ask again", then Cancel
    p.key(Qt::Key_Backspace, Qt::ControlModifier | Qt::AltModifier);
    EXPECT_EQ(p.history.clips().size(), 2u);
    EXPECT_FALSE(p.defaults.boolean("clip-confirm-clear").value);
    p.key(Qt::Key_Backspace, Qt::ControlModifier | Qt::AltModifier);
    EXPECT_EQ(p.window.asked.size(), 2);
    EXPECT_EQ(p.history.clips().size(), 1u);
    EXPECT_FALSE(p.window.visible);

    p.panel.show();
    p.key(Qt::Key_Backspace, Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier);
    EXPECT_TRUE(p.history.clips().empty());

    // A disabled history does not open; the settings key opens the settings.
    int settings = 0;
    p.panel.settings = [&settings] { ++settings; };
    p.panel.show();
    p.key(Qt::Key_Comma, Qt::ControlModifier);
    EXPECT_EQ(settings, 1);
    EXPECT_EQ(p.defaults.string("settings-tab").value, "clipboard");
    p.history.setEnabled(false);
    p.panel.show();
    EXPECT_FALSE(p.window.visible);
}

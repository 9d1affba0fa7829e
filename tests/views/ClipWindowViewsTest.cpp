// The clipboard panel's widgets offscreen, with clips that are hard to draw.
#include "clipboard/ClipboardPanel.h"
#include "clipboard/views/ClipPreview.h"
#include "clipboard/views/ClipWindow.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QImage>
#include <QLineEdit>
#include <QListView>

using namespace zuv;

TEST(ClipWindowViews, hardClipsAreDrawnAndADeletedClipLeavesThePreviewQuietly)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("defaults.json"));
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history(clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv"));
    ClipboardPanel panel(clock, defaults, history);
    ClipWindow window(panel, history, defaults, workspace);
    panel.window = &window;
    panel.desktop = [] { return PanelDesktop{{50, 50}, {QRect(0, 0, 1280, 1024)}, std::nullopt}; };
    history.setEnabled(true);

    const QByteArray png = test::picture(6000, 40);
    const std::vector<std::pair<QString, QByteArray>> clips{
        {ClipRules::plainText, QByteArray(300'000, 'w')},                           // one very long line
        {ClipRules::plainText, QByteArray("line\n").repeated(20'000)},             // many lines
        {ClipRules::plainText, QString::fromUtf8("שלום עולם مرحبا e\u0301\u0301 😀👩‍👩‍👧").toUtf8()}, // RTL, combining, emoji
        {"image/png", png},                                                        // a wide picture
        {"image/png", QByteArray("\x89PNG\r\n\x1a\nbroken", 15)},                  // a broken one
    };
    for (const auto &[type, data] : clips) {
        clock.advance(1);
        history.record({{type, data}}, std::nullopt, clock.now());
    }
    ASSERT_EQ(history.clips().size(), 5u);

    panel.show();
    ASSERT_TRUE(window.isVisible());
    EXPECT_EQ(window.model().rowCount(), 5);
    EXPECT_FALSE(window.grab().isNull());
    test::waitUntil([] { return false; }, 300); // thumbnails come off the main thread
    EXPECT_FALSE(window.grab().isNull());

    // The preview of each clip in turn, the broken picture included; a very long
    // text is cut to what it can lay out at once.
    panel.togglePreview();
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(window.preview()->isVisible());
        EXPECT_FALSE(window.preview()->grab().isNull());
        panel.handle({Qt::Key_Down, {}, 0, false});
    }

    // The clip in the preview is deleted: the preview moves on to the next one.
    panel.handle({Qt::Key_Home, {}, 0, false});
    const qint64 shown = window.preview()->clipId();
    panel.handle({Qt::Key_Backspace, Qt::AltModifier, 0, false});
    EXPECT_EQ(window.model().rowCount(), 4);
    EXPECT_NE(window.preview()->clipId(), shown);

    // Typing reaches the search field and filters; Escape closes.
    window.searchField()->setText(QStringLiteral("line"));
    emit window.searchField()->textEdited(QStringLiteral("line"));
    EXPECT_EQ(window.model().rowCount(), 1);
    panel.handle({Qt::Key_Escape, {}, 0, false});
    EXPECT_FALSE(window.isVisible());
    EXPECT_FALSE(window.preview()->isVisible());
}

// The history's capture and actions against a clipboard in memory, a real store
// and virtual time.
#include "clipboard/ClipboardHistory.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "chat/OutgoingFile.h"
#include "clipboard/ClipStore.h"
#include "shortcuts/HotKeys.h"
#include "FakeHotKeyService.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>

using namespace zuv;

namespace {

const QString plain = ClipRules::plainText;

Pasteboard::Item text(const QString &value) { return {{plain, value.toUtf8()}}; }

struct History {
    test::TempHome home;
    TestClock clock;
    Defaults defaults{home.file("defaults.json")};
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv")};
    int beeps = 0;

    History(bool enable = true)
    {
        history.beep = [this] { ++beeps; };
        if (enable)
            history.setEnabled(true);
    }
    // Another application copies; the capture runs to its end.
    void copy(std::vector<Pasteboard::Item> items, std::optional<qint64> pid = std::nullopt)
    {
        clock.advance(0.2); // beyond the storm limit
        pasteboard.copy(std::move(items), pid);
        test::drain();
    }
    QStringList titles()
    {
        QStringList out;
        for (const Clip &c : history.clips())
            out << history.title(c);
        return out;
    }
};

} // namespace

TEST(ClipboardHistory, copiesAreRecordedOnceWithTheirApplicationAndCountedAgain)
{
    History h;
    h.workspace.front = "org.example.Editor.desktop";
    h.workspace.processes[42] = "org.example.Files.desktop";
    h.copy({text("hello")}, 42);
    ASSERT_EQ(h.history.clips().size(), 1u);
    EXPECT_EQ(h.history.clips()[0].app, "org.example.Files.desktop"); // the owner, not the window in front
    EXPECT_EQ(h.history.clips()[0].copies, 1);

    h.copy({text("world")}); // no owner known: the window in front
    EXPECT_EQ(h.history.clips()[0].app, "org.example.Editor.desktop");
    EXPECT_EQ(h.titles(), (QStringList{"world", "hello"}));

    h.copy({{{ClipRules::html, "<b>hello</b>"}, {plain, "hello"}}}); // the same text, styled
    ASSERT_EQ(h.history.clips().size(), 2u);
    EXPECT_EQ(h.titles(), (QStringList{"hello", "world"}));
    EXPECT_EQ(h.history.clips()[0].copies, 2);
    EXPECT_EQ(h.history.clips()[0].app, "org.example.Files.desktop");

    // Blank text, a secret and an ignored application leave no trace; the secret
    // and the ignored application have nothing of theirs read.
    h.copy({text("  \n\t ")});
    h.pasteboard.fetched.clear();
    h.copy({{{ClipRules::concealed, "secret"}, {plain, "hunter2"}}});
    EXPECT_FALSE(h.pasteboard.fetched.contains(plain));
    h.defaults.set("clip-ignored-apps", QJsonArray{"org.example.Files.desktop"});
    h.copy({text("from files")}, 42);
    EXPECT_FALSE(h.pasteboard.fetched.contains(plain));
    h.defaults.set("clip-only-listed-apps", true);
    h.copy({text("from files")}, 42);
    h.copy({text("from the editor")}); // not listed: ignored now
    EXPECT_EQ(h.history.clips().size(), 3u);
    EXPECT_EQ(h.history.clips()[0].text, "from files");

    // All of it is in the file for the next run.
    ClipStore store(h.home.file("Zuv/Clipboard.sqlite"));
    EXPECT_EQ(store.all().size(), 3u);
}

TEST(ClipboardHistory, ownCopiesPausesAndIgnoreNextUseUpTheirChanges)
{
    History h;
    h.copy({text("one")});
    h.history.copy(h.history.clips()[0], false);
    test::drain();
    EXPECT_EQ(h.pasteboard.written.size(), 1u);
    EXPECT_EQ(h.history.clips()[0].copies, 2); // a use counts as a copy
    EXPECT_EQ(h.history.clips().size(), 1u);
    h.history.check(); // the own write is not read back
    test::drain();
    EXPECT_EQ(h.history.clips()[0].copies, 2);

    h.history.setPaused(true);
    h.history.setIgnoreNext(true);
    h.copy({text("while paused")});
    EXPECT_TRUE(h.history.ignoreNext()); // outlives the pause
    h.history.setPaused(false);
    h.history.check(); // what is already there is not picked up
    test::drain();
    EXPECT_EQ(h.history.clips().size(), 1u);
    h.copy({text("skipped")});
    EXPECT_FALSE(h.history.ignoreNext());
    h.copy({text("kept")});
    EXPECT_EQ(h.history.clips().size(), 2u);

    // Disabled, nothing is read; enabled again, what is there at the start is not.
    h.history.setEnabled(false);
    h.copy({text("while off")});
    h.history.setEnabled(true);
    test::drain();
    EXPECT_EQ(h.history.clips().size(), 2u);
}

TEST(ClipboardHistory, picturesAreReadOnlyWithoutTextAndSlowOwnersAreRetriedThenLeft)
{
    History h;
    const QByteArray picture = test::picture(4, 3);
    h.copy({{{plain, "A1:B2"}, {"image/png", picture}}}); // a spreadsheet's cells
    EXPECT_FALSE(h.pasteboard.fetched.contains("image/png"));
    ASSERT_EQ(h.history.clips().size(), 1u);
    EXPECT_EQ(h.history.clips()[0].kind, Clip::Kind::text);

    h.copy({{{ClipRules::html, "<img src=x>"}, {"image/png", picture}, {"image/tiff", "TIFF"}}}); // a browser's picture
    ASSERT_EQ(h.history.clips().size(), 2u);
    EXPECT_EQ(h.history.clips()[0].kind, Clip::Kind::image);
    EXPECT_FALSE(h.pasteboard.fetched.contains("image/tiff")); // one picture is enough

    // Two time-outs, then an answer: recorded after the waits.
    h.pasteboard.expireNext = 2;
    h.pasteboard.copy({text("slow")});
    test::drain();
    EXPECT_EQ(h.history.clips().size(), 2u);
    h.clock.advance(0.1);
    test::drain();
    h.clock.advance(0.4);
    test::drain();
    EXPECT_EQ(h.history.clips().size(), 3u);

    // An owner that never answers is asked four times in all, then left alone.
    h.pasteboard.expireNext = 100;
    h.pasteboard.offers = 0;
    h.pasteboard.copy({text("never")});
    for (int i = 0; i < 10; ++i) {
        h.clock.advance(1);
        test::drain();
    }
    EXPECT_EQ(h.pasteboard.offers, 4);
    EXPECT_EQ(h.history.clips().size(), 3u);
}

TEST(ClipboardHistory, aStormOfChangesIsReadTenTimesASecondAndItsLastContentKept)
{
    History h;
    h.clock.advance(2);
    for (int i = 0; i < 50; ++i)
        h.pasteboard.copy({text(QString("storm %1").arg(i))});
    test::drain();
    EXPECT_EQ(h.pasteboard.offers, 10);
    h.clock.advance(1);
    test::drain();
    EXPECT_EQ(h.pasteboard.offers, 11);
    EXPECT_EQ(h.history.clips()[0].text, "storm 49");

    // Without change signals, the clipboard is polled at the interval.
    History polled(false);
    polled.pasteboard.watching = false;
    polled.history.setEnabled(true);
    polled.pasteboard.copy({text("polled")});
    test::drain();
    EXPECT_TRUE(polled.history.clips().empty());
    polled.clock.advance(0.5);
    test::drain();
    EXPECT_EQ(polled.history.clips().size(), 1u);
}

TEST(ClipboardHistory, aStoreThatCannotOpenIsAProblemAndTheAppGoesOn)
{
    test::TempHome home;
    QDir().mkpath(home.file("Zuv"));
    test::writeText(home.file("Zuv/Clipboard.sqlite"), QByteArray(4096, 'x')); // not a database
    TestClock clock;
    Defaults defaults(home.file("defaults.json"));
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history(clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv"));
    history.setEnabled(true);
    ASSERT_TRUE(history.problem());
    EXPECT_FALSE(history.problem()->isEmpty());
    pasteboard.copy({text("lost")});
    test::drain();
    EXPECT_TRUE(history.clips().empty());
    history.copyText("nothing to copy into"); // no store: no clip, no crash
    EXPECT_TRUE(history.clips().empty());
    EXPECT_EQ(QFile(home.file("Zuv/Clipboard.sqlite")).size(), 4096); // left as it was

    QFile::remove(home.file("Zuv/Clipboard.sqlite"));
    history.start();
    EXPECT_FALSE(history.problem());
}

TEST(ClipboardHistory, pinsTrimmingAndClearing)
{
    History h;
    h.defaults.set("clip-size", 0); // at least one is kept
    h.copy({text("a")});
    const qint64 a = h.history.clips()[0].id;
    h.history.togglePin(a);
    EXPECT_EQ(h.history.clips()[0].order, 1);
    EXPECT_TRUE(ClipboardHistory::pinLetters().contains(*h.history.clips()[0].pin));
    h.copy({text("b")});
    h.copy({text("c")});
    EXPECT_EQ(h.titles(), (QStringList{"a", "c"})); // the pin is not counted

    // Twenty letters, then a beep and nothing changed.
    h.defaults.set("clip-size", 200);
    for (int i = 0; i < 20; ++i)
        h.copy({text(QString("pin %1").arg(i))});
    for (const Clip &c : std::vector<Clip>(h.history.clips()))
        if (!c.pin)
            h.history.togglePin(c.id);
    int pinned = 0;
    for (const Clip &c : h.history.clips())
        pinned += c.pin ? 1 : 0;
    EXPECT_EQ(pinned, 20);
    EXPECT_EQ(h.beeps, 2);
    EXPECT_EQ(h.history.clips()[0].id, a); // pins lead in the order they were made

    // A use of a pin leaves its place; unpinning keeps its order.
    const Clip last = h.history.clips()[19];
    h.history.copy(last, false);
    EXPECT_EQ(h.history.clips()[19].id, last.id);
    EXPECT_EQ(h.history.clips()[19].copies, 2);
    h.history.togglePin(a);
    EXPECT_FALSE(h.history.clips().back().pin);

    h.defaults.set("clip-clear-system", true);
    h.history.clear(false);
    EXPECT_EQ(h.history.clips().size(), 19u);
    EXPECT_EQ(h.pasteboard.clears, 1);
    h.history.check(); // the emptied clipboard is not a copy
    test::drain();
    EXPECT_EQ(h.history.clips().size(), 19u);

    h.defaults.set("clip-clear-on-quit", true);
    h.copy({text("unpinned")});
    h.history.quit();
    EXPECT_EQ(h.history.clips().size(), 19u);
    h.history.clear(true);
    EXPECT_TRUE(h.history.clips().empty());
    ClipStore store(h.home.file("Zuv/Clipboard.sqlite"));
    EXPECT_TRUE(store.all().empty());
}

TEST(ClipboardHistory, titlesFullTextAndSearch)
{
    History h;
    h.copy({text("  a\tb\n")});
    h.copy({{{ClipRules::fileURL, "file:///a/b.txt"}}, {{ClipRules::fileURL, "file:///c/d/"}}});
    const QString longText = QString(5000, 'x') + "end";
    h.copy({text(longText)});
    ASSERT_EQ(h.history.clips().size(), 3u);
    EXPECT_EQ(h.titles()[1], "b.txt, d");
    EXPECT_EQ(h.titles()[2], QString::fromUtf8("··a⇥b⏎"));
    EXPECT_EQ(h.history.fullText(h.history.clips()[0]), longText);
    EXPECT_EQ(h.history.clips()[0].text.size(), 1000);

    History off;
    off.defaults.set("clip-symbols", false);
    off.copy({text("  a\tb\n")});
    EXPECT_EQ(off.titles()[0], "a\tb");

    auto found = h.history.search("B.T");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].clip.kind, Clip::Kind::files);
    EXPECT_EQ(found[0].ranges, (std::vector<ClipSearch::Range>{{0, 3}}));
    EXPECT_EQ(h.history.search("").size(), 3u);
    h.defaults.set("clip-search", "fuzzy");
    EXPECT_EQ(h.history.search("bt").size(), 1u);
    h.defaults.set("clip-search", "regex");
    EXPECT_TRUE(h.history.search("(").empty());

    // Recognised text becomes an image's title and is searched.
    h.copy({{{"image/png", test::picture(8, 8)}}});
    const qint64 image = h.history.clips()[0].id;
    EXPECT_EQ(h.titles()[0], "");
    h.history.setText(image, "Invoice 42");
    h.history.setText(999999, "gone"); // dropped
    h.defaults.set("clip-search", "exact");
    ASSERT_EQ(h.history.search("invoice").size(), 1u);
    EXPECT_EQ(h.history.search("invoice")[0].clip.id, image);
}

TEST(ClipboardHistory, copyingBackWritesWhatWasKept)
{
    History h;
    h.copy({{{ClipRules::html, "<i>doc</i>"}, {plain, "/a/doc.txt"}, {ClipRules::fileURL, "file:///a/doc.txt"}},
            {{ClipRules::fileURL, "file:///a/more.txt"}}});
    ASSERT_EQ(h.history.clips()[0].kind, Clip::Kind::files);
    h.history.copy(h.history.clips()[0], true);
    ASSERT_EQ(h.pasteboard.written.size(), 1u);
    const auto &plainItems = h.pasteboard.written[0];
    ASSERT_EQ(plainItems.size(), 3u); // the string, then one item per file
    EXPECT_EQ(plainItems[0], (Pasteboard::Item{{plain, "/a/doc.txt"}}));
    EXPECT_EQ(plainItems[2], (Pasteboard::Item{{ClipRules::fileURL, "file:///a/more.txt"}}));
    h.history.copy(h.history.clips()[0], false);
    EXPECT_EQ(h.pasteboard.written[1][0].size(), 2u); // with the HTML

    h.copy({{{"image/png", test::picture(2, 2)}}});
    h.history.copy(h.history.clips()[0], true); // a picture stays a picture
    EXPECT_EQ(h.pasteboard.written.back()[0][0].type, "image/png");

    // Text copied by the app itself is recorded as ours.
    h.clock.advance(1);
    h.history.copyText("read in a picture");
    EXPECT_EQ(h.history.clips()[0].app, ClipboardHistory::ownApp());
    EXPECT_EQ(h.pasteboard.written.back()[0][0].data, "read in a picture");
}

TEST(ClipboardHistory, picturesAreScaledOffTheMainThreadAndTiffBecomesPng)
{
    History h;
    h.copy({{{"image/png", test::picture(1600, 800)}}});
    const Clip clip = h.history.clips()[0];
    const auto thumbnail = test::await(h.history.thumbnail(clip));
    ASSERT_TRUE(thumbnail);
    EXPECT_EQ(thumbnail->size(), QSize(720, 360));
    const auto preview = test::await(h.history.previewImage(clip));
    ASSERT_TRUE(preview);
    EXPECT_EQ(preview->pixels, QSize(1600, 800));
    EXPECT_EQ(preview->image.size(), QSize(1600, 800)); // not enlarged
    const auto file = test::await(h.history.pictureFile(clip.id));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->extension, "png");

    const QByteArray tiff = test::picture(10, 5, "TIFF");
    ASSERT_FALSE(tiff.isEmpty());
    h.copy({{{"image/tiff", tiff}}});
    const auto converted = test::await(h.history.pictureFile(h.history.clips()[0].id));
    ASSERT_TRUE(converted);
    EXPECT_EQ(converted->extension, "png");
    EXPECT_EQ(QImage::fromData(converted->data, "PNG").size(), QSize(10, 5));

    // Bytes that are no picture give nothing, not a crash.
    h.copy({{{"image/png", "not a picture"}}});
    EXPECT_FALSE(test::await(h.history.thumbnail(h.history.clips()[0])));
    EXPECT_FALSE(test::await(h.history.previewImage(h.history.clips()[0])));
}

TEST(ClipboardHistory, theShortcutIsStoredAndRefusedWhenTaken)
{
    History h;
    ASSERT_TRUE(h.history.combo());
    EXPECT_EQ(h.history.combo()->label(), "Shift+Super+C");
    h.history.conflict = [](const KeyCombo &combo) -> std::optional<QString> {
        if (combo.key == "K")
            return QString("Editor");
        return std::nullopt;
    };
    EXPECT_EQ(h.history.setCombo(KeyCombo{40, KeyCombo::command, "K"}), "Editor");
    EXPECT_EQ(h.history.combo()->key, "C");
    EXPECT_FALSE(h.history.setCombo(std::nullopt));
    EXPECT_TRUE(h.defaults.value("clip-shortcut").isNull());

    History later(false); // a stored null is no shortcut
    later.defaults.set("clip-shortcut", QJsonValue());
    ClipboardHistory reread(later.clock, later.defaults, later.pasteboard, later.workspace, nullptr, later.home.file("Zuv"));
    EXPECT_FALSE(reread.combo());
}

TEST(ClipboardHistory, theShortcutIsHeldOnlyWhileTheHistoryRunsAndTogglesThePanel)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("defaults.json"));
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    test::FakeHotKeyService service;
    HotKeys hotKeys(service);
    ClipboardHistory history(clock, defaults, pasteboard, workspace, &hotKeys, home.file("Zuv"));
    int toggles = 0;
    history.togglePanel = [&toggles] { ++toggles; };
    history.start();
    EXPECT_TRUE(service.grabbed.empty()); // off by default
    history.setEnabled(true);
    ASSERT_EQ(service.grabbed.size(), 1u);
    EXPECT_EQ(service.grabbed.begin()->second, std::make_pair(8u, KeyCombo::command | KeyCombo::shift));
    service.press(8, KeyCombo::command | KeyCombo::shift);
    test::drain();
    EXPECT_EQ(toggles, 1);

    EXPECT_FALSE(history.setCombo(KeyCombo{40, KeyCombo::command, "K"}));
    ASSERT_EQ(service.grabbed.size(), 1u);
    EXPECT_EQ(service.grabbed.begin()->second.first, 40u);
    history.setEnabled(false);
    EXPECT_TRUE(service.grabbed.empty());
}

TEST(ClipboardHistory, askingZuvHandsOverTheTextTheFilesOrThePictureAsPng)
{
    History h;
    QString said;
    std::vector<OutgoingFile> files;
    h.history.handoff = [&](const QString &t, const std::vector<OutgoingFile> &f) {
        said = t;
        files = f;
    };
    const QString longText = QString(3000, 'z');
    h.copy({text(longText)});
    test::await(h.history.askZuv(h.history.clips()[0]));
    EXPECT_EQ(said, longText); // whole, not the first 1000 characters
    EXPECT_TRUE(files.empty());

    h.copy({{{ClipRules::fileURL, "file:///etc/hostname"}}, {{ClipRules::fileURL, "file:///tmp/notes.md"}}});
    test::await(h.history.askZuv(h.history.clips()[0]));
    EXPECT_TRUE(said.isEmpty());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].path, "/etc/hostname");
    EXPECT_EQ(files[1].name, "notes.md");

    h.copy({{{"image/png", test::picture(30, 20)}}});
    test::await(h.history.askZuv(h.history.clips()[0]));
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].name, "Clipboard.png");
    EXPECT_EQ(files[0].mime, "image/png");
    EXPECT_EQ(QImage(files[0].path).size(), QSize(30, 20));
    files[0].discard();
}

// The X11 clipboard for real: other clients on the test display (xclip, and an
// owner of ours that misbehaves on demand) copy, and the history reads them.
#include "platform/linux/X11Pasteboard.h"
#include "platform/linux/X11PastePoster.h"
#include "platform/linux/RealClock.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipStore.h"
#include "clipboard/ClipboardHistory.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QClipboard>
#include <QDir>
#include <QElapsedTimer>
#include <QTimer>
#include <QFile>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QProcess>
#include <QWindow>

#include <xcb/xcb.h>

#include <functional>
#include <memory>

using namespace zuv;

namespace {

const QString plain = ClipRules::plainText;

// A client that owns the clipboard until it is taken from it or killed.
class Owner {
public:
    explicit Owner(const QStringList &arguments, const QString &program = QStringLiteral(ZUV_CLIP_OWNER))
    {
        m_process.setProgram(program);
        m_process.setArguments(arguments);
        m_process.start();
    }
    ~Owner()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    // Waits for the owner to say it holds the clipboard.
    bool owns()
    {
        const bool owned = test::waitUntil([this] {
            m_output += m_process.readAllStandardOutput();
            return m_output.contains("owned");
        });
        if (!owned)
            qWarning() << "owner" << m_process.state() << m_process.errorString() << m_process.readAllStandardError();
        return owned;
    }
    qint64 pid() const { return m_process.processId(); }
    void kill()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }

private:
    QProcess m_process;
    QByteArray m_output;
};

// xclip owns the clipboard once its input is read; `started` runs before that.
bool xclip(QProcess &process, const QByteArray &data, const std::function<void()> &started = {})
{
    process.start("xclip", {"-selection", "clipboard", "-i", "-verbose"});
    process.waitForStarted();
    if (started)
        started();
    process.write(data);
    process.closeWriteChannel();
    QByteArray said;
    return test::waitUntil([&] {
        said += process.readAllStandardOutput() + process.readAllStandardError();
        return said.contains("Waiting for selection request");
    });
}

xcb_window_t selectionOwner()
{
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    xcb_intern_atom_reply_t *atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 9, "CLIPBOARD"), nullptr);
    xcb_get_selection_owner_reply_t *owner =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atom->atom), nullptr);
    const xcb_window_t window = owner ? owner->owner : XCB_NONE;
    free(owner);
    free(atom);
    xcb_disconnect(c);
    return window;
}

QStringList lines(const QString &path)
{
    return test::readText(path).split('\n', Qt::SkipEmptyParts);
}

struct Capture {
    test::TempHome home;
    TestClock clock;
    Defaults defaults{home.file("defaults.json")};
    X11Pasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv")};

    explicit Capture(X11Pasteboard::Budgets budgets = {}) : pasteboard({}, budgets)
    {
        history.setEnabled(true);
    }
    bool recorded(size_t count)
    {
        return test::waitUntil([&] { return history.clips().size() >= count; });
    }
};

} // namespace

TEST(X11Pasteboard, anotherClientsCopyIsRecordedWithItsTypesAndOwner)
{
    Capture c;
    ASSERT_TRUE(c.pasteboard.watches()) << c.pasteboard.problem().toStdString();
    QProcess copier;
    ASSERT_TRUE(xclip(copier, "héllo from xclip",
                      [&] { c.workspace.processes[copier.processId()] = "org.example.Editor.desktop"; }));
    ASSERT_TRUE(c.recorded(1));
    const Clip clip = c.history.clips()[0];
    EXPECT_EQ(clip.text, QString::fromUtf8("héllo from xclip"));
    EXPECT_EQ(clip.app, "org.example.Editor.desktop"); // the owner's process, through X-Resource
    const auto rows = c.history.store()->contents(clip.id);
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0], (ClipContent{plain, QByteArray("héllo from xclip")}));
    EXPECT_NE(selectionOwner(), XCB_NONE); // reading took nothing from the owner
    copier.kill();
    copier.waitForFinished();

    // Rich text and a file list from an owner of ours: every type, one item per file.
    c.clock.advance(1);
    const QString log = c.home.file("asked");
    Owner files({"--log", log, "text/html::<b>two files</b>", "text/uri-list::file:///tmp/a.txt\r\nfile:///tmp/b%20c.txt\r\n",
                 "x-special/gnome-copied-files::copy\nfile:///tmp/a.txt"});
    ASSERT_TRUE(files.owns());
    ASSERT_TRUE(c.recorded(2));
    const Clip list = c.history.clips()[0];
    EXPECT_EQ(list.kind, Clip::Kind::files);
    EXPECT_EQ(list.text, "/tmp/a.txt\n/tmp/b c.txt");
    QStringList types;
    for (const ClipContent &row : c.history.store()->contents(list.id))
        types << row.type;
    EXPECT_EQ(types, (QStringList{"text/html", "text/uri-list", "x-special/gnome-copied-files", "text/uri-list"}));
    EXPECT_EQ(lines(log).first(), "TARGETS");
    EXPECT_FALSE(lines(log).contains("TIMESTAMP"));
}

TEST(X11Pasteboard, secretsAreNotReadAndOurOwnCopiesAreNotRecordedAgain)
{
    Capture c;
    const QString log = c.home.file("asked");
    {
        Owner secret({"--log", log, "x-kde-passwordManagerHint::secret", "text/plain;charset=utf-8::hunter2"});
        ASSERT_TRUE(secret.owns());
        ASSERT_TRUE(test::waitUntil([&] { return lines(log).contains("x-kde-passwordManagerHint"); }));
        test::drain();
        EXPECT_FALSE(lines(log).contains("text/plain;charset=utf-8"));
        EXPECT_TRUE(c.history.clips().empty());
    }

    Owner other({"text/plain;charset=utf-8::to be used again"});
    ASSERT_TRUE(other.owns());
    ASSERT_TRUE(c.recorded(1));
    qint64 before = c.pasteboard.changeCount();
    c.clock.advance(1);
    c.history.copy(c.history.clips()[0], false);
    EXPECT_EQ(c.pasteboard.changeCount(), before + 1); // at once, not when X tells
    ASSERT_TRUE(test::waitUntil([] { return QGuiApplication::clipboard()->ownsClipboard(); }));
    // Another copy after ours is recorded, and nothing of ours came in between.
    QProcess copier;
    c.clock.advance(1);
    ASSERT_TRUE(xclip(copier, "after ours"));
    ASSERT_TRUE(c.recorded(2));
    EXPECT_EQ(c.history.clips()[1].copies, 2);
    EXPECT_EQ(c.pasteboard.changeCount(), before + 2);
    // The owner's end empties the clipboard: a change, with nothing to record.
    copier.kill();
    copier.waitForFinished();
    ASSERT_TRUE(test::waitUntil([&] { return c.pasteboard.changeCount() == before + 3; }));
    before += 3;

    // Clearing empties the clipboard and is not taken for a copy.
    c.defaults.set("clip-clear-system", true);
    c.history.clear(true);
    ASSERT_TRUE(test::waitUntil([] { return selectionOwner() == XCB_NONE; }));
    test::drain();
    EXPECT_EQ(c.pasteboard.changeCount(), before + 1);
    EXPECT_EQ(c.history.clips().size(), 0u);
}

TEST(X11Pasteboard, stalledDyingAndHugeOwnersGiveNothingPartial)
{
    X11Pasteboard::Budgets budgets;
    budgets.targetMs = 300;
    budgets.captureMs = 1000;
    budgets.size = 1 << 20;
    X11Pasteboard pasteboard({}, budgets);

    {
        Owner stalled({"--stall", "text/html", "text/html::<b>never</b>", "text/plain;charset=utf-8::text"});
        ASSERT_TRUE(stalled.owns());
        ASSERT_TRUE(test::waitUntil([&] { return pasteboard.changeCount() > 0; }));
        const auto offer = test::await(pasteboard.offer());
        ASSERT_EQ(offer.outcome, Pasteboard::Outcome::read);
        EXPECT_EQ(offer.types, (QStringList{"text/html", "text/plain;charset=utf-8"}));
        // The main thread stays free while the worker waits out the owner.
        int ticks = 0;
        QTimer ticker;
        QObject::connect(&ticker, &QTimer::timeout, [&ticks] { ++ticks; });
        ticker.start(10);
        const auto reading = test::await(pasteboard.fetch(offer.changeCount, {{"text/html", plain}, {}}));
        EXPECT_EQ(reading.outcome, Pasteboard::Outcome::expired);
        EXPECT_GT(ticks, 5);
    }
    {
        Owner huge({"--announce", "4294967295", "image/png::PNG"});
        ASSERT_TRUE(huge.owns());
        const auto offer = test::await(pasteboard.offer());
        const auto reading = test::await(pasteboard.fetch(offer.changeCount, {{"image/png"}, {}}));
        EXPECT_EQ(reading.outcome, Pasteboard::Outcome::tooBig);
    }
    {
        // Chunks arrive whole, and a value above the limit is dropped midway.
        const QByteArray big(300'000, 'x');
        const QString bigFile = QDir::tempPath() + "/zuv-clip-chunked";
        test::writeText(bigFile, big);
        Owner chunked({"--incr", "4096", "text/plain;charset=utf-8::@" + bigFile});
        ASSERT_TRUE(chunked.owns());
        auto offer = test::await(pasteboard.offer());
        auto reading = test::await(pasteboard.fetch(offer.changeCount, {{plain}, {}}));
        ASSERT_EQ(reading.outcome, Pasteboard::Outcome::read);
        EXPECT_EQ(reading.items.at(0).at(0).data, big);
        QFile::remove(bigFile);

        const QByteArray tooBig(1'100'000, 'y');
        test::writeText(QDir::tempPath() + "/zuv-clip-big", tooBig);
        Owner growing({"--incr", "65536", "--announce", "10", "text/plain;charset=utf-8::@" + QDir::tempPath() + "/zuv-clip-big"});
        ASSERT_TRUE(growing.owns());
        offer = test::await(pasteboard.offer());
        reading = test::await(pasteboard.fetch(offer.changeCount, {{plain}, {}}));
        EXPECT_EQ(reading.outcome, Pasteboard::Outcome::tooBig);
        QFile::remove(QDir::tempPath() + "/zuv-clip-big");
    }
    {
        Owner dying({"--incr", "1000", "--die-after", "1", "text/plain;charset=utf-8::" + QString(5'000, 'z')});
        ASSERT_TRUE(dying.owns());
        const auto offer = test::await(pasteboard.offer());
        const auto reading = test::await(pasteboard.fetch(offer.changeCount, {{plain}, {}}));
        EXPECT_NE(reading.outcome, Pasteboard::Outcome::read);
        EXPECT_TRUE(reading.items.empty());
    }
}

TEST(X11Pasteboard, aNewOwnerDuringAReadWinsAndAStormStaysBounded)
{
    X11Pasteboard::Budgets budgets;
    budgets.targetMs = 3000;
    X11Pasteboard pasteboard({}, budgets);
    Owner slow({"--stall", "text/html", "text/html::<b>first</b>"});
    ASSERT_TRUE(slow.owns());
    const auto offer = test::await(pasteboard.offer());
    ASSERT_EQ(offer.outcome, Pasteboard::Outcome::read);
    std::optional<Pasteboard::Reading> reading;
    Pasteboard::Plan html{{"text/html"}, {}};
    auto read = [&]() -> QCoro::Task<void> { reading = co_await pasteboard.fetch(offer.changeCount, html); };
    auto running = read();
    Owner second({"text/plain;charset=utf-8::second"});
    ASSERT_TRUE(second.owns());
    ASSERT_TRUE(test::waitUntil([&] { return reading.has_value(); }, 2500)); // before the target's budget ends
    EXPECT_EQ(reading->outcome, Pasteboard::Outcome::changed);
    const auto next = test::await(pasteboard.offer());
    EXPECT_EQ(next.types, QStringList{plain});

    // An owner that takes the clipboard again at every request: bounded reads, one clip.
    test::TempHome home;
    RealClock clock;
    Defaults defaults(home.file("defaults.json"));
    test::FakeWorkspace workspace;
    X11Pasteboard watched;
    ClipboardHistory history(clock, defaults, watched, workspace, nullptr, home.file("Zuv"));
    history.setEnabled(true);
    const QString log = home.file("asked");
    Owner storm({"--reown", "--log", log, "text/plain;charset=utf-8::storm"});
    ASSERT_TRUE(storm.owns());
    QElapsedTimer elapsed;
    elapsed.start();
    test::waitUntil([] { return false; }, 2000);
    const double seconds = elapsed.elapsed() / 1000.0;
    // Its content never holds still long enough to be read whole: nothing is kept
    // rather than something mixed.
    EXPECT_LE(history.clips().size(), 1u);
    // At most ten captures a second, each asking for the targets and the text.
    EXPECT_LE(lines(log).size(), int((seconds + 1) * 10 * 2) + 2);
}

TEST(X11Pasteboard, aClearIsNotUndoneAndAPasteLandsInTheWindowInFront)
{
    Capture c;
    {
        Owner manager({"--release-after", "300", "text/plain;charset=utf-8::one-time code"});
        ASSERT_TRUE(manager.owns());
        ASSERT_TRUE(c.recorded(1));
        ASSERT_TRUE(test::waitUntil([] { return selectionOwner() == XCB_NONE; }));
        test::waitUntil([] { return false; }, 300);
        EXPECT_EQ(selectionOwner(), xcb_window_t(XCB_NONE)); // nobody refilled it
        EXPECT_EQ(c.history.clips().size(), 1u);
    }

    // A window of ours in front takes Ctrl+V from XTest and pastes the clip.
    class Target : public QWindow {
    public:
        QString pasted;
        int pastes = 0;

    protected:
        void keyPressEvent(QKeyEvent *event) override
        {
            if (event->matches(QKeySequence::Paste)) {
                ++pastes;
                pasted = QGuiApplication::clipboard()->text();
            }
        }
    } target;
    target.resize(200, 100);
    target.show();
    target.requestActivate();
    ASSERT_TRUE(test::waitUntil([&] { return target.isActive(); }));
    X11PastePoster poster;
    ASSERT_TRUE(poster.canPost());
    c.history.poster = &poster;
    EXPECT_TRUE(c.history.use(c.history.clips()[0], true, false));
    ASSERT_TRUE(test::waitUntil([&] { return target.pastes > 0; }));
    EXPECT_EQ(target.pasted, "one-time code");
    EXPECT_EQ(target.pastes, 1);

    EXPECT_TRUE(X11PastePoster::isTerminal("gnome-terminal-server", "Gnome-terminal"));
    EXPECT_TRUE(X11PastePoster::isTerminal("kitty", "kitty"));
    EXPECT_FALSE(X11PastePoster::isTerminal("gedit", "Gedit"));
}

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Log.h"
#include "hub/CcPermission.h"
#include "hub/CcSession.h"
#include "hub/Entry.h"
#include "notify/Notifier.h"
#include "platform/linux/DBusNotificationCenter.h"

#include "FakeNotificationCenter.h"
#include "MockNotificationDaemon.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QProcess>

using namespace zuv;
using test::FakeNotificationCenter;

namespace {

Entry reply(const QString &id, const QString &text, std::optional<QString> conversation = std::nullopt, int files = 0)
{
    Entry e;
    e.id = id;
    e.role = QStringLiteral("assistant");
    e.text = text;
    e.conversation = std::move(conversation);
    if (files > 0)
        e.files = std::vector<Entry::File>(size_t(files));
    return e;
}

CcPermission request(const QString &id, const QString &session)
{
    CcPermission p;
    p.id = id;
    p.sessionId = session;
    p.project = QStringLiteral("zuv");
    p.tool = QStringLiteral("Bash");
    p.summary = QStringLiteral("rm -rf build");
    p.status = QStringLiteral("pending");
    return p;
}

struct NotifierFixture {
    test::TempHome home;
    TestClock clock{1800000000.25};
    Defaults defaults{home.file("d.json")};
    FakeNotificationCenter center;
    Notifier notifier{clock, defaults, center};
    bool active = true;
    std::optional<QString> visible;
    std::optional<QString> visibleSession;

    NotifierFixture()
    {
        notifier.setScreen({[this] { return active; }, [this] { return visible; }, [this] { return visibleSession; },
                            {}});
    }
};

} // namespace

TEST(Notifier, repliesSkipWhatIsOnScreenAndReadAsPlainText)
{
    NotifierFixture f;
    f.visible = QStringLiteral("c1");
    f.notifier.reply(reply("e1", "on screen", QStringLiteral("c1")), "Zuv");
    EXPECT_TRUE(f.center.added.empty()) << "the conversation on screen of an active app";

    f.active = false;
    f.notifier.reply(reply("e2", "**Done.** See [the log](https://x.org) and\n```\ncode\n```", QStringLiteral("c1")), "Zuv");
    ASSERT_EQ(f.center.added.size(), 1u);
    const auto &r = f.center.added.back();
    EXPECT_EQ(r.identifier, "reply-e2");
    EXPECT_EQ(r.thread, "conv-c1");
    EXPECT_EQ(r.body, "Done. See the log and\n(code)");
    EXPECT_EQ(r.userInfo.value("conversation").toString(), "c1");
    EXPECT_FALSE(r.urgent);

    f.notifier.reply(reply("e3", "", std::nullopt, 2), "Zuv");
    EXPECT_EQ(f.center.added.back().body, "📎 2 file(s)");
    EXPECT_EQ(f.center.added.back().thread, "conv-main");
    EXPECT_EQ(Notifier::plain(QString(400, 'a')).size(), 300);
}

TEST(Notifier, permissionsCarryTheirAnswersAndAnswersOpenNothing)
{
    NotifierFixture f;
    std::vector<std::pair<QString, bool>> answers;
    std::vector<std::pair<std::optional<QString>, std::optional<QString>>> opened;
    QObject::connect(&f.notifier, &Notifier::answer, [&](const QString &p, bool allow) { answers.push_back({p, allow}); });
    QObject::connect(&f.notifier, &Notifier::open,
                     [&](const std::optional<QString> &c, const std::optional<QString> &s) { opened.push_back({c, s}); });

    f.notifier.permission(request("p1", "s1")); // even with the app in front
    ASSERT_EQ(f.center.added.size(), 1u);
    const auto &r = f.center.added.back();
    EXPECT_EQ(r.identifier, "perm-p1");
    EXPECT_EQ(r.thread, "cc-s1");
    EXPECT_EQ(r.title, "zuv: Claude wants to use Bash");
    EXPECT_EQ(r.body, "rm -rf build");
    EXPECT_TRUE(r.urgent);
    ASSERT_EQ(r.actions.size(), 2u);
    EXPECT_EQ(r.actions[0], (std::pair<QString, QString>{"ALLOW", "Allow"}));
    EXPECT_EQ(r.actions[1], (std::pair<QString, QString>{"DENY", "Deny"}));

    f.center.press("perm-p1", "DENY");
    f.center.press("perm-p1", "ALLOW");
    EXPECT_EQ(answers, (std::vector<std::pair<QString, bool>>{{"p1", false}, {"p1", true}}));
    EXPECT_TRUE(opened.empty()) << "an answer opens no window";
    f.center.press("perm-p1", "default");
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].first, std::nullopt);
    EXPECT_EQ(opened[0].second, "s1");

    f.notifier.clearPermission("p1");
    EXPECT_TRUE(f.center.shown.empty());
}

TEST(Notifier, sessionsDoneInOneSecondReplaceEachOtherAndTheSwitchStopsOnlyBanners)
{
    NotifierFixture f;
    CcSession s;
    s.id = QStringLiteral("s9");
    s.project = QStringLiteral("site");
    s.agent = QStringLiteral("codex");
    s.title = QStringLiteral("Fix the **build**");
    f.visibleSession = QStringLiteral("s9");
    f.notifier.sessionDone(s);
    EXPECT_TRUE(f.center.added.empty()) << "the session on screen";
    f.active = false;
    f.notifier.sessionDone(s);
    f.clock.advance(0.5);
    f.notifier.sessionDone(s);
    ASSERT_EQ(f.center.added.size(), 2u);
    EXPECT_EQ(f.center.added[0].identifier, f.center.added[1].identifier) << "one second, one banner";
    EXPECT_EQ(f.center.added[0].title, "site: Codex is done");
    EXPECT_EQ(f.center.added[0].body, "Fix the build");
    EXPECT_FALSE(f.center.added[0].sound);
    f.clock.advance(60);
    f.notifier.sessionDone(s);
    EXPECT_NE(f.center.added[2].identifier, f.center.added[0].identifier);
    EXPECT_EQ(f.center.added[2].thread, f.center.added[0].thread);

    f.notifier.clipboard("Phone", "files", 3, std::nullopt);
    EXPECT_EQ(f.center.added.back().body, "3 files, saved to Downloads. Press Ctrl+V in the file manager to copy them.");
    f.notifier.clipboard("Phone", "text", 0, QStringLiteral("  hello  "));
    EXPECT_EQ(f.center.added.back().body, "hello\n\nPress Ctrl+V to paste it.");

    // Off: nothing is raised, and what was delivered is still cleared.
    f.notifier.reply(reply("e1", "a", QStringLiteral("c2")), "Zuv");
    f.notifier.reply(reply("e2", "b", QStringLiteral("c2")), "Zuv");
    const size_t raised = f.center.added.size();
    f.defaults.set("mac-notifications", false);
    f.notifier.reply(reply("e3", "c", QStringLiteral("c2")), "Zuv");
    f.notifier.permission(request("p2", "s1"));
    EXPECT_EQ(f.center.added.size(), raised);
    f.notifier.clearConversation("c2");
    EXPECT_TRUE(f.center.delivered("conv-c2").isEmpty());
    f.defaults.set("mac-notifications", "yes");
    EXPECT_TRUE(f.notifier.enabled()) << "a value of another type counts as on";
}

using test::MockNotificationDaemon;
using test::hints;
using test::plainValue;
using test::strings;

// The real protocol against a recording daemon: what goes out, the replaced
// banner, an answer from the banner, and closing what we delivered.
TEST(DBusNotificationCenter, talksToTheNotificationDaemon)
{
    MockNotificationDaemon daemon;
    ASSERT_TRUE(daemon.up());
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("d.json"));
    DBusNotificationCenter center(daemon.bus());
    Notifier notifier(clock, defaults, center);
    std::vector<std::pair<QString, bool>> answers;
    int opened = 0;
    QObject::connect(&notifier, &Notifier::answer, [&](const QString &p, bool allow) { answers.push_back({p, allow}); });
    QObject::connect(&notifier, &Notifier::open, [&] { ++opened; });

    notifier.permission(request("p1", "s1"));
    ASSERT_TRUE(test::waitUntil([&] { return daemon.calls("Notify").size() == 1; }));
    auto notify = daemon.calls("Notify").front().args;
    ASSERT_EQ(notify.size(), 8);
    EXPECT_EQ(plainValue(notify[0]).toString(), "Zuv");
    EXPECT_EQ(plainValue(notify[1]).toUInt(), 0u);
    EXPECT_EQ(plainValue(notify[3]).toString(), "zuv: Claude wants to use Bash");
    EXPECT_EQ(plainValue(notify[4]).toString(), "rm -rf build");
    EXPECT_EQ(strings(notify[5]), (QStringList{"ALLOW", "Allow", "DENY", "Deny", "default", ""}));
    EXPECT_EQ(hints(notify[6]).value("urgency").toInt(), 2) << "critical: it waits on the person";
    ASSERT_TRUE(test::waitUntil([&] { return center.delivered("cc-s1") == QStringList{"perm-p1"}; }));

    // The same identifier replaces its banner.
    notifier.permission(request("p1", "s1"));
    ASSERT_TRUE(test::waitUntil([&] { return daemon.calls("Notify").size() == 2; }));
    const uint id = plainValue(daemon.calls("Notify").at(1).args.at(1)).toUInt();
    EXPECT_EQ(id, 1u) << "replaces_id names the first banner";

    daemon.emitSignal("ActionInvoked", "us", {QVariant::fromValue(id), QStringLiteral("ALLOW")});
    ASSERT_TRUE(test::waitUntil([&] { return !answers.empty(); }));
    EXPECT_EQ(answers.front(), (std::pair<QString, bool>{"p1", true}));
    EXPECT_EQ(opened, 0);

    // Two replies in one conversation, cleared together; the daemon's
    // NotificationClosed keeps the list true.
    notifier.reply(reply("e1", "one", QStringLiteral("c1")), "Zuv");
    notifier.reply(reply("e2", "two", QStringLiteral("c1")), "Zuv");
    ASSERT_TRUE(test::waitUntil([&] { return center.delivered("conv-c1").size() == 2 && daemon.calls("Notify").size() == 4; }));
    test::drain();
    notifier.clearConversation("c1");
    ASSERT_TRUE(test::waitUntil([&] { return daemon.calls("CloseNotification").size() == 2; }));
    std::set<uint> closed;
    for (const auto &call : daemon.calls("CloseNotification"))
        closed.insert(plainValue(call.args.at(0)).toUInt());
    EXPECT_EQ(closed, (std::set<uint>{2, 3}));
    EXPECT_TRUE(center.delivered("conv-c1").isEmpty());

    // The daemon closes the permission banner itself (the person dismissed it).
    daemon.emitSignal("NotificationClosed", "uu", {QVariant::fromValue(id), QVariant::fromValue(2u)});
    ASSERT_TRUE(test::waitUntil([&] { return center.delivered("cc-s1").isEmpty(); }));
}

TEST(DBusNotificationCenter, withoutADaemonItSaysSoOnce)
{
    MockNotificationDaemon bus(false); // a bus with no notification daemon on it
    ASSERT_TRUE(bus.up());
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    DBusNotificationCenter center(bus.bus());
    NotificationCenter::Request r;
    r.identifier = QStringLiteral("a");
    center.add(r);
    r.identifier = QStringLiteral("b");
    center.add(r);
    // Both calls come back with an error; neither banner counts as delivered.
    ASSERT_TRUE(test::waitUntil([&] { return !logged.isEmpty() && center.delivered(QString()).isEmpty(); }));
    test::drain();
    EXPECT_EQ(logged.size(), 1) << "said once";
    setLogSink({});
}

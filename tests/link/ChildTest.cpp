#include "base/Clock.h"
#include "link/Child.h"
#include "link/LoginShell.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <csignal>

using namespace zuv;
using State = Child::State;

namespace {

struct Failure {
    int status;
    bool signal;
    QString tail;
};

// One supervised child of a small shell script, with everything it reports recorded.
class ChildTest : public ::testing::Test {
protected:
    std::unique_ptr<Child> make(const QString &script, bool takesInput = false, const QString &executable = {})
    {
        QString program = executable;
        if (program.isEmpty()) {
            program = home.file("child.sh");
            test::writeText(program, "#!/bin/sh\n" + script.toUtf8() + "\n");
            QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
        auto child = std::make_unique<Child>(
            clock, "agent", program, [] { return QStringList(); },
            [this] { return Child::Environment{{"PATH", "/usr/bin:/bin"}, {"MARK", mark}}; },
            home.file("logs/child.log"), takesInput);
        child->onLine = [this](const QString &line) { lines << line; };
        child->onState = [this](State state) { states << state; };
        child->onFailure = [this](int status, bool signal, const QString &tail) {
            failures.push_back({status, signal, tail});
        };
        return child;
    }

    void start(Child &child)
    {
        child.setWanted(true);
        child.launch();
    }

    // Waits for the child to end and be scheduled again; returns the delay it waits.
    double nextDelay(Child &child)
    {
        const int before = int(states.count(State::restarting));
        EXPECT_TRUE(test::waitUntil([&] { return states.count(State::restarting) > before; }));
        return clock.nextDeadline();
    }

    TestClock clock;
    test::TempHome home;
    QString mark = "first";
    QStringList lines;
    QList<State> states;
    std::vector<Failure> failures;
};

int openDescriptors() { return int(QDir("/proc/self/fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size()); }

} // namespace

TEST_F(ChildTest, aChildDyingAtOnceBacksOffTo30SecondsAndReportsOnce)
{
    auto child = make("echo dying; exit 1");
    start(*child);
    std::vector<double> delays;
    for (int i = 0; i < 7; ++i) {
        delays.push_back(nextDelay(*child));
        clock.advance(delays.back());
    }
    EXPECT_EQ(delays, (std::vector<double>{2, 4, 8, 16, 30, 30, 30}));
    EXPECT_EQ(child->failures(), 7);
    ASSERT_EQ(failures.size(), 1u) << "at most one report in 600 seconds";
    EXPECT_EQ(failures[0].status, 1);
    EXPECT_FALSE(failures[0].signal);
    EXPECT_EQ(failures[0].tail, "dying");

    clock.advance(600);
    nextDelay(*child);
    EXPECT_EQ(failures.size(), 2u) << "a new report once 600 seconds have passed";
    EXPECT_TRUE(QFile(home.file("logs/child.log")).size() > 0);
}

TEST_F(ChildTest, aLongRunRestartsQuicklyAndExactly60SecondsIsShort)
{
    auto child = make("read line; exit 3", true);
    start(*child);
    ASSERT_TRUE(test::waitUntil([&] { return states.contains(State::running); }));
    EXPECT_TRUE(child->send("now"));
    EXPECT_EQ(nextDelay(*child), 2);
    clock.advance(2);

    ASSERT_TRUE(test::waitUntil([&] { return child->process() && child->process()->state() == QProcess::Running; }));
    clock.advance(60);
    child->send("now");
    EXPECT_EQ(nextDelay(*child), 4) << "exactly 60 seconds still counts as short";
    EXPECT_EQ(child->failures(), 2);
    clock.advance(4);

    ASSERT_TRUE(test::waitUntil([&] { return child->process() && child->process()->state() == QProcess::Running; }));
    clock.advance(61);
    child->send("now");
    EXPECT_EQ(nextDelay(*child), 0.5);
    EXPECT_EQ(child->failures(), 0);
}

TEST_F(ChildTest, normalExitsRestartWithoutAReportAndCrashesReportOnce)
{
    auto child = make("read cmd\n"
                      "case $cmd in\n"
                      "  75) exit 75 ;;\n"
                      "  0) exit 0 ;;\n"
                      "  kill) kill -9 $$ ;;\n"
                      "  *) exit 1 ;;\n"
                      "esac",
                      true);
    start(*child);
    auto runAndSend = [&](const char *command) {
        ASSERT_TRUE(test::waitUntil([&] { return child->process() && child->process()->state() == QProcess::Running; }));
        ASSERT_TRUE(child->send(command));
        clock.advance(nextDelay(*child));
    };
    runAndSend("75");
    runAndSend("0");
    ASSERT_TRUE(test::waitUntil([&] { return child->process() && child->process()->state() == QProcess::Running; }));
    child->terminate(); // SIGTERM while wanted: the restart request
    clock.advance(nextDelay(*child));
    EXPECT_TRUE(failures.empty());

    runAndSend("kill");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].status, SIGKILL);
    EXPECT_TRUE(failures[0].signal);
    runAndSend("1");
    EXPECT_EQ(failures.size(), 1u) << "the second failure within 600 seconds is not reported";
    clock.advance(600);
    runAndSend("1");
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[1].status, 1);
    EXPECT_FALSE(failures[1].signal);
}

TEST_F(ChildTest, clearingWantedDuringTheDelayStopsTheRestart)
{
    auto child = make("exit 1");
    start(*child);
    nextDelay(*child);
    child->setWanted(false);
    test::drain();
    EXPECT_EQ(clock.sleepers(), 0) << "the pending restart was cancelled, not left to wake";
    clock.advance(60);
    test::drain();
    EXPECT_EQ(child->process(), nullptr);
    EXPECT_EQ(states.count(State::running), 1);
    failures.clear();

    // Stopping a running child ends in `stopped`.
    auto sleeper = make("exec sleep 30");
    states.clear();
    start(*sleeper);
    ASSERT_TRUE(test::waitUntil([&] { return states.contains(State::running); }));
    sleeper->setWanted(false);
    sleeper->terminate();
    ASSERT_TRUE(test::waitUntil([&] { return states.contains(State::stopped); }));
    EXPECT_EQ(states, (QList<State>{State::running, State::stopped}));
    EXPECT_TRUE(failures.empty());
}

// A stop and a start while a restart is pending: the old wait must not launch a
// second time early, so the next crash keeps the back-off it had earned.
TEST_F(ChildTest, stopThenStartKeepsTheBackOff)
{
    auto child = make("exit 1");
    start(*child);
    EXPECT_EQ(nextDelay(*child), 2);
    clock.advance(2);
    EXPECT_EQ(nextDelay(*child), 4);
    child->setWanted(false);
    start(*child);
    EXPECT_EQ(nextDelay(*child), 8) << "the count of short runs goes on";
    test::drain();
    EXPECT_EQ(clock.sleepers(), 1) << "one pending restart, not the old one beside the new";
    const int runs = int(states.count(State::running));
    clock.advance(7.9);
    test::drain();
    EXPECT_EQ(states.count(State::running), runs) << "nothing launched before its delay";
}

TEST_F(ChildTest, linesArriveWholeInOrderWithTheLast60Kept)
{
    // A character cut between two writes: the decoder of the child's stream keeps
    // the first half until the rest comes, however the reads fall.
    auto child = make("i=1; while [ $i -le 61 ]; do echo \"line $i\"; i=$((i+1)); done\n"
                      "printf 'caf\\303'; printf '\\251 ok\\n'\n"
                      "echo 'to stderr' >&2\n"
                      "head -c 1048576 /dev/zero | tr '\\0' x; echo\n"
                      "printf 'no line end'\n"
                      "exec sleep 30");
    start(*child);
    ASSERT_TRUE(test::waitUntil([&] { return lines.size() >= 64; }));
    test::drain();
    ASSERT_EQ(lines.size(), 64) << "text without a line end is not delivered";
    EXPECT_EQ(lines[0], "line 1");
    EXPECT_EQ(lines[60], "line 61");
    EXPECT_EQ(lines[61], QString::fromUtf8("café ok")) << "a character cut between writes arrives whole";
    EXPECT_EQ(lines[62], "to stderr") << "both streams arrive merged";
    EXPECT_EQ(lines[63].size(), 1048576);
    EXPECT_EQ(lines[63].count(QLatin1Char('x')), 1048576);

    ASSERT_EQ(child->tail().size(), 60u);
    EXPECT_EQ(child->tail().front(), "line 5");
    EXPECT_EQ(child->send("x"), false) << "no standard input";
}

TEST_F(ChildTest, theEnvironmentIsExactlyWhatTheOwnerGives)
{
    auto child = make("echo \"mark=$MARK home=${HOME-unset}\"; read x", true);
    start(*child);
    ASSERT_TRUE(test::waitUntil([&] { return !lines.isEmpty(); }));
    EXPECT_EQ(lines[0], "mark=first home=unset");
    mark = "second"; // read again at the next launch
    child->send("go");
    clock.advance(nextDelay(*child));
    ASSERT_TRUE(test::waitUntil([&] { return lines.size() == 2; }));
    EXPECT_EQ(lines[1], "mark=second home=unset");
}

TEST_F(ChildTest, aMissingExecutableSaysSoAndKeepsTrying)
{
    auto child = make({}, false, home.file("no-such-program"));
    start(*child);
    EXPECT_EQ(nextDelay(*child), 2);
    ASSERT_FALSE(lines.isEmpty());
    EXPECT_TRUE(lines[0].startsWith("agent failed to start: ")) << lines[0].toStdString();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].status, -1);
    EXPECT_EQ(failures[0].tail, "") << "our own words are not the child's output";
    EXPECT_TRUE(child->tail().empty());
    clock.advance(2);
    EXPECT_EQ(nextDelay(*child), 4);
    EXPECT_EQ(lines.size(), 2);
}

TEST_F(ChildTest, aThousandRestartsLeakNoDescriptors)
{
    auto child = make({}, true, "/bin/false");
    start(*child);
    double delay = nextDelay(*child);
    clock.advance(delay);
    delay = nextDelay(*child);
    const int after = openDescriptors();
    for (int i = 0; i < 1000 && !HasFailure(); ++i) {
        clock.advance(delay);
        delay = nextDelay(*child);
    }
    test::drain();
    EXPECT_LE(openDescriptors(), after);
}

namespace {

// A stand-in login shell: counts its runs, does what `rc` says (as an rc file
// would), then runs the command it was given with the PATH `path`.
void fakeShell(const test::TempHome &home, const QByteArray &rc, const QByteArray &path = "/opt/tools/bin:/usr/bin")
{
    const QString file = home.file("shell.sh");
    test::writeText(file, "#!/bin/sh\necho run >> " + home.file("count").toUtf8() + "\n" + rc + "\nPATH=" + path
                              + "\nexport PATH\neval \"$2\"\n");
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("SHELL", file.toUtf8());
    LoginShell::clearCache();
}

QString resolved() { return LoginShell::resolve().result(); }

} // namespace

TEST(LoginShell, asksTheShellOnceOffTheMainThreadAndKeepsWhatRcFilesPrintOut)
{
    test::TempHome home;
    auto runs = [&] { return test::readText(home.file("count")).count("run"); };

    fakeShell(home, "echo 'Welcome back!'; printf '/evil/bin:'");
    EXPECT_EQ(resolved(), "/opt/tools/bin:/usr/bin:" + LoginShell::fallback()) << "only what stands between the markers";
    EXPECT_EQ(LoginShell::path(), "/opt/tools/bin:/usr/bin:" + LoginShell::fallback());
    EXPECT_EQ(resolved(), LoginShell::path());
    EXPECT_EQ(runs(), 1) << "asked once per process";

    fakeShell(home, "true", "");
    EXPECT_EQ(resolved(), LoginShell::fallback());
    resolved();
    LoginShell::path();
    EXPECT_EQ(runs(), 2) << "the fallback is cached too";

    qputenv("SHELL", home.file("missing-shell").toUtf8());
    LoginShell::clearCache();
    EXPECT_EQ(resolved(), LoginShell::fallback());

    EXPECT_EQ(LoginShell::between("x M/a:/b M y", "M"), "/a:/b ");
    EXPECT_EQ(LoginShell::between("M/a\n/b M", "M"), "") << "a PATH is one line";
    EXPECT_EQ(LoginShell::between("M/a", "M"), "");
}

// An interactive shell that ignores SIGTERM and never ends: the question costs
// five seconds at most, the main thread is never held, and the answer is the fallback.
TEST(LoginShell, aHangingShellIsKilledWithinTheBudget)
{
    test::TempHome home;
    fakeShell(home, "trap '' TERM; sleep 60 & wait");
    QElapsedTimer timer;
    timer.start();
    auto future = LoginShell::resolve();
    EXPECT_LT(timer.elapsed(), 1000) << "resolve() does not wait for the shell";
    EXPECT_EQ(LoginShell::path(), LoginShell::fallback()) << "path() answers at once meanwhile";
    EXPECT_EQ(future.result(), LoginShell::fallback());
    EXPECT_LT(timer.elapsed(), 8000);
}

TEST(LoginShell, runUsesTheLoginPathAndEndsWhatOutlivesItsTime)
{
    qputenv("SHELL", "/bin/sh");
    LoginShell::clearCache();
    const auto echoed = LoginShell::run("printf", {"%s-%s", "a b", "c"}, 5);
    ASSERT_TRUE(echoed);
    EXPECT_EQ(echoed->status, 0);
    EXPECT_EQ(echoed->output, "a b-c");
    EXPECT_EQ(LoginShell::run("sh", {"-c", "echo out; echo err >&2; exit 4"}, 5)->output, "out\nerr\n");
    EXPECT_EQ(LoginShell::run("sh", {"-c", "exit 4"}, 5)->status, 4);
    EXPECT_FALSE(LoginShell::run("sleep", {"5"}, 0.2)) << "outlived its time";
}

// One failure report per child in 600 seconds, to the second: a failure 599.5 s
// after the last report stays quiet, one 603.5 s after it is reported.
TEST_F(ChildTest, failureReportsAreSixHundredSecondsApart)
{
    auto child = make("read x; exit 1", true);
    start(*child);
    auto failWhenRunning = [&] {
        ASSERT_TRUE(test::waitUntil([&] { return child->process() && child->process()->state() == QProcess::Running; }));
        ASSERT_TRUE(child->send("go"));
    };
    failWhenRunning();
    clock.advance(nextDelay(*child)); // 2 s
    ASSERT_EQ(failures.size(), 1u);

    clock.advance(597.5); // a long run: 599.5 s after the report
    failWhenRunning();
    const double delay = nextDelay(*child);
    EXPECT_EQ(failures.size(), 1u) << "599.5 s after the last report";
    clock.advance(delay + 3.5);
    failWhenRunning();
    nextDelay(*child);
    EXPECT_EQ(failures.size(), 2u) << "more than 600 s after the last report";
}

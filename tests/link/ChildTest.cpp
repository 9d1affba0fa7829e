#include "base/Clock.h"
#include "link/Child.h"
#include "link/LoginShell.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
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
    clock.advance(60);
    test::spin(100);
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

TEST_F(ChildTest, linesArriveWholeInOrderWithTheLast60Kept)
{
    // The character cut between two writes comes while the reader is idle, so the
    // two halves arrive in two reads.
    auto child = make("i=1; while [ $i -le 61 ]; do echo \"line $i\"; i=$((i+1)); done\n"
                      "sleep 0.3; printf 'caf\\303'; sleep 0.5; printf '\\251 ok\\n'\n"
                      "echo 'to stderr' >&2\n"
                      "head -c 1048576 /dev/zero | tr '\\0' x; echo\n"
                      "printf 'no line end'\n"
                      "exec sleep 30");
    start(*child);
    ASSERT_TRUE(test::waitUntil([&] { return lines.size() >= 64; }));
    test::spin(100);
    ASSERT_EQ(lines.size(), 64) << "text without a line end is not delivered";
    EXPECT_EQ(lines[0], "line 1");
    EXPECT_EQ(lines[60], "line 61");
    EXPECT_EQ(lines[61], QString::fromUtf8("caf\uFFFD\uFFFD ok")) << "a character cut between reads is repaired";
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
    test::spin(50);
    EXPECT_LE(openDescriptors(), after);
}

TEST(LoginShell, asksTheShellOnceAndFallsBackWithoutCaching)
{
    test::TempHome home;
    const QString counter = home.file("count");
    auto shell = [&](const QByteArray &body) {
        const QString path = home.file("shell.sh");
        test::writeText(path, "#!/bin/sh\necho run >> " + counter.toUtf8() + "\n" + body + "\n");
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("SHELL", path.toUtf8());
        LoginShell::clearCache();
    };
    auto runs = [&] { return test::readText(counter).count("run"); };

    shell("printf '%s' /opt/tools/bin:/usr/bin");
    EXPECT_EQ(LoginShell::path(), "/opt/tools/bin:/usr/bin:" + LoginShell::fallback());
    EXPECT_EQ(LoginShell::path(), "/opt/tools/bin:/usr/bin:" + LoginShell::fallback());
    EXPECT_EQ(runs(), 1) << "cached";

    shell("true");
    EXPECT_EQ(LoginShell::path(), LoginShell::fallback());
    LoginShell::path();
    EXPECT_EQ(runs(), 2) << "an empty answer is the fallback, and it is cached";

    qputenv("SHELL", home.file("missing-shell").toUtf8());
    LoginShell::clearCache();
    EXPECT_EQ(LoginShell::path(), LoginShell::fallback());

    const auto echoed = LoginShell::run("printf", {"%s-%s", "a b", "c"}, 5);
    ASSERT_TRUE(echoed);
    EXPECT_EQ(echoed->status, 0);
    EXPECT_EQ(echoed->output, "a b-c");
    EXPECT_EQ(LoginShell::run("sh", {"-c", "echo out; echo err >&2; exit 4"}, 5)->output, "out\nerr\n");
    EXPECT_EQ(LoginShell::run("sh", {"-c", "exit 4"}, 5)->status, 4);
    EXPECT_FALSE(LoginShell::run("sleep", {"5"}, 0.2)) << "outlived its time";
}

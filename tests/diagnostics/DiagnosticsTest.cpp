#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Paths.h"
#include "diagnostics/Diagnostics.h"
#include "hub/MacAPI.h"
#include "link/AppModel.h"
#include "base/Keychain.h"
#include "platform/linux/LinuxCrashSource.h"

#include "Fixture.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>

#include <csignal>

using namespace zuv;
using test::TestHub;

namespace {

double realNow() { return double(QDateTime::currentMSecsSinceEpoch()) / 1000; }

// A finished report file of a helper of ours that crashed `ageDays` ago. The file
// itself may be newer (`fileAgeDays`), as a record converted later is.
void writeReport(const QString &folder, const QString &incident, double ageDays, std::optional<double> fileAgeDays = {},
                 const QString &type = "Aborted")
{
    const QString when = QDateTime::fromMSecsSinceEpoch(qint64((realNow() - ageDays * 86400) * 1000), Qt::UTC)
                             .toString(Qt::ISODateWithMs);
    const QJsonObject header{{"bug_type", "309"}, {"timestamp", when}};
    const QJsonObject report{{"procPath", Paths::prefix() + "/libexec/zuv/zuv-screen"},
                             {"procName", "zuv-screen"},
                             {"incident_id", incident},
                             {"timestamp", when},
                             {"exception", QJsonObject{{"type", type}, {"signal", "SIGABRT"}}}};
    const QString path = folder + "/zuv-screen-" + incident + ".ips";
    test::writeText(path, QJsonDocument(header).toJson(QJsonDocument::Compact) + "\n" + QJsonDocument(report).toJson());
    QFile file(path);
    file.open(QIODevice::ReadWrite);
    file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(qint64(-fileAgeDays.value_or(ageDays) * 86400)),
                     QFileDevice::FileModificationTime);
}

class DiagnosticsTest : public ::testing::Test, protected test::HubFixture {
protected:
    DiagnosticsTest()
        : HubFixture(std::nullopt, nullptr, realNow()), model((keychain.setToken(QStringLiteral("agent")), makeModel()))
    {
        QDir().mkpath(reports());
        hub.grantTokens();
        hub.on("POST", "/app/diagnostics", TestHub::json(QJsonObject{}));
        Diagnostics::registerDefaults(defaults);
    }

    QString reports() const { return home.file("reports"); }

    std::unique_ptr<Diagnostics> make()
    {
        const QString prefix = Paths::prefix() + "/";
        AppModel *link = model.get();
        return std::make_unique<Diagnostics>(
            clock, defaults, api, [link] { return link->pairing().state == AppModel::Pairing::State::paired; },
            crashes, Diagnostics::Setup{reports(), [prefix](const QString &path) { return path.startsWith(prefix); },
                                        QStringLiteral("/home/alice")});
    }

    void scan(Diagnostics &d)
    {
        bool done = false;
        auto connection = QObject::connect(&d, &Diagnostics::scanFinished, [&] { done = true; });
        d.scanCrashLogs();
        ASSERT_TRUE(test::waitUntil([&] { return done; }, 20000));
        QObject::disconnect(connection);
    }

    QList<QJsonObject> posted() const
    {
        QList<QJsonObject> out;
        for (const auto &r : hub.requests("POST", "/app/diagnostics"))
            out << r.json().toObject();
        return out;
    }

    std::unique_ptr<AppModel> model;
    std::shared_ptr<LinuxCrashSource> crashes = std::make_shared<LinuxCrashSource>();
};

} // namespace

TEST_F(DiagnosticsTest, aRealCrashOfOursIsReportedOnceAcrossRestarts)
{
    QProcess crasher;
    crasher.start(QStringLiteral(ZUV_CRASHER), {reports()});
    ASSERT_TRUE(crasher.waitForFinished(20000));
    EXPECT_EQ(crasher.exitStatus(), QProcess::CrashExit);
    EXPECT_EQ(crasher.exitCode(), SIGSEGV);
    ASSERT_EQ(QDir(reports()).entryList({"*.crashrec"}).size(), 1);
    const QString record = test::readText(reports() + "/" + QDir(reports()).entryList({"*.crashrec"}).front());
    EXPECT_TRUE(QRegularExpression("\\ntime \\d+\\.\\d{3}\\n").match(record).hasMatch())
        << "milliseconds in three digits: " << record.toStdString();

    auto diagnostics = make();
    scan(*diagnostics);
    EXPECT_TRUE(QDir(reports()).entryList({"*.crashrec"}).isEmpty()) << "the record became a report";
    ASSERT_EQ(QDir(reports()).entryList({"zuv-crashtest-*.ips"}).size(), 1);
    const auto bodies = posted();
    ASSERT_EQ(bodies.size(), 1);
    const QJsonObject body = bodies.front();
    EXPECT_EQ(body["kind"].toString(), "crash");
    EXPECT_EQ(body["source"].toString(), "mac");
    EXPECT_EQ(body["build"].toString(), "7");
    const QString summary = body["summary"].toString();
    EXPECT_TRUE(summary.startsWith("zuv-crashtest crash: Segmentation fault (SIGSEGV)")) << summary.toStdString();
    EXPECT_TRUE(summary.contains(" · in crashInsideNamedFunction")) << summary.toStdString();
    const QString detail = body["detail"].toString();
    const qsizetype stack = detail.indexOf("Thread 0 crashed:");
    ASSERT_GE(stack, 0) << detail.toStdString();
    EXPECT_TRUE(detail.indexOf("crashInsideNamedFunction", stack) > stack) << "the function stands in the faulting stack";
    EXPECT_TRUE(detail.contains("crasher.cpp:")) << "with its source line";

    diagnostics = make(); // as after a restart
    scan(*diagnostics);
    EXPECT_EQ(posted().size(), 1) << "sent once";
}

TEST_F(DiagnosticsTest, nothingLeavesWithSharingOffOrWhileUnpaired)
{
    writeReport(reports(), "old-while-off", 0.001);
    auto diagnostics = make();
    diagnostics->setEnabled(false);
    scan(*diagnostics);
    diagnostics->childExited("agent", 1, false, "x");
    test::drain();
    EXPECT_TRUE(posted().isEmpty());

    // Turning sharing on moves the cut-off: what came before is never sent.
    clock.advance(5);
    diagnostics->setEnabled(true);
    EXPECT_TRUE(defaults.number("diagnostics-since").present());
    scan(*diagnostics);
    EXPECT_TRUE(posted().isEmpty());

    model->unpair();
    diagnostics->childExited("agent", 1, false, "x");
    test::drain();
    EXPECT_TRUE(posted().isEmpty());
}

TEST_F(DiagnosticsTest, theCutOffIsSevenDaysAndTheSentListKeeps200)
{
    writeReport(reports(), "eight-days", 8);
    writeReport(reports(), "six-days", 6);
    QJsonArray sent;
    for (int i = 0; i < 200; ++i)
        sent.append(QStringLiteral("old-%1").arg(i));
    defaults.set("diagnostics-sent", sent);
    auto diagnostics = make();
    scan(*diagnostics);
    ASSERT_EQ(posted().size(), 1);
    EXPECT_TRUE(posted()[0]["summary"].toString().startsWith("zuv-screen crash: Aborted (SIGABRT)"));
    const QJsonArray kept = defaults.array("diagnostics-sent").value;
    EXPECT_EQ(kept.size(), 200);
    EXPECT_EQ(kept.first().toString(), "old-1") << "the oldest was pushed out";
    EXPECT_EQ(kept.last().toString(), "six-days");

    // A failed post leaves the report for the next scan.
    writeReport(reports(), "later", 0.01);
    hub.on("POST", "/app/diagnostics", TestHub::error(500, "busy"));
    scan(*diagnostics);
    hub.on("POST", "/app/diagnostics", TestHub::json(QJsonObject{}));
    scan(*diagnostics);
    EXPECT_EQ(posted().last()["summary"].toString(), posted()[1]["summary"].toString());
    EXPECT_EQ(defaults.array("diagnostics-sent").value.last().toString(), "later");
}

TEST_F(DiagnosticsTest, aChildExitDuringAScanGivesExactlyOneMoreScan)
{
    writeReport(reports(), "slow", 0.01);
    auto slow = TestHub::json(QJsonObject{});
    slow.delayMs = 400;
    hub.on("POST", "/app/diagnostics", slow);
    auto diagnostics = make();
    int finished = 0;
    QObject::connect(diagnostics.get(), &Diagnostics::scanFinished, [&] { ++finished; });
    diagnostics->scanCrashLogs();
    ASSERT_TRUE(diagnostics->scanning());

    diagnostics->childExited("zuv-screen", SIGSEGV, true, "2026-11-21T10:00:00Z drawing https://x.org/a: oops");
    diagnostics->childExited("zuv-screen", SIGSEGV, true, "");
    clock.advance(15);
    ASSERT_TRUE(test::waitUntil([&] { return finished == 2; }, 20000));
    clock.advance(60);
    test::drain();
    EXPECT_EQ(finished, 2);
    EXPECT_FALSE(diagnostics->scanning());
    ASSERT_TRUE(test::waitUntil([&] { return diagnostics->idle(); }));
    const auto exits = posted();
    ASSERT_GE(exits.size(), 3);
    QStringList summaries;
    for (const auto &b : exits)
        summaries << b["summary"].toString();
    EXPECT_TRUE(summaries.contains("zuv-screen killed by signal 11"));
    for (const auto &b : exits) {
        if (b["kind"].toString() == "exit") {
            EXPECT_EQ(b["source"].toString(), "mac");
        }
    }
    EXPECT_TRUE(posted().contains(QJsonObject{{"source", "mac"},
                                              {"kind", "exit"},
                                              {"summary", "zuv-screen killed by signal 11"},
                                              {"build", exits[0]["build"]},
                                              {"os", exits[0]["os"]},
                                              {"device", exits[0]["device"]},
                                              {"detail", "2026-11-21T10:00:00Z drawing <link> oops"}}));
}

// With more reports on disk than the sent list holds, a report must not go out a
// second time: the folder keeps the newest 200 within the seven days, by the
// crash's own time, and the cut-off applies to that time, not the file's.
TEST_F(DiagnosticsTest, aReportGoesOutOnceHoweverManyAreOnDisk)
{
    for (int i = 0; i < 205; ++i)
        writeReport(reports(), QStringLiteral("r%1").arg(i, 3, 10, QLatin1Char('0')), 1 + i * 0.01);
    writeReport(reports(), "too-old", 7.5, 0.0); // converted just now, crashed long ago
    auto diagnostics = make();
    scan(*diagnostics);
    EXPECT_EQ(posted().size(), 200);
    const QStringList left = QDir(reports()).entryList({"*.ips"});
    EXPECT_EQ(left.size(), 200);
    EXPECT_FALSE(left.contains("zuv-screen-too-old.ips"));
    EXPECT_FALSE(left.contains("zuv-screen-r204.ips")) << "the oldest beyond 200 went";
    EXPECT_TRUE(left.contains("zuv-screen-r000.ips"));

    scan(*diagnostics);
    scan(*diagnostics);
    EXPECT_EQ(posted().size(), 200) << "nothing twice";

    // Sharing turned on after a crash whose record is converted only now: not sent.
    hub.clear();
    diagnostics->setEnabled(false);
    clock.advance(1);
    diagnostics->setEnabled(true);
    writeReport(reports(), "while-off", 0.5, 0.0);
    scan(*diagnostics);
    EXPECT_TRUE(posted().isEmpty());
}

// The timing and size rules, each pinned so that changing one fails a test.
TEST_F(DiagnosticsTest, scansComeThreeSecondsAfterStartAndFifteenAfterACrash)
{
    auto diagnostics = make();
    // Counted by their ends: a scan with nothing to read may end within the turn it began.
    int scans = 0;
    QObject::connect(diagnostics.get(), &Diagnostics::scanFinished, [&] { ++scans; });
    diagnostics->start();
    // Steps that add up exactly in binary floating point.
    clock.advance(2.875);
    test::drain();
    EXPECT_EQ(scans, 0);
    EXPECT_FALSE(diagnostics->scanning());
    clock.advance(0.125);
    ASSERT_TRUE(test::waitUntil([&] { return scans == 1; }, 20000));

    diagnostics->childExited("zuv-screen", SIGSEGV, true, "");
    clock.advance(14.875);
    test::drain();
    EXPECT_EQ(scans, 1);
    EXPECT_FALSE(diagnostics->scanning());
    clock.advance(0.125);
    ASSERT_TRUE(test::waitUntil([&] { return scans == 2; }, 20000));

    // An exit without a signal scans nothing; stop() ends a pending wait.
    diagnostics->childExited("agent", 3, false, "");
    diagnostics->childExited("zuv-screen", SIGSEGV, true, "");
    diagnostics->stop();
    clock.advance(60);
    test::drain();
    EXPECT_FALSE(diagnostics->scanning());
    EXPECT_EQ(scans, 2);
    ASSERT_TRUE(test::waitUntil([&] { return diagnostics->idle(); }));
}

TEST_F(DiagnosticsTest, summariesAreCutAt300AndExitsNameNoHome)
{
    writeReport(reports(), "long", 0.01, {}, QString(1000, 'x'));
    auto diagnostics = make();
    scan(*diagnostics);
    ASSERT_EQ(posted().size(), 1);
    EXPECT_EQ(posted()[0]["summary"].toString().size(), 300);

    diagnostics->childExited("agent", 1, false,
                             "    at run (/home/alice/src/zuv/agent/main.mjs:3:9)\n/home/alice/x.mjs:12\nNode.js v20");
    ASSERT_TRUE(test::waitUntil([&] { return posted().size() == 2 && diagnostics->idle(); }));
    EXPECT_EQ(posted()[1]["detail"].toString(), "    at run (~/src/zuv/agent/main.mjs:3:9)\n~/x.mjs:12\nNode.js v20");
    EXPECT_EQ(posted()[1]["source"].toString(), "agent");
}

TEST(SafeTail, onlyAllowedShapesLeave)
{
    EXPECT_EQ(Diagnostics::safeTail(""), "");
    EXPECT_EQ(Diagnostics::safeTail("TypeError: x: y"), "TypeError: x …");
    EXPECT_EQ(Diagnostics::safeTail("RangeError"), "RangeError");
    // The first alternative wins, as in the pattern it comes from.
    EXPECT_EQ(Diagnostics::safeTail("Error [ERR_X]: bad thing"), "Error …");
    EXPECT_EQ(Diagnostics::safeTail("    at run (/app/main.mjs:3:9)\n   ^^^\nNode.js v20.1.0\n/app/x.mjs:12"),
              "    at run (/app/main.mjs:3:9)\n   ^^^\nNode.js v20.1.0\n/app/x.mjs:12");
    EXPECT_EQ(Diagnostics::safeTail("my secret message\n\nanother one"), "(2 other lines left out)");
    EXPECT_EQ(Diagnostics::safeTail("2026-11-21T10:00:00.5Z fetched https://secret.example/a?b=c"),
              "2026-11-21T10:00:00.5Z fetched <link>");
    EXPECT_EQ(Diagnostics::shortened("→ [telegram] hello there"), "→ [telegram] …");
    EXPECT_EQ(Diagnostics::shortened("[memory_review open ended"), "[memory_review open ended");
    EXPECT_EQ(Diagnostics::shortened("payload {\"a\": 1}"), "payload {…}");
    EXPECT_EQ(Diagnostics::shortened(QString(200, 'z')), QString(160, 'z'));
}

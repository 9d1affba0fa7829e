#include "diagnostics/CrashLog.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace zuv;

namespace {

const QString app = "/opt/zuv/bin/zuv";
bool ours(const QString &path) { return path.startsWith("/opt/zuv/") || path.startsWith("/home/ann/zuv/"); }

QJsonArray frames(int n, int imageIndex = 0)
{
    QJsonArray list;
    for (int i = 0; i < n; ++i)
        list.append(QJsonObject{{"imageIndex", imageIndex}, {"imageOffset", 16 * i}, {"symbol", QStringLiteral("f%1").arg(i)}});
    return list;
}

QByteArray make(QJsonObject report, const QString &bugType = "309")
{
    const QJsonObject header{{"bug_type", bugType}, {"app_name", "Zuv"}};
    return QJsonDocument(header).toJson(QJsonDocument::Compact) + "\n" + QJsonDocument(report).toJson();
}

QJsonObject base(const QString &path = app, const QString &name = "Zuv")
{
    return {{"procPath", path},
            {"procName", name},
            {"incident_id", "INC-1"},
            {"timestamp", "2026-11-21 10:00:00"},
            {"modelCode", "x86_64"},
            {"osVersion", QJsonObject{{"train", "Debian 12"}, {"build", "6.1.0"}}},
            {"bundleInfo", QJsonObject{{"CFBundleShortVersionString", "0.1.0"}, {"CFBundleVersion", "7"}}},
            {"exception", QJsonObject{{"type", "Segmentation fault"}, {"signal", "SIGSEGV"}, {"subtype", "code 1 at 0x0"}}},
            {"faultingThread", 0},
            {"threads", QJsonArray{QJsonObject{{"frames", frames(3)}}}},
            {"usedImages", QJsonArray{QJsonObject{{"name", "zuv"}, {"path", path}, {"base", 4096}, {"uuid", "abc"}}}},
            {"crashReporterKey", "machine-identity"},
            {"storeInfo", QJsonObject{{"x", 1}}}};
}

std::optional<CrashLog> digest(const QJsonObject &report, const QString &home = "/home/ann")
{
    return CrashLog::make(make(report), ours, home);
}

} // namespace

TEST(CrashLog, refusesWhatIsNotOurCrash)
{
    EXPECT_FALSE(CrashLog::make("no newline", ours, {}));
    EXPECT_FALSE(CrashLog::make("[1]\n{}", ours, {}));
    EXPECT_FALSE(CrashLog::make(make(base(), "288"), ours, {})) << "a hang report";
    EXPECT_FALSE(digest(base("/usr/bin/other", "other")));
    QJsonObject noPath = base();
    noPath.remove("procPath");
    EXPECT_FALSE(digest(noPath));
    EXPECT_FALSE(CrashLog::make("{\"bug_type\":\"309\"}\nnot json", ours, {}));

    const auto helper = digest(base("/opt/zuv/libexec/zuv/zuv-screen", "zuv-screen"));
    ASSERT_TRUE(helper) << "a helper inside our install is ours";
    EXPECT_EQ(helper->process, "zuv-screen");
    EXPECT_TRUE(helper->summary.startsWith("zuv-screen crash: Segmentation fault (SIGSEGV)"));
}

TEST(CrashLog, fieldsSummaryAndText)
{
    QJsonObject report = base();
    report["exception"] = QJsonObject{{"type", "Segmentation fault"}, {"signal", "SIGSEGV"}, {"message", "bad"}};
    report["asi"] = QJsonObject{{"b", "second"}, {"a", QJsonArray{"first", 3, "also"}}};
    QJsonArray f = frames(3);
    f[0] = QJsonObject{{"imageIndex", 0}, {"symbol", "main"}};
    f[1] = QJsonObject{{"imageIndex", 0}, {"symbol", "openWindow()"}, {"symbolLocation", 12}, {"sourceFile", "Window.cpp"},
                       {"sourceLine", 40}};
    report["threads"] = QJsonArray{QJsonObject{{"frames", f}, {"name", "main-thread"}}};
    const auto log = digest(report);
    ASSERT_TRUE(log);
    EXPECT_EQ(log->incident, "INC-1");
    EXPECT_EQ(log->build, "7");
    EXPECT_EQ(log->os, "Debian 12 (6.1.0)");
    EXPECT_EQ(log->summary, "Crash: Segmentation fault (SIGSEGV), bad · a: first · in openWindow()");
    EXPECT_TRUE(log->text.startsWith("Zuv 0.1.0 (7) · Debian 12 (6.1.0) · x86_64\nCrashed 2026-11-21 10:00:00\n"));
    EXPECT_TRUE(log->text.contains("Application Specific Information:\na: first\na: also\nb: second\n"));
    EXPECT_TRUE(log->text.contains("Thread 0 crashed (main-thread):\n"));
    EXPECT_TRUE(log->text.contains("  1  " + QString("zuv").leftJustified(28) + "openWindow() + 12 (Window.cpp:40)"));
    EXPECT_TRUE(log->text.contains("\nzuv abc at 0x1000"));
    EXPECT_TRUE(log->text.contains("--- Raw report ---"));
    EXPECT_FALSE(log->text.contains("machine-identity")) << "the identifying keys are removed";
    EXPECT_FALSE(log->text.contains("storeInfo"));
}

TEST(CrashLog, stacksThreadsAndEmptyExceptions)
{
    QJsonObject report = base();
    report["threads"] = QJsonArray{QJsonObject{{"frames", frames(81)}}};
    auto log = digest(report);
    EXPECT_TRUE(log->text.contains(" 49  zuv"));
    EXPECT_TRUE(log->text.contains("     … 1 more frames …\n 51  zuv"));
    EXPECT_FALSE(log->text.contains(" 50  zuv "));
    report["threads"] = QJsonArray{QJsonObject{{"frames", frames(80)}}};
    log = digest(report);
    EXPECT_TRUE(log->text.contains(" 79  zuv"));
    EXPECT_FALSE(log->text.contains("more frames"));

    report["faultingThread"] = -1;
    log = digest(report);
    EXPECT_TRUE(log->text.contains("Thread -1 crashed:\n\nzuv abc")) << "an empty stack";

    report["exception"] = QJsonObject{};
    report["threads"] = QJsonArray{};
    EXPECT_EQ(digest(report)->summary, "Crash: unknown");
    QJsonObject other = base("/opt/zuv/libexec/zuv/x", "x");
    other["exception"] = QJsonObject{};
    other["threads"] = QJsonArray{};
    EXPECT_EQ(digest(other)->summary, "x crash: unknown");

    // A frame without an image or a symbol still reads.
    report["threads"] = QJsonArray{QJsonObject{{"frames", QJsonArray{QJsonObject{{"imageIndex", 9}, {"imageOffset", 255}}}}}};
    report["faultingThread"] = QJsonValue();
    EXPECT_TRUE(digest(report)->text.contains("  0  ???                         +0xff"));
}

TEST(CrashLog, theHomeFolderReadsTildeInTheTextOnly)
{
    const QString path = "/home/ann/zuv/bin/zuv";
    const auto log = digest(base(path, "Zuv"), "/home/ann");
    ASSERT_TRUE(log);
    EXPECT_FALSE(log->text.contains("/home/ann"));
    EXPECT_TRUE(log->text.contains("~/zuv/bin/zuv"));

    QJsonObject big = base();
    big["threads"] = QJsonArray{QJsonObject{{"frames", frames(80)}}};
    big["padding"] = QString(100000, 'x');
    EXPECT_EQ(digest(big)->text.size(), CrashLog::textLimit);
}

#include "base/Defaults.h"
#include "base/Ids.h"
#include "base/Log.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace zuv;

TEST(Defaults, typedReadsTellAbsentFromOtherType)
{
    test::TempHome home;
    Defaults defaults(home.file("defaults.json"));
    defaults.registerDefaults({{"quick-ask", true}, {"clip-size", 200}});
    defaults.set("server", 42);

    EXPECT_TRUE(defaults.boolean("quick-ask").present());
    EXPECT_TRUE(defaults.boolean("quick-ask").value);
    EXPECT_TRUE(defaults.boolean("missing").absent());
    EXPECT_TRUE(defaults.string("server").otherType());
    EXPECT_EQ(defaults.string("server").valueOr("fallback"), "fallback");
    EXPECT_EQ(defaults.number("server").valueOr(0), 42);

    // A stored value wins over the registered one; removing it brings that back.
    defaults.set("quick-ask", false);
    EXPECT_FALSE(defaults.boolean("quick-ask").value);
    defaults.remove("quick-ask");
    EXPECT_TRUE(defaults.boolean("quick-ask").value);
}

TEST(Defaults, keepsJsonTypesAcrossLaunchesAndRegisteredValuesStayInMemory)
{
    test::TempHome home;
    const QJsonObject catalog{{"claude", QJsonArray{QJsonObject{{"id", "x"}, {"name", "X"}}}}};
    {
        Defaults defaults(home.file("defaults.json"));
        defaults.registerDefaults({{"registered", "only in memory"}});
        defaults.set("model-catalog", catalog);
        defaults.set("list", QJsonArray{1, "two"});
        defaults.set("flag", true);
    }
    const auto document = QJsonDocument::fromJson(test::readText(home.file("defaults.json")).toUtf8());
    EXPECT_FALSE(document.object().contains("registered"));
    EXPECT_EQ(QFile(home.file("defaults.json")).permissions() & (QFile::ReadOther | QFile::ReadGroup), 0);

    Defaults again(home.file("defaults.json"));
    EXPECT_EQ(again.object("model-catalog").value, catalog);
    EXPECT_EQ(again.array("list").value, (QJsonArray{1, "two"}));
    EXPECT_TRUE(again.boolean("flag").value);
    EXPECT_TRUE(again.problem().isEmpty());
}

TEST(Defaults, aBrokenFileIsKeptBesideAndNeverOverwritten)
{
    test::TempHome home;
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    const QString file = home.file("defaults.json");

    test::writeText(file, "{\"server\": \"https://a\", oops");
    {
        Defaults defaults(file);
        defaults.registerDefaults({{"quick-ask", true}});
        EXPECT_TRUE(defaults.boolean("quick-ask").value);
        EXPECT_TRUE(defaults.string("server").absent());
        EXPECT_FALSE(defaults.problem().isEmpty());
        defaults.set("fresh", 1);
    }
    EXPECT_EQ(test::readText(file + ".broken"), "{\"server\": \"https://a\", oops");
    ASSERT_EQ(logged.size(), 1);
    EXPECT_TRUE(logged.front().contains("defaults.json.broken"));

    // A second broken file does not replace the first one kept.
    test::writeText(file, "[1, 2]");
    Defaults second(file);
    EXPECT_TRUE(second.number("fresh").absent());
    EXPECT_EQ(test::readText(file + ".broken.1"), "[1, 2]");
    EXPECT_EQ(test::readText(file + ".broken"), "{\"server\": \"https://a\", oops");
    setLogSink({});
}

TEST(Defaults, aWriteKilledHalfwayNeverLeavesAHalfWrittenFile)
{
    test::TempHome home;
    const QString file = home.file("defaults.json");
    {
        Defaults defaults(file);
        defaults.set("seed", "value");
    }
    const QString big(256 * 1024, QLatin1Char('x'));
    for (int round = 0; round < 6; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Defaults defaults(file);
            for (int i = 0;; ++i)
                defaults.set("big", big + QString::number(i));
        }
        usleep(20000 + round * 7000);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);

        QJsonParseError error{};
        const auto document = QJsonDocument::fromJson(test::readText(file).toUtf8(), &error);
        ASSERT_EQ(error.error, QJsonParseError::NoError) << "round " << round;
        EXPECT_EQ(document.object().value("seed").toString(), "value");
    }
}

TEST(Ids, haveTheirPrefixAndLength)
{
    QSet<QString> seen;
    const QRegularExpression conversation("^c[0-9a-f]{15}$");
    const QRegularExpression message("^m[0-9a-f]{11}$");
    for (int i = 0; i < 200; ++i) {
        const QString c = Ids::conversation();
        EXPECT_TRUE(conversation.match(c).hasMatch()) << c.toStdString();
        EXPECT_TRUE(message.match(Ids::message()).hasMatch());
        seen.insert(c);
    }
    EXPECT_EQ(seen.size(), 200);
}

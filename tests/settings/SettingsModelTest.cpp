#include "base/Clock.h"
#include "base/Defaults.h"
#include "hub/MacAPI.h"
#include "base/Keychain.h"
#include "settings/Models.h"
#include "settings/SettingsModel.h"

#include "Fixture.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QNetworkAccessManager>

using namespace zuv;
using test::TestHub;

namespace {

QJsonObject agent(bool online, const QString &id = {}, const QString &claude = "ready")
{
    QJsonObject a{{"online", online}, {"agents", QJsonObject{{"claude", claude}}}};
    if (!id.isEmpty())
        a.insert("id", id);
    return a;
}

QJsonObject overview(const QString &claudeState = "ready")
{
    return {{"status", QJsonObject{{"mac", agent(true, "primary", claudeState)},
                                   {"cloud", agent(true)},
                                   {"queued", 0},
                                   {"models", QJsonObject{{"codex", QJsonArray{QJsonObject{{"id", "gpt-x"}, {"name", "GPT X"}}}}}},
                                   {"macs", QJsonArray{agent(true, "m1"), agent(false, "m2")}}}},
            {"schedules", QJsonArray{QJsonObject{{"id", "s1"}, {"when", "weird"}, {"prompt", "p"}, {"deliver", "app"},
                                                 {"enabled", true}, {"spec", QJsonObject{{"kind", "fortnightly"}}}}}},
            {"memory", QJsonArray{QJsonObject{{"id", "n1"}, {"text", "Likes tea"}, {"at", 1}}}}};
}

const QJsonObject me{{"user", QJsonObject{{"id", "u1"}, {"email", "a@b.c"}}}, {"owner", false},
                     {"macs", QJsonArray{QJsonObject{{"id", "m1"}, {"name", "Desk"}}}}};

class SettingsModelTest : public ::testing::Test, protected test::HubFixture {
protected:
    SettingsModelTest() : models(clock, defaults), settings(api, models)
    {
        keychain.setToken(QStringLiteral("agent"));
        hub.on("POST", "/agent/app-token", [this](const TestHub::Request &) {
            ++exchanges;
            return TestHub::json(QJsonObject{{"accessToken", QStringLiteral("a%1").arg(exchanges)},
                                             {"expiresAt", (clock.now() + 3600) * 1000}});
        });
        hub.on("GET", "/app/overview", TestHub::json(overview()));
        hub.on("GET", "/app/me", TestHub::json(me));
    }

    Models models;
    SettingsModel settings;
    int exchanges = 0;
};

} // namespace

TEST_F(SettingsModelTest, loadFillsTheModelAndTheCatalogue)
{
    test::await(settings.load());
    ASSERT_TRUE(settings.overview());
    ASSERT_TRUE(settings.me());
    EXPECT_FALSE(settings.failed());
    EXPECT_EQ(settings.me()->user.email, "a@b.c");
    EXPECT_EQ(models.name("gpt-x"), "GPT X") << "the overview's catalogue reaches Models";
    EXPECT_EQ(settings.overview()->schedules[0].description(), "fortnightly") << "an unknown kind survives";

    const auto &status = settings.overview()->status;
    EXPECT_EQ(status.macWith(std::nullopt)->id, "m1");
    EXPECT_EQ(status.macWith(QStringLiteral("m2"))->online, false);
    EXPECT_FALSE(status.macWith(QStringLiteral("gone"))) << "an unknown id never falls back to status.mac";
    Overview::Status noMacs = status;
    noMacs.macs = std::vector<Overview::Agent>{};
    EXPECT_EQ(noMacs.macWith(std::nullopt)->id, "primary");
}

TEST_F(SettingsModelTest, anUnknownToolStateFailsTheLoadVisibly)
{
    test::await(settings.load());
    hub.on("GET", "/app/overview", TestHub::json(overview("sleeping")));
    test::await(settings.load());
    EXPECT_TRUE(settings.failed());
    ASSERT_TRUE(settings.error());
    EXPECT_TRUE(settings.error()->contains("sleeping")) << settings.error()->toStdString();
    EXPECT_TRUE(settings.overview()) << "what was shown stays";

    // A background refresh fails silently.
    settings.setError(std::nullopt);
    test::await(settings.refreshOverview());
    EXPECT_FALSE(settings.error());
    hub.on("GET", "/app/overview", TestHub::json(overview()));
    test::await(settings.load());
    EXPECT_FALSE(settings.failed());
}

TEST_F(SettingsModelTest, anExpiredTokenIsRetriedSilentlyAndEveryChangeReloads)
{
    test::await(settings.load());
    hub.clear();
    hub.sequence("PUT", "/app/settings", {TestHub::error(401, "expired"), TestHub::json(QJsonObject{})});
    test::await(settings.setModel("gpt-x", "high"));
    EXPECT_FALSE(settings.error());
    const auto puts = hub.requests("PUT", "/app/settings");
    ASSERT_EQ(puts.size(), 2);
    EXPECT_EQ(puts[1].json().toObject(), (QJsonObject{{"model", "gpt-x"}, {"effort", "high"}}));
    EXPECT_EQ(hub.count("GET", "/app/overview"), 1);
    EXPECT_EQ(hub.count("GET", "/app/me"), 1);

    // A failed change still reloads, and says why.
    hub.on("DELETE", "/app/memory/n1", TestHub::error(500, "Memory is read-only"));
    test::await(settings.deleteMemory("n1"));
    EXPECT_EQ(settings.error(), "Memory is read-only");
    EXPECT_EQ(hub.count("GET", "/app/overview"), 2);
}

TEST_F(SettingsModelTest, a401WithoutACachedTokenIsAnErrorAtOnce)
{
    hub.on("POST", "/agent/app-token", TestHub::error(401, "revoked"));
    hub.on("PUT", "/app/memory-settings", TestHub::json(QJsonObject{}));
    test::await(settings.setLearning(true));
    ASSERT_TRUE(settings.error());
    EXPECT_EQ(hub.count("POST", "/agent/app-token"), 2) << "one for the change, one for the reload that fails too";
    EXPECT_EQ(hub.count("PUT", "/app/memory-settings"), 0);
}

TEST_F(SettingsModelTest, requestsCarryTheDocumentedBodies)
{
    for (const char *path : {"/app/schedules", "/app/schedules/s1", "/app/memory", "/app/memory/n1",
                             "/app/memory-settings", "/app/telegram"})
        for (const char *verb : {"POST", "PATCH", "PUT", "DELETE"})
            hub.on(verb, path, TestHub::json(QJsonObject{}));
    ScheduleEdit enable;
    enable.enabled = true;
    test::await(settings.saveSchedule(QStringLiteral("s1"), enable));
    EXPECT_EQ(hub.requests("PATCH", "/app/schedules/s1")[0].json().toObject(), (QJsonObject{{"enabled", true}}));
    test::await(settings.saveSchedule(std::nullopt, enable));
    EXPECT_EQ(hub.count("POST", "/app/schedules"), 1);
    test::await(settings.saveMemory(std::nullopt, "Likes coffee", "fact"));
    EXPECT_EQ(hub.requests("POST", "/app/memory")[0].json().toObject(), (QJsonObject{{"text", "Likes coffee"}, {"kind", "fact"}}));
    test::await(settings.setMemoryEnabled(false));
    EXPECT_EQ(hub.requests("PUT", "/app/memory-settings")[0].json().toObject(), (QJsonObject{{"enabled", false}}));
    test::await(settings.connectTelegram("123:AA"));
    EXPECT_EQ(hub.requests("PUT", "/app/telegram")[0].json().toObject(), (QJsonObject{{"token", "123:AA"}}));
    EXPECT_FALSE(settings.error());

    hub.clear();
    hub.on("DELETE", "/app/account", TestHub::error(403, "Owners can't delete"));
    EXPECT_FALSE(test::await(settings.deleteAccount()));
    EXPECT_EQ(settings.error(), "Owners can't delete");
    hub.on("DELETE", "/app/account", TestHub::json(QJsonObject{}));
    EXPECT_TRUE(test::await(settings.deleteAccount()));
    EXPECT_EQ(hub.count("GET", "/app/overview"), 0) << "no reload after deleting the account";
}

TEST(ToolState, notesSayWhatIsWrongWhere)
{
    EXPECT_FALSE(toolNote(ToolState::ready, "claude", "Desk"));
    EXPECT_EQ(toolNote(ToolState::signedOut, "claude", "Desk"), "Claude Code isn't signed in on Desk.");
    EXPECT_EQ(toolNote(ToolState::missing, "codex", "Desk"), "Codex isn't installed on Desk.");
}

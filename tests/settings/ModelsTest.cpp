#include "base/Clock.h"
#include "base/Defaults.h"
#include "settings/ModelPickerRows.h"
#include "settings/Models.h"

#include "Support.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace zuv;

namespace {

ModelCatalog catalog(const char *json)
{
    return ModelCatalog::fromJson(QJsonDocument::fromJson(json).object());
}

} // namespace

TEST(Models, fallbackForClaudeAndTheCacheAcrossLaunches)
{
    test::TempHome home;
    TestClock clock(5000);
    {
        Defaults defaults(home.file("d.json"));
        Models models(clock, defaults);
        EXPECT_FALSE(models.catalog());
        EXPECT_LT(models.fetched(), 0);
        EXPECT_EQ(models.options("claude").size(), 4u);
        EXPECT_EQ(models.options("claude").at(1).name, "Opus 5.5");
        EXPECT_TRUE(models.options("codex").empty());

        models.update(catalog(R"({"claude":[],"codex":[{"id":"gpt-5.1-codex","name":"GPT-5.1 Codex",
            "efforts":["low","high"],"defaultEffort":"high"}],"codexDefault":{"model":"gpt-5.1-codex","effort":"xhigh"}})"));
        EXPECT_EQ(models.fetched(), 5000);
        EXPECT_EQ(models.options("claude").size(), 4u) << "an empty Claude list still offers the fallback";
        EXPECT_EQ(models.option("gpt-5.1-codex", "codex")->efforts, (QStringList{"low", "high"}));
        EXPECT_FALSE(models.option("", "codex"));
        EXPECT_FALSE(models.option("gpt-5.1-codex", "claude"));
        EXPECT_EQ(models.defaultTitle("codex"), "Default (GPT-5.1 Codex · Extra High)");
        EXPECT_EQ(models.defaultTitle("claude"), "Default");
    }
    {
        // A hub that sends nothing keeps what was cached.
        Defaults defaults(home.file("d.json"));
        Models models(clock, defaults);
        ASSERT_TRUE(models.catalog());
        clock.advance(10);
        models.update(std::nullopt);
        EXPECT_EQ(models.fetched(), 5010);
        ASSERT_TRUE(models.catalog());
        EXPECT_EQ(models.name("gpt-5.1-codex"), "GPT-5.1 Codex");
    }
    {
        Defaults defaults(home.file("d.json"));
        defaults.set("model-catalog", QJsonObject{{"claude", "not a list"}});
        Models models(clock, defaults);
        EXPECT_FALSE(models.catalog()) << "an unreadable cache is no cache";
    }
}

TEST(Models, namesAndLabels)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("d.json"));
    Models models(clock, defaults);
    models.update(catalog(R"({"claude":[{"id":"shared","name":"From Claude"}],
                              "codex":[{"id":"shared","name":"From Codex"},{"id":"c1","name":"Codex One"}]})"));
    EXPECT_EQ(models.name("shared"), "From Claude") << "Claude options are looked at first";
    EXPECT_EQ(models.name("c1"), "Codex One");
    EXPECT_EQ(models.name("claude-opus-5-5"), "Opus 5.5") << "ids outside the catalogue get a pretty name";

    EXPECT_EQ(models.label("c1", "medium"), "Codex One · Medium");
    EXPECT_EQ(models.label("c1", ""), "Codex One");
    EXPECT_EQ(models.label("", "none"), "No Reasoning");
    EXPECT_EQ(models.label("", ""), "Default");

    EXPECT_EQ(Models::prettyName("claude-sonnet-5-5-20991231"), "Sonnet 5.5");
    EXPECT_EQ(Models::prettyName("claude-opus-5-5[1m]"), "Opus 5.5");
    EXPECT_EQ(Models::prettyName("claude-haiku"), "Haiku");
    EXPECT_EQ(Models::prettyName("gpt-5.1-codex"), "GPT-5.1-Codex");
    EXPECT_EQ(Models::prettyName("opus"), "Opus");
    EXPECT_EQ(Models::prettyName("o3-mini"), "O3-Mini");

    EXPECT_EQ(Models::effortName("xhigh"), "Extra High");
    EXPECT_EQ(Models::effortName("minimal"), "Minimal");
    EXPECT_EQ(Models::effortName("max"), "Max");
    EXPECT_EQ(Models::effortName("turbo"), "Turbo");
}

// The picker's rows: the named default for Claude, the codex default title, a
// stored model that the catalogue lost, and the effort that a new model resets.
TEST(ModelPickerRows, rowsKeepAStoredChoiceAndAModelChangeResetsTheEffort)
{
    test::TempHome home;
    TestClock clock;
    Defaults defaults(home.file("d.json"));
    Models models(clock, defaults);
    models.update(catalog(R"({"claude":[{"id":"claude-opus-5-5","name":"Opus 5.5","efforts":["low","high"],
        "defaultEffort":"high"},{"id":"claude-haiku-5-5","name":"Haiku 5.5"}],
        "codex":[{"id":"gpt-5.1-codex","name":"GPT-5.1 Codex","efforts":["low","xhigh"]}],
        "codexDefault":{"model":"gpt-5.1-codex","effort":"xhigh"}})"));
    using Row = ModelPickerRows::Row;

    ModelPickerRows claude(models, "claude", QStringLiteral("claude-opus-5-5"), "claude-retired-4-0", "high");
    EXPECT_EQ(claude.modelRows(), (std::vector<Row>{{"", "Default (Opus 5.5)"},
                                                    {"claude-opus-5-5", "Opus 5.5"},
                                                    {"claude-haiku-5-5", "Haiku 5.5"},
                                                    {"claude-retired-4-0", "Retired 4.0"}}));
    EXPECT_FALSE(claude.showsEffort());
    EXPECT_TRUE(ModelPickerRows(models, "claude", QString()).modelRows().front() == (Row{"", "Default"}));

    claude.setModel("claude-opus-5-5");
    EXPECT_EQ(claude.effort(), "high") << "offered by the new model: kept";
    EXPECT_EQ(claude.effortRows(), (std::vector<Row>{{"", "Default (High)"}, {"low", "Low"}, {"high", "High"}}));
    claude.setEffort("max");
    claude.setModel("claude-haiku-5-5");
    EXPECT_EQ(claude.effort(), "max") << "a model without efforts leaves it alone";
    claude.setModel("claude-opus-5-5");
    EXPECT_EQ(claude.effort(), "") << "not offered by the new model: back to the default";
    EXPECT_EQ(claude.modelRows().size(), 3u) << "no extra row once the choice is in the catalogue";

    ModelPickerRows codex(models, "codex", QStringLiteral("gpt-5.1-codex"));
    EXPECT_EQ(codex.modelRows().front().title, "Default (GPT-5.1 Codex · Extra High)") << "codex names its own default";
    codex.setModel("gpt-5.1-codex");
    EXPECT_EQ(codex.effortRows().front(), (Row{"", "Default"}));
}

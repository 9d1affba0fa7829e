#include "base/Clock.h"
#include "base/Defaults.h"
#include "hub/MacAPI.h"
#include "link/AgentLine.h"
#include "link/AppModel.h"
#include "base/Keychain.h"

#include "Fixture.h"
#include <QJsonDocument>
#include "Support.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QNetworkAccessManager>

using namespace zuv;

namespace {

class AgentLineTest : public ::testing::Test, protected test::HubFixture {
protected:
    AgentLineTest() : HubFixture(QUrl("https://hub.example")), model(makeModel())
    {
        AppModel::Hooks hooks;
        hooks.stayAwake = [this](const QJsonObject &o) { events << "stayAwake " + QJsonDocument(o).toJson(QJsonDocument::Compact); };
        hooks.clipboardReceived = [this](const QJsonObject &o) { events << "received " + QJsonDocument(o).toJson(QJsonDocument::Compact); };
        hooks.clipboardAsk = [this](const QString &line) { events << "ask " + line; };
        model->setHooks(hooks);
        QObject::connect(model.get(), &AppModel::sessionsReloadWanted, [this] { events << "reloadSessions"; });
        QObject::connect(model.get(), &AppModel::setupWanted, [this] { events << "showSetup"; });
        QObject::connect(model.get(), &AppModel::connectedChanged, [this] {
            events << (model->connected() ? "connected" : "disconnected");
        });
        keychain.setToken(QStringLiteral("t"));
    }

    void read(const QString &line) const
    {
        const AgentLine reader(*model);
        reader(line);
    }

    std::unique_ptr<AppModel> model;
    QStringList events;
};

} // namespace

TEST(AgentLineStarts, aPrefixStandsFirstOrBehindOneTimeStamp)
{
    EXPECT_TRUE(AgentLine::starts("agent-busy {}", u"agent-busy {"));
    EXPECT_TRUE(AgentLine::starts("2026-11-21T10:00:00.123Z agent-busy {}", u"agent-busy {"));
    EXPECT_TRUE(AgentLine::starts("2026-11-21T10:00:00Z agent-busy {}", u"agent-busy {"));
    EXPECT_FALSE(AgentLine::starts("2026-11-21T10:00:00Zagent-busy {}", u"agent-busy {"));
    EXPECT_FALSE(AgentLine::starts("2026-11-21T10:00:00Z", u"agent-busy {")) << "a time stamp with no blank after it";
    EXPECT_FALSE(AgentLine::starts("info agent-busy {}", u"agent-busy {")) << "another first word";
    EXPECT_FALSE(AgentLine::starts("2026-11-21T10:00:00Z 2026-11-21T10:00:00Z agent-busy {}", u"agent-busy {"));
    EXPECT_FALSE(AgentLine::starts("2026-11-21 10:00:00Z agent-busy {}", u"agent-busy {"));
    EXPECT_FALSE(AgentLine::starts("Agent-busy {}", u"agent-busy {")) << "case matters";
}

TEST_F(AgentLineTest, statePayloadsAreReadOrIgnoredWhole)
{
    read("2026-11-21T10:00:00Z claude-code {\"found\": false, \"state\": \"signed-out\", \"extra\": 1}");
    EXPECT_FALSE(model->answers());
    EXPECT_EQ(model->claudeState(), "signed-out");
    read("claude-code {\"state\": \"ready\"}");
    EXPECT_EQ(model->claudeState(), "signed-out") << "no \"found\": nothing changes";
    read("claude-code {\"found\": \"yes\"}");
    EXPECT_FALSE(model->answers());
    read("claude-code {\"found\": true, \"state\": 3}");
    EXPECT_TRUE(model->answers());
    EXPECT_FALSE(model->claudeState()) << "a state that is no string is none";
    read("claude-code {\"found\": false");
    EXPECT_TRUE(model->answers()) << "broken JSON is dropped";

    read("agent-busy {\"busy\": true}");
    EXPECT_TRUE(model->agentBusy());
    read("agent-busy {\"busy\": null}");
    EXPECT_TRUE(model->agentBusy());
    read("x agent-busy {\"busy\": false}");
    EXPECT_TRUE(model->agentBusy()) << "not at the start";
}

TEST_F(AgentLineTest, ownersGetTheirPayloadsFromTheMarkersBrace)
{
    read("stay-awake {\"active\": true}");
    read("stay-awake {\"active\": tru");
    read("2026-11-21T10:00:00Z clipboard-received {\"from\": \"Laptop\"}");
    read("clipboard-ask {\"op\": \"list\"}");
    read("note: stay-awake {\"active\": true}");
    EXPECT_EQ(events, (QStringList{"stayAwake {\"active\":true}", "received {\"from\":\"Laptop\"}",
                                   "ask clipboard-ask {\"op\": \"list\"}"}));
}

TEST_F(AgentLineTest, oneLineFiresEveryRowThatMatchesInTableOrder)
{
    read("something hub connected in the middle");
    EXPECT_TRUE(model->connected());
    read("hub connected and then hub closed");
    EXPECT_FALSE(model->connected());
    EXPECT_EQ(events, (QStringList{"connected", "reloadSessions", "reloadSessions", "disconnected"}));

    // A close with 4409 counts a replacement after the disconnect.
    events.clear();
    read("hub connected");
    read("hub closed 4409");
    clock.advance(1);
    read("hub closed 4409");
    EXPECT_EQ(model->lastError(), AppModel::runningTwiceText());
    EXPECT_TRUE(events.contains("disconnected"));

    // "hub closed" and "closed 4401" on one line: disconnected, then unpaired.
    events.clear();
    read("hub connected");
    read("hub closed 4401");
    EXPECT_EQ(model->pairing().state, AppModel::Pairing::State::unpaired);
    EXPECT_FALSE(keychain.token());
    EXPECT_EQ(model->lastError(), AppModel::revokedText());
    EXPECT_EQ(events.mid(events.size() - 2), (QStringList{"disconnected", "showSetup"}));
}

TEST_F(AgentLineTest, a403OnConnectingRevokesOnceAndAGoneModelIsSafe)
{
    read("Unexpected server response: 403 and closed 4401");
    EXPECT_EQ(events.count("showSetup"), 1) << "both markers on one line make one revocation";
    read("Unexpected server response: 401");
    EXPECT_EQ(events.count("showSetup"), 1);
    keychain.setToken(QStringLiteral("again"));
    read("2026-11-21T10:00:00Z error: Unexpected server response: 403");
    EXPECT_EQ(events.count("showSetup"), 2) << "a 403 alone revokes, with no close code";
    EXPECT_FALSE(keychain.token());

    AgentLine reader(*model);
    model.reset();
    reader("hub connected closed 4409 closed 4401 claude-code {\"found\": true}");
}

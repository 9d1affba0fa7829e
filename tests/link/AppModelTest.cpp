#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Log.h"
#include "hub/MacAPI.h"
#include "link/AppModel.h"
#include "base/Keychain.h"
#include "platform/DeviceName.h"

#include "Fixture.h"
#include "Support.h"
#include "TestHub.h"

#include <gtest/gtest.h>

#include <QNetworkAccessManager>

using namespace zuv;
using test::TestHub;
using State = AppModel::Pairing::State;

namespace {

TestHub::Response start(const QString &code, int delayMs = 0)
{
    auto r = TestHub::json(QJsonObject{{"code", code}, {"secret", "s-" + code}, {"expiresAt", 1.9e12}});
    r.delayMs = delayMs;
    return r;
}

TestHub::Response poll(const QString &status, const QJsonObject &extra = {})
{
    QJsonObject body = extra;
    body.insert("status", status);
    return TestHub::json(body);
}

class AppModelTest : public ::testing::Test, protected test::HubFixture {
protected:
    AppModelTest() : owned(makeModel()), model(*owned)
    {
        QObject::connect(&model, &AppModel::chatStartWanted, [this] { calls << "startChat"; });
        QObject::connect(&model, &AppModel::chatStopWanted, [this] { calls << "stopChat"; });
        QObject::connect(&model, &AppModel::setupWanted, [this] { calls << "showSetup"; });
        QObject::connect(&model, &AppModel::pairingChanged, [this] {
            states << model.pairing().state;
        });
        setLogSink([this](const QString &line) { logged << line; });
    }
    ~AppModelTest() override { setLogSink({}); }

    int polls() const { return hub.count("POST", "/pair/poll"); }
    // The poll loop sleeps again only once the client has read the last answer;
    // time must not move on before that.
    bool pollerAsleep() { return test::waitUntil([&] { return clock.sleepers() == 1; }); }
    bool showing(const QString &code) const { return model.pairing() == AppModel::Pairing::showing(code); }

    std::unique_ptr<AppModel> owned;
    AppModel &model;
    QStringList calls;
    QStringList logged;
    QList<State> states;
};

} // namespace

TEST_F(AppModelTest, pairsAfterPollingAndStoresTheToken)
{
    hub.on("POST", "/pair/start", start("ABC123"));
    hub.sequence("POST", "/pair/poll",
                 {poll("pending"), poll("paired"), poll("waiting"),
                  poll("paired", {{"token", "agent-token-1"}})});
    EXPECT_EQ(model.pairing().state, State::unpaired);
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("ABC123"); }));
    EXPECT_EQ(hub.requests("POST", "/pair/start").at(0).json().toObject().value("name").toString(), deviceName());
    EXPECT_TRUE(hub.requests("POST", "/pair/start").at(0).header("authorization").isEmpty());
    EXPECT_TRUE(logged.contains("pairing code ABC123"));

    for (int expected = 1; expected <= 4; ++expected) {
        ASSERT_TRUE(pollerAsleep());
        EXPECT_EQ(polls(), expected - 1) << "no poll before two seconds have passed";
        clock.advance(1.875);
        test::drain();
        EXPECT_EQ(polls(), expected - 1);
        clock.advance(0.125);
        ASSERT_TRUE(test::waitUntil([&] { return polls() == expected; })) << expected;
    }
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::paired; }));
    const auto body = hub.requests("POST", "/pair/poll").at(0).json().toObject();
    EXPECT_EQ(body.value("code").toString(), "ABC123");
    EXPECT_EQ(body.value("secret").toString(), "s-ABC123");
    EXPECT_EQ(keychain.token(), "agent-token-1");
    ASSERT_TRUE(test::waitUntil([&] { return !keychain.saving(); }));
    EXPECT_EQ(store.secrets.at({"com.kelmor.zuv.mac", "agent-token"}), "agent-token-1");
    EXPECT_TRUE(defaults.boolean("pairedOwner").present());
    EXPECT_FALSE(defaults.boolean("pairedOwner").value) << "an absent owner is stored as false";
    EXPECT_EQ(calls, (QStringList{"startChat"}));
    EXPECT_TRUE(model.agent().wanted()) << "pairing starts the agent";
    EXPECT_TRUE(model.screen().wanted());
    EXPECT_FALSE(model.lastError());
    clock.advance(10);
    test::drain();
    EXPECT_EQ(polls(), 4);
}

TEST_F(AppModelTest, theOwnerFlagAndAnExpiredCode)
{
    hub.on("POST", "/pair/start", start("X"));
    hub.on("POST", "/pair/poll", poll("paired", {{"token", "t"}, {"owner", true}}));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("X"); }));
    clock.advance(2);
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::paired; }));
    EXPECT_TRUE(defaults.boolean("pairedOwner").value);

    hub.on("POST", "/pair/start", start("Y"));
    hub.on("POST", "/pair/poll", poll("expired"));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("Y"); }));
    EXPECT_EQ(keychain.token(), "t") << "the old token stays until a new one arrives";
    clock.advance(2);
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::expired; }));
    EXPECT_FALSE(model.lastError());
    EXPECT_EQ(keychain.token(), "t");
}

TEST_F(AppModelTest, aStatusOtherThan200EndsTheAttemptWithAMessage)
{
    hub.on("POST", "/pair/start", TestHub::json(QJsonObject{{"code", "C"}, {"secret", "s"}, {"expiresAt", 1}}, 201));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::expired; }));
    ASSERT_TRUE(model.lastError());
    EXPECT_TRUE(model.lastError()->startsWith("Couldn't reach Zuv: ")) << model.lastError()->toStdString();
    EXPECT_TRUE(model.lastError()->contains("201"));

    // One failed poll ends the attempt: there is no retry.
    model.setLastError(std::nullopt);
    hub.on("POST", "/pair/start", start("D"));
    hub.on("POST", "/pair/poll", TestHub::error(500, "down"));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("D"); }));
    clock.advance(2);
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::expired; }));
    EXPECT_TRUE(model.lastError()->startsWith("Couldn't reach Zuv: "));
    clock.advance(20);
    test::drain();
    EXPECT_EQ(polls(), 1);

    // A reply that does not decode is a failure too.
    hub.on("POST", "/pair/start", TestHub::json(QJsonObject{{"code", 5}}));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return model.pairing().state == State::expired && !model.pairTask().isRunning(); }));
}

TEST_F(AppModelTest, twoPressesGiveOnePollingLoop)
{
    hub.sequence("POST", "/pair/start", {start("FIRST", 150), start("SECOND", 150)});
    hub.on("POST", "/pair/poll", poll("pending"));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return hub.count("POST", "/pair/start") == 1; }));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("SECOND"); }));
    EXPECT_EQ(states, (QList<State>{State::showing})) << "the cancelled first attempt leaves the state alone";
    EXPECT_FALSE(model.lastError()) << "a cancelled attempt says nothing";

    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(pollerAsleep());
        clock.advance(2);
        ASSERT_TRUE(test::waitUntil([&] { return polls() == i; }));
        ASSERT_TRUE(pollerAsleep()) << "one loop, asleep again";
        EXPECT_EQ(polls(), i);
    }
    for (const auto &request : hub.requests("POST", "/pair/poll"))
        EXPECT_EQ(request.json().toObject().value("code").toString(), "SECOND");
}

TEST_F(AppModelTest, unpairStopsEverythingButTheScreen)
{
    keychain.setToken(QStringLiteral("old"));
    defaults.set("pairedOwner", true);
    hub.grantTokens();
    test::await(api.token());
    hub.on("POST", "/pair/start", start("Z"));
    hub.on("POST", "/pair/poll", poll("pending"));
    model.setConnected(true);
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return showing("Z"); }));

    model.unpair();
    EXPECT_EQ(model.pairing().state, State::unpaired);
    EXPECT_FALSE(model.connected());
    EXPECT_FALSE(keychain.token());
    EXPECT_TRUE(defaults.boolean("pairedOwner").absent());
    EXPECT_FALSE(api.access());
    EXPECT_EQ(calls, (QStringList{"stopChat"}));
    EXPECT_FALSE(model.agent().wanted());
    ASSERT_TRUE(test::waitUntil([&] { return !keychain.saving() && store.secrets.empty(); }));
    // The cancelled poll loop ends without polling again, and without writing a state.
    ASSERT_TRUE(test::waitUntil([&] { return !model.pairTask().isRunning(); }));
    clock.advance(10);
    test::drain();
    EXPECT_EQ(polls(), 0);
    EXPECT_EQ(model.pairing().state, State::unpaired);
    EXPECT_EQ(states, (QList<State>{State::showing, State::unpaired}));
    EXPECT_FALSE(model.lastError());
}

// A revocation while "/pair/start" is still on its way: when that request has
// really ended (aborted), the computer is unpaired with the revocation's words.
TEST_F(AppModelTest, aRevocationDuringPairingStaysUnpaired)
{
    keychain.setToken(QStringLiteral("old"));
    hub.on("POST", "/pair/start", start("LATE", 300));
    model.startPairing();
    ASSERT_TRUE(test::waitUntil([&] { return hub.count("POST", "/pair/start") == 1; }));
    model.revoked();
    ASSERT_TRUE(test::waitUntil([&] { return !model.pairTask().isRunning(); }));
    test::drain();
    EXPECT_EQ(model.pairing().state, State::unpaired);
    EXPECT_EQ(model.lastError(), AppModel::revokedText());
    EXPECT_FALSE(keychain.token());
}

TEST_F(AppModelTest, runningTwiceIsToldOnlyOnASecondCloseWithinAMinute)
{
    model.setConnected(true);
    model.replaced();
    EXPECT_FALSE(model.lastError());
    clock.advance(60);
    model.replaced();
    EXPECT_FALSE(model.lastError()) << "exactly 60 seconds apart is not within a minute";
    clock.advance(59);
    model.replaced();
    EXPECT_EQ(model.lastError(), AppModel::runningTwiceText());

    // A later "hub connected": cleared 30 seconds on, with no replacement meanwhile.
    model.clearReplacedLater();
    clock.advance(29.875);
    test::drain();
    EXPECT_TRUE(model.lastError());
    clock.advance(0.125);
    EXPECT_FALSE(model.lastError());
}

TEST_F(AppModelTest, theRunningTwiceTextStaysWhileTheLinkIsNotSettled)
{
    model.setConnected(true);
    model.replaced();
    clock.advance(1);
    model.replaced();
    ASSERT_EQ(model.lastError(), AppModel::runningTwiceText());

    // A replacement within the 30 seconds keeps it.
    model.clearReplacedLater();
    clock.advance(20);
    model.replaced();
    clock.advance(10);
    EXPECT_EQ(model.lastError(), AppModel::runningTwiceText());

    // Not connected: never cleared.
    model.setConnected(false);
    model.clearReplacedLater();
    clock.advance(31);
    EXPECT_EQ(model.lastError(), AppModel::runningTwiceText());

    // One pending wait: a second "hub connected" starts the 30 seconds again.
    model.setConnected(true);
    model.clearReplacedLater();
    clock.advance(5);
    model.clearReplacedLater();
    test::drain();
    EXPECT_EQ(clock.sleepers(), 1);
    clock.advance(25);
    EXPECT_EQ(model.lastError(), AppModel::runningTwiceText());
    clock.advance(5);
    EXPECT_FALSE(model.lastError());

    // Another message is never cleared.
    model.setLastError(QStringLiteral("Something else"));
    model.clearReplacedLater();
    clock.advance(31);
    EXPECT_EQ(model.lastError(), "Something else");
}

TEST_F(AppModelTest, revocationUnpairsAndShowsSetup)
{
    keychain.setToken(QStringLiteral("old"));
    model.setConnected(true);
    model.revoked();
    EXPECT_EQ(model.pairing().state, State::unpaired);
    EXPECT_FALSE(keychain.token());
    EXPECT_EQ(model.lastError(), AppModel::revokedText());
    EXPECT_EQ(calls, (QStringList{"stopChat", "showSetup"}));
    EXPECT_FALSE(model.agent().wanted());
}

TEST(AppModelStatics, serverAddressQrAndLink)
{
    test::TempHome home;
    Defaults defaults(home.file("d.json"));
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    EXPECT_EQ(AppModel::serverAddress(defaults), AppModel::defaultServer());
    EXPECT_EQ(AppModel::defaultServer().scheme(), "https");
    defaults.set("server", "http://127.0.0.1:8080");
    EXPECT_EQ(AppModel::serverAddress(defaults), QUrl("http://127.0.0.1:8080"));
    defaults.set("server", "not an address");
    EXPECT_EQ(AppModel::serverAddress(defaults), AppModel::defaultServer());
    defaults.set("server", 7);
    EXPECT_EQ(AppModel::serverAddress(defaults), AppModel::defaultServer());
    EXPECT_EQ(logged.size(), 1);
    setLogSink({});

    EXPECT_EQ(AppModel::pairingLink("K7Q"), "zuvkel://pair/K7Q");
    const QImage image = AppModel::qr(AppModel::pairingLink("K7Q"));
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.width(), image.height());
    EXPECT_EQ(image.width() % 10, 0);
    EXPECT_GE(image.width(), 230); // at least 21 modules and the quiet border
    EXPECT_EQ(image.pixelColor(0, 0), QColor(Qt::white));
    EXPECT_EQ(image.pixelColor(10, 10), QColor(Qt::black)) << "the finder pattern's corner";
}

#include "base/Log.h"
#include "link/AppModel.h"
#include "base/Keychain.h"
#include "platform/linux/LinuxSecretStore.h"

#include "FakeSecretStore.h"
#include "Fixture.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QFile>

using namespace zuv;

TEST(Keychain, servesFromMemoryAndWritesOnlyTheLastChange)
{
    test::FakeSecretStore store;
    store.deferred = true; // each call ends on a later turn, as the Secret Service's do
    store.secrets[{"com.kelmor.zuv.mac", "agent-token"}] = "stored";
    Keychain keychain(store);
    EXPECT_FALSE(keychain.token());
    test::await(keychain.load());
    EXPECT_EQ(keychain.token(), "stored");

    keychain.setToken(QStringLiteral("a"));
    keychain.setToken(QStringLiteral("b"));
    keychain.setToken(QStringLiteral("c"));
    keychain.setToken(std::nullopt);
    EXPECT_FALSE(keychain.token());
    ASSERT_TRUE(test::waitUntil([&] { return !keychain.saving(); }));
    EXPECT_TRUE(store.secrets.empty());
    EXPECT_EQ(store.writes, 1) << "the first write was under way; b and c were overtaken by the removal";
    EXPECT_EQ(store.removes, 1);

    keychain.setToken(QStringLiteral(""));
    EXPECT_FALSE(keychain.token()) << "an empty token is no token";

    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    store.refuseWrites = true;
    keychain.setToken(QStringLiteral("c"));
    ASSERT_TRUE(test::waitUntil([&] { return !keychain.saving(); }));
    EXPECT_EQ(logged.size(), 1);
    setLogSink({});
}

// The real Secret Service: the test session runs gnome-keyring on its own bus.
TEST(LinuxSecretStore, keepsTheTokenInTheSecretService)
{
    test::TempHome home;
    LinuxSecretStore store(home.path());
    const QString service = "com.kelmor.zuv.mac.test";
    ASSERT_TRUE(test::await(store.write(service, "agent-token", "s3cret")));
    EXPECT_FALSE(store.usingFile()) << "no Secret Service answered; is gnome-keyring running?";
    EXPECT_FALSE(QFile::exists(home.file("agent-token")));
    EXPECT_EQ(test::await(store.read(service, "agent-token")).value, "s3cret");
    ASSERT_TRUE(test::await(store.write(service, "agent-token", "second")));
    EXPECT_EQ(test::await(store.read(service, "agent-token")).value, "second");
    test::await(store.remove(service, "agent-token"));
    const auto gone = test::await(store.read(service, "agent-token"));
    EXPECT_EQ(gone.value, std::nullopt);
    EXPECT_EQ(gone.problem, std::nullopt);
    EXPECT_FALSE(LinuxSecretStore::serviceMissing());
}

TEST(LinuxSecretStore, fallsBackToAPrivateFileWithoutASecretService)
{
    // No bus to find a Secret Service on. This holds only for a process that has not
    // reached the bus yet: CTest runs each test in a process of its own.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    qunsetenv("DISPLAY");
    test::TempHome home;
    QStringList logged;
    setLogSink([&](const QString &line) { logged << line; });
    LinuxSecretStore store(home.path() + "/data");
    ASSERT_TRUE(test::await(store.write("svc", "agent-token", "t0k")));
    EXPECT_TRUE(store.usingFile());
    const QString file = home.path() + "/data/agent-token";
    EXPECT_EQ(test::readText(file), "t0k");
    EXPECT_EQ(QFile(file).permissions() & ~(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser),
              QFileDevice::Permissions());
    EXPECT_EQ(test::await(store.read("svc", "agent-token")).value, "t0k");
    test::await(store.remove("svc", "agent-token"));
    EXPECT_FALSE(QFile::exists(file));
    EXPECT_EQ(test::await(store.read("svc", "agent-token")).value, std::nullopt);
    EXPECT_EQ(logged.size(), 1) << "said once";
    setLogSink({});
}

// A keyring that is there but will not answer (locked, or its prompt refused) is
// not a missing one: nothing goes to the file, the computer stays paired without
// starting the agent, the user is told why, and a later read recovers.
TEST(Keychain, aLockedKeyringKeepsTheComputerPairedUntilItAnswers)
{
    test::FakeSecretStore store;
    store.locked = QStringLiteral("the collection is locked");
    store.secrets[{"com.kelmor.zuv.mac", "agent-token"}] = "kept";
    Keychain keychain(store);
    test::await(keychain.load());
    EXPECT_FALSE(keychain.token());
    ASSERT_TRUE(keychain.problem());

    test::HubFixture f(keychain);
    auto model = f.makeModel();
    EXPECT_EQ(model->pairing().state, AppModel::Pairing::State::paired);
    ASSERT_TRUE(model->lastError());
    EXPECT_TRUE(model->lastError()->contains("the collection is locked"));
    model->startChildren();
    test::drain();
    EXPECT_FALSE(model->agent().wanted()) << "an agent without its token would be refused and unpair us";

    const int reads = store.reads;
    f.clock.advance(20);
    test::drain();
    EXPECT_GT(store.reads, reads) << "read again later";
    EXPECT_TRUE(model->lastError()) << "still locked";

    store.locked.reset();
    f.clock.advance(20);
    ASSERT_TRUE(test::waitUntil([&] { return keychain.token().has_value(); }));
    EXPECT_EQ(keychain.token(), "kept");
    EXPECT_FALSE(model->lastError());
    EXPECT_EQ(model->pairing().state, AppModel::Pairing::State::paired);
    EXPECT_TRUE(model->agent().wanted());
    model->stopChildren();
}

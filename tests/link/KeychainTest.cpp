#include "base/Log.h"
#include "link/Keychain.h"
#include "platform/linux/LinuxSecretStore.h"

#include "FakeSecretStore.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QFile>

using namespace zuv;

TEST(Keychain, servesFromMemoryAndWritesOnlyTheLastChange)
{
    test::FakeSecretStore store;
    store.secrets[{"com.kelmor.zuv.mac", "agent-token"}] = "stored";
    Keychain keychain(store);
    EXPECT_FALSE(keychain.token());
    test::await(keychain.load());
    EXPECT_EQ(keychain.token(), "stored");

    keychain.setToken(QStringLiteral("a"));
    keychain.setToken(QStringLiteral("b"));
    keychain.setToken(std::nullopt);
    EXPECT_FALSE(keychain.token());
    ASSERT_TRUE(test::waitUntil([&] { return !keychain.saving(); }));
    EXPECT_TRUE(store.secrets.empty());

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
    EXPECT_EQ(test::await(store.read(service, "agent-token")), "s3cret");
    ASSERT_TRUE(test::await(store.write(service, "agent-token", "second")));
    EXPECT_EQ(test::await(store.read(service, "agent-token")), "second");
    test::await(store.remove(service, "agent-token"));
    EXPECT_EQ(test::await(store.read(service, "agent-token")), std::nullopt);
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
    EXPECT_EQ(test::await(store.read("svc", "agent-token")), "t0k");
    test::await(store.remove("svc", "agent-token"));
    EXPECT_FALSE(QFile::exists(file));
    EXPECT_EQ(test::await(store.read("svc", "agent-token")), std::nullopt);
    EXPECT_EQ(logged.size(), 1) << "said once";
    setLogSink({});
}

#include "platform/linux/LauncherBadge.h"

#include "DBusSignalSpy.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusArgument>

using namespace zuv;

namespace {

QVariantMap properties(const QDBusMessage &update)
{
    const QVariant value = update.arguments().at(1);
    return value.canConvert<QDBusArgument>() ? qdbus_cast<QVariantMap>(value.value<QDBusArgument>()) : value.toMap();
}

} // namespace

// The real signal on the test session's bus: the count and whether to show it,
// sent only when they change.
TEST(LauncherBadge, tellsTheDockTheCount)
{
    ASSERT_TRUE(QDBusConnection::sessionBus().isConnected());
    test::DBusSignalSpy dock(QDBusConnection::sessionBus(), "com.canonical.Unity.LauncherEntry", "Update");
    LauncherBadge badge;
    badge.setCount(3);
    ASSERT_TRUE(test::waitUntil([&] { return dock.messages.size() == 1; }));
    EXPECT_EQ(dock.messages[0].arguments().at(0).toString(), "application://com.kelmor.zuv.mac.desktop");
    EXPECT_EQ(properties(dock.messages[0]).value("count").toLongLong(), 3);
    EXPECT_TRUE(properties(dock.messages[0]).value("count-visible").toBool());

    badge.setCount(3);
    badge.setCount(-2); // nothing waits: hidden
    ASSERT_TRUE(test::waitUntil([&] { return dock.messages.size() == 2; }));
    test::drain();
    EXPECT_EQ(dock.messages.size(), 2u) << "an unchanged count is not sent again";
    EXPECT_EQ(properties(dock.messages[1]).value("count").toLongLong(), 0);
    EXPECT_FALSE(properties(dock.messages[1]).value("count-visible").toBool());
    EXPECT_EQ(badge.count(), 0);
}

#include "app/SingleInstance.h"
#include "platform/linux/PrivateFolder.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>

using namespace zuv;

namespace {

// Hands `arguments` to the running instance as a second launch does, without
// blocking: the instance answers from this thread's event loop.
bool handOver(const QString &folder, const QStringList &arguments)
{
    QLocalSocket socket;
    socket.connectToServer(folder + "/zuv.sock");
    if (!test::waitUntil([&] { return socket.state() == QLocalSocket::ConnectedState; }))
        return false;
    socket.write(QJsonDocument(QJsonArray::fromStringList(arguments)).toJson(QJsonDocument::Compact) + '\n');
    return test::waitUntil([&] { return socket.canReadLine(); }) && socket.readLine().trimmed() == "ok";
}

} // namespace

// A second launch during start-up (while the keyring is read) is answered at
// once, kept, and acted on when the app is ready, in order.
TEST(SingleInstance, argumentsBeforeTheAppIsReadyAreQueuedNotLost)
{
    test::TempHome home;
    const QString folder = home.file("run");
    SingleInstance instance(folder);
    ASSERT_EQ(instance.claim({"zuv"}), SingleInstance::Role::primary) << instance.error().toStdString();
    QList<QStringList> received;
    QObject::connect(&instance, &SingleInstance::received, [&](const QStringList &a) { received << a; });

    ASSERT_TRUE(handOver(folder, {"zuv", "--pair"}));
    ASSERT_TRUE(handOver(folder, {"zuv", "--settings"}));
    test::drain();
    EXPECT_TRUE(received.isEmpty());
    instance.startDelivering();
    EXPECT_EQ(received, (QList<QStringList>{{"zuv", "--pair"}, {"zuv", "--settings"}}));
    ASSERT_TRUE(handOver(folder, {"zuv", "--clipboard"}));
    ASSERT_TRUE(test::waitUntil([&] { return received.size() == 3; }));
}

TEST(SingleInstance, onlyAPrivateFolderOfOursIsUsed)
{
    test::TempHome home;
    QString why;
    QDir().mkpath(home.file("open"));
    QFile::setPermissions(home.file("open"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                                 | QFile::ExeGroup);
    EXPECT_FALSE(PrivateFolder::check(home.file("open"), &why));
    EXPECT_TRUE(why.contains("750")) << why.toStdString();

    QDir().mkpath(home.file("real"));
    QFile::setPermissions(home.file("real"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    EXPECT_TRUE(PrivateFolder::check(home.file("real"), &why));
    QFile::link(home.file("real"), home.file("link"));
    EXPECT_FALSE(PrivateFolder::check(home.file("link"), &why)) << "a link is not followed";
    EXPECT_FALSE(PrivateFolder::check("/", &why)) << "root's folder is not ours";

    SingleInstance refused(home.file("open"));
    EXPECT_EQ(refused.claim({"zuv"}), SingleInstance::Role::failed);
    EXPECT_TRUE(refused.error().contains(home.file("open")));
}

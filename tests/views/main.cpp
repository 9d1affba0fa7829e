// Entry of the view tests: a widget application on the offscreen platform, and
// private XDG folders as for every other test.
#include <QApplication>
#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    QTemporaryDir home(QDir::tempPath() + QStringLiteral("/zuv-tests-XXXXXX"));
    for (const char *name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"}) {
        const QString folder = home.path() + QLatin1Char('/') + QString::fromLatin1(name);
        QDir().mkpath(folder);
        qputenv(name, folder.toUtf8());
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qunsetenv("XDG_SESSION_TYPE"); // whatever the developer's session, the tests' display is Xvfb
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

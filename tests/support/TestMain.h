#pragma once

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace zuv::test {

// Runs the tests with `App` (a core or a widget application) for the event loop,
// and private XDG folders so that no test touches the user's own files.
template<class App>
int runTests(int argc, char **argv)
{
    QTemporaryDir home(QDir::tempPath() + QStringLiteral("/zuv-tests-XXXXXX"));
    for (const char *name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"}) {
        const QString folder = home.path() + QLatin1Char('/') + QString::fromLatin1(name);
        QDir().mkpath(folder);
        qputenv(name, folder.toUtf8());
    }
    qunsetenv("XDG_SESSION_TYPE"); // whatever the developer's session, the tests' display is Xvfb
    ::testing::InitGoogleTest(&argc, argv);
    App app(argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace zuv::test

// Entry of the X11 clipboard tests: a GUI application on the test display, so
// that our own writes go through the real X clipboard.
#include "TestMain.h"

#include <QGuiApplication>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    return zuv::test::runTests<QGuiApplication>(argc, argv);
}

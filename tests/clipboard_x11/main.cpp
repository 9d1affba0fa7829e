// Entry of the X11 clipboard tests: a widget application on the test display,
// so that our own writes go through the real X clipboard and the panel is a
// real window.
#include "TestMain.h"

#include <QApplication>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    return zuv::test::runTests<QApplication>(argc, argv);
}

// Entry of the view tests: a widget application on the offscreen platform.
#include "TestMain.h"

#include <QApplication>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return zuv::test::runTests<QApplication>(argc, argv);
}

// Entry of the text recognition tests: a GUI application offscreen, so that
// pictures of text can be drawn with real fonts.
#include "TestMain.h"

#include <QGuiApplication>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // The helper at the tests' own priority, so that the other tests running
    // beside it do not starve it.
    qputenv("ZUV_OCR_NICE", "0");
    return zuv::test::runTests<QGuiApplication>(argc, argv);
}

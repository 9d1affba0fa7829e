// Test entry of the logic tests.
#include "TestMain.h"

#include <QCoreApplication>

int main(int argc, char **argv) { return zuv::test::runTests<QCoreApplication>(argc, argv); }

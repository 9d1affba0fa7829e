// zuv-crashtest: a program of ours that crashes on purpose, for the crash report tests.
// Usage: zuv-crashtest REPORTS-FOLDER [segv|abort]
#include "platform/linux/CrashHandler.h"

#include <cstdlib>
#include <cstring>

__attribute__((noinline)) void crashInsideNamedFunction(volatile int *target)
{
    *target = 42;
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    zuv::CrashHandler::install(argv[1], "zuv-crashtest", "0.1.0", "7");
    if (argc > 2 && std::strcmp(argv[2], "abort") == 0)
        std::abort();
    volatile int *nowhere = nullptr;
    crashInsideNamedFunction(nowhere);
    return 0;
}

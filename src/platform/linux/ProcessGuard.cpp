#include "platform/linux/ProcessGuard.h"

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

namespace zuv::ProcessGuard {

long self() { return long(getpid()); }

void endWithParent(long parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (long(getppid()) != parent)
        raise(SIGTERM);
}

} // namespace zuv::ProcessGuard

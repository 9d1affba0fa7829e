#include "platform/linux/CrashHandler.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <ucontext.h>
#include <unistd.h>

namespace zuv::CrashHandler {

namespace {

// Everything the handler needs is prepared at install time; it allocates nothing.
char g_folder[PATH_MAX];
char g_name[128];
char g_version[64];
char g_build[64];
char g_exe[PATH_MAX];
constexpr int signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t altStackSize = 64 * 1024;
alignas(16) char g_altStack[altStackSize];

void copy(char *to, size_t size, const char *from)
{
    std::strncpy(to, from ? from : "", size - 1);
    to[size - 1] = '\0';
}

// A tiny writer over a file descriptor: text and numbers, no allocation.
struct Out {
    int fd;
    void text(const char *s) const
    {
        size_t n = std::strlen(s);
        while (n > 0) {
            const ssize_t w = ::write(fd, s, n);
            if (w <= 0)
                return;
            s += w;
            n -= size_t(w);
        }
    }
    void number(unsigned long long value, int base = 10) const
    {
        char digits[32];
        int i = 0;
        do {
            const int d = int(value % unsigned(base));
            digits[i++] = char(d < 10 ? '0' + d : 'a' + d - 10);
            value /= unsigned(base);
        } while (value > 0 && i < 31);
        char out[34];
        int o = 0;
        if (base == 16) {
            out[o++] = '0';
            out[o++] = 'x';
        }
        while (i > 0)
            out[o++] = digits[--i];
        out[o] = '\0';
        text(out);
    }
    void line(const char *key, const char *value) const
    {
        text(key);
        text(" ");
        text(value);
        text("\n");
    }
};

// Appends s to buf (bounded), for building the file name.
void append(char *buf, size_t size, const char *s)
{
    const size_t used = std::strlen(buf);
    if (used + 1 >= size)
        return;
    std::strncat(buf, s, size - used - 1);
}

void appendNumber(char *buf, size_t size, unsigned long long value)
{
    char digits[24];
    int i = 0;
    do {
        digits[i++] = char('0' + value % 10);
        value /= 10;
    } while (value > 0 && i < 23);
    char out[24];
    int o = 0;
    while (i > 0)
        out[o++] = digits[--i];
    out[o] = '\0';
    append(buf, size, out);
}

void handle(int signal, siginfo_t *info, void *context)
{
    const int savedErrno = errno;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);

    char path[PATH_MAX + 64] = {0};
    append(path, sizeof path, g_folder);
    append(path, sizeof path, "/");
    append(path, sizeof path, g_name);
    append(path, sizeof path, "-");
    appendNumber(path, sizeof path, unsigned(getpid()));
    append(path, sizeof path, "-");
    appendNumber(path, sizeof path, static_cast<unsigned long long>(now.tv_sec));
    append(path, sizeof path, ".crashrec");

    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        const Out out{fd};
        out.text("zuv-crash 1\n");
        out.line("name", g_name);
        out.line("exe", g_exe);
        out.line("version", g_version);
        out.line("build", g_build);
        out.text("pid ");
        out.number(unsigned(getpid()));
        out.text("\nsignal ");
        out.number(unsigned(signal));
        out.text("\ncode ");
        out.number(unsigned(info ? info->si_code : 0));
        out.text("\naddress ");
        out.number(info ? reinterpret_cast<unsigned long long>(info->si_addr) : 0, 16);
        out.text("\ntime ");
        out.number(static_cast<unsigned long long>(now.tv_sec));
        out.text(".");
        // Three digits always: 5 ms is ".005", not ".5".
        const unsigned long long ms = static_cast<unsigned long long>(now.tv_nsec / 1000000);
        out.number(ms / 100);
        out.number(ms / 10 % 10);
        out.number(ms % 10);
        out.text("\n");

        // The faulting instruction first, then the return addresses above it.
        unsigned long long faulting = 0;
#if defined(__x86_64__)
        if (context)
            faulting = static_cast<unsigned long long>(static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
        if (context)
            faulting = static_cast<unsigned long long>(static_cast<ucontext_t *>(context)->uc_mcontext.pc);
#endif
        void *frames[128];
        const int count = backtrace(frames, 128);
        int found = -1;
        for (int i = 0; i < count && found < 0; ++i)
            if (reinterpret_cast<unsigned long long>(frames[i]) == faulting)
                found = i;
        // Without the fault among the frames, skip this handler and the signal trampoline.
        const int from = found >= 0 ? found + 1 : (count > 2 ? 2 : count);
        if (faulting != 0) {
            out.text("pc ");
            out.number(faulting, 16);
            out.text("\n");
        }
        for (int i = from; i < count; ++i) {
            out.text("ret ");
            out.number(reinterpret_cast<unsigned long long>(frames[i]), 16);
            out.text("\n");
        }

        // Where every library lay, to turn the addresses into names later.
        out.text("maps\n");
        const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
        if (maps >= 0) {
            char buffer[4096];
            for (ssize_t n; (n = ::read(maps, buffer, sizeof buffer)) > 0;) {
                ssize_t done = 0;
                while (done < n) {
                    const ssize_t w = ::write(fd, buffer + done, size_t(n - done));
                    if (w <= 0)
                        break;
                    done += w;
                }
            }
            ::close(maps);
        }
        ::close(fd);
    }
    errno = savedErrno;
    // The handler was installed with SA_RESETHAND: this ends the process with the signal.
    raise(signal);
}

} // namespace

void install(const char *folder, const char *name, const char *version, const char *build)
{
    copy(g_folder, sizeof g_folder, folder);
    copy(g_name, sizeof g_name, name);
    copy(g_version, sizeof g_version, version);
    copy(g_build, sizeof g_build, build);
    const ssize_t n = ::readlink("/proc/self/exe", g_exe, sizeof g_exe - 1);
    g_exe[n > 0 ? n : 0] = '\0';
    ::mkdir(g_folder, 0700);

    // backtrace() loads its unwinder on first use; do that now, not in the handler.
    void *warm[2];
    backtrace(warm, 2);

    stack_t stack{};
    stack.ss_sp = g_altStack;
    stack.ss_size = altStackSize;
    sigaltstack(&stack, nullptr);

    struct sigaction action {};
    action.sa_sigaction = handle;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    for (int signal : signals)
        sigaction(signal, &action, nullptr);
}

} // namespace zuv::CrashHandler

#pragma once

namespace zuv::CrashHandler {

// Installs, on an alternate stack, a handler for SIGSEGV, SIGBUS, SIGILL, SIGFPE
// and SIGABRT. On such a signal it writes only what is safe to gather there (the
// signal, the time, the program counters and the memory map) into a
// "<name>-<pid>-<time>.crashrec" file in `folder`, then lets the process die
// with the signal. The next start of the app turns the record into a report.
// `name` is the process name reports show; `version` and `build` describe it.
void install(const char *folder, const char *name, const char *version, const char *build);

} // namespace zuv::CrashHandler

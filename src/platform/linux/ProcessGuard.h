#pragma once

namespace zuv::ProcessGuard {

// This process's id, to hand to a child about to be started.
long self();

// In a freshly forked child, before exec: the kernel sends it SIGTERM when
// `parent` ends, even when the parent is killed outright; a parent that is
// already gone ends the child at once. Async-signal-safe.
void endWithParent(long parent);

} // namespace zuv::ProcessGuard

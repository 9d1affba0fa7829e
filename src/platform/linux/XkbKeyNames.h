#pragma once

#include <QtGlobal>

namespace zuv::XkbKeyNames {

// The XKB name of the key at the position of a stored (Carbon, US ANSI) key
// code: "AC01" for A, "SPCE", "FK05" for F5. Null for a code with no key here.
// Names stand for positions, not characters, so a shortcut stays on its key
// whatever the layout; the current keymap turns a name into a key code.
const char *forKeyCode(quint32 keyCode);

} // namespace zuv::XkbKeyNames

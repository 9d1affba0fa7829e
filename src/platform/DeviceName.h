#pragma once

#include <QString>

namespace zuv {

// The name this computer shows to the user's other devices: the pretty host name,
// else the host name, else "Mac".
QString deviceName();

} // namespace zuv

#pragma once

#include <QString>

namespace zuv::Ids {

// A new local conversation or client id: "c" and 15 characters of a lower-cased
// UUID without dashes (16 characters in all).
QString conversation();
// A new local message id: "m" and 11 characters of the same.
QString message();

} // namespace zuv::Ids

#pragma once

#include <QString>

namespace zuv::PrivateFolder {

// Makes `folder` with mode 0700 from the start (its parents as needed) unless it
// exists, then checks it. False, with `why` said, when it is not ours alone.
bool make(const QString &folder, QString *why);

// Whether `folder` is ours alone: a real directory (not a link), owned by us,
// mode 0700. On failure `why` says what is wrong.
bool check(const QString &folder, QString *why);

} // namespace zuv::PrivateFolder

#pragma once

#include <QString>

#include <optional>

namespace zuv {

// A folder as a zip of itself, as a file manager makes one: the folder's own name
// at the root, its files, folders and symbolic links below it. Gives why it could
// not be written, or nothing when it was. Blocks: call it off the main thread.
std::optional<QString> zipFolder(const QString &folder, const QString &archive);

} // namespace zuv

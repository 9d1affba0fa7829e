#pragma once

#include <QColor>
#include <QString>

#include <optional>

namespace zuv::Swatch {

// The colour a clip's text names, when it is a hex colour: "#abc", "#aabbcc",
// "aabbcc" or "#aabbccdd" (red, green, blue, alpha). Bare digits must be six or
// eight, so that "abc" stays a word.
std::optional<QColor> color(const QString &text);

} // namespace zuv::Swatch

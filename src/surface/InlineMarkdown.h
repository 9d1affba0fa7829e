#pragma once

#include "surface/InlineText.h"

#include <QString>

namespace zuv {

// Inline Markdown, read inline-only with whitespace kept: backslash escapes,
// entities, code spans, emphasis and strong emphasis by the CommonMark delimiter
// rules, ~strikethrough~, inline links, images (as their text) and autolinks.
// Block syntax means nothing here: "# x" stays "# x".
class InlineMarkdown {
public:
    static InlineText render(const QString &text);
    // Strong emphasis that the delimiter rules refused ("**“x”**y") made strong after all.
    static void boldLeftovers(InlineText &text);
};

} // namespace zuv

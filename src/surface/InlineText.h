#pragma once

#include <QString>

#include <vector>

namespace zuv {

// What a stretch of inline Markdown means; several may hold at once.
enum class Intent : unsigned {
    none = 0,
    emphasized = 1u << 0,
    strong = 1u << 1,
    code = 1u << 2,
    strikethrough = 1u << 3,
};

constexpr Intent operator|(Intent a, Intent b) { return Intent(unsigned(a) | unsigned(b)); }
constexpr Intent operator&(Intent a, Intent b) { return Intent(unsigned(a) & unsigned(b)); }
constexpr bool has(Intent set, Intent one) { return (set & one) != Intent::none; }

// One run of rendered inline text: its characters, its intents and its link.
struct InlineRun {
    QString text;
    Intent intents = Intent::none;
    QString link; // empty: no link

    bool operator==(const InlineRun &) const = default;
};

// Rendered inline text: runs in order, adjacent runs differing in intent or link.
struct InlineText {
    std::vector<InlineRun> runs;

    QString plain() const;
    // Appends, merging with the last run when intents and link are the same.
    void append(const QString &text, Intent intents, const QString &link);
    bool operator==(const InlineText &) const = default;
};

} // namespace zuv

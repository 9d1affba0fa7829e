#pragma once

#include <QString>

#include <array>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace zuv {

// Searching the history's titles: what the eye sees is what is searched. Ranges
// are half-open, in the title's UTF-16 positions, as a view highlights them.
namespace ClipSearch {

using Range = std::pair<qsizetype, qsizetype>;

struct Match {
    size_t index = 0; // position of the clip in the list searched
    std::vector<Range> ranges;
    bool operator==(const Match &) const = default;
};

struct Fuzzy {
    qint64 score = 0; // characters skipped before the last match; lower is better
    std::vector<Range> ranges;
};

// The query's characters in order, gaps allowed, greedy from the left, with
// blanks in the query ignored and case folded. `text` is a folded title.
std::optional<Fuzzy> fuzzy(const QString &query, const QString &text);

// The form of a title that case-insensitive matching compares: case folded,
// position for position the same as the title.
QString folded(const QString &title);

// A folded title with a summary of the pairs of adjacent characters in it, so
// that a search passes over most titles that cannot hold the query without
// reading them. The history keeps one with each title: a keystroke's search
// folds nothing but the query.
struct Folded {
    QString text;
    std::array<quint64, 8> pairs{};
    bool surrogates = false; // whether characters and UTF-16 units differ in count
    static Folded of(const QString &title);
    // False when `needle` surely does not occur in this text.
    bool mayContain(const Folded &needle) const;
};

// `mode` is the "clip-search" setting: "exact", "fuzzy", "regex" or "mixed";
// anything else is "exact". `titles` are the clips' titles in list order and
// `foldedTitles` the same through Folded::of().
std::vector<Match> search(const QString &query, const QString &mode, const std::vector<QString> &titles,
                          const std::vector<Folded> &foldedTitles);

// A pattern bounded in the work one match may take, so that a catastrophic
// expression costs a bounded time per title instead of hanging the panel.
QString bounded(const QString &pattern);

} // namespace ClipSearch

} // namespace zuv

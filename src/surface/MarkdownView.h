#pragma once

#include "surface/InlineText.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

namespace zuv {

// The Markdown dialect of replies: a line-oriented block grammar of our own (no
// nesting, no lazy continuation beyond two-space item lines), with inline text
// (emphasis, code spans, links) rendered into runs.
struct MarkdownView {
    enum class Alignment { leading, center, trailing };

    struct Table {
        std::optional<QStringList> header;
        std::vector<QStringList> rows;
        std::vector<Alignment> alignments; // one per separator cell; empty without a header

        int columns() const;
        bool operator==(const Table &) const = default;

        // Lines are trimmed and begin with "|".
        static Table parse(const QStringList &lines);
        static QStringList cells(const QString &line);
        static std::optional<std::vector<Alignment>> separator(const QString &line);
    };

    struct Item {
        int indent = 0;
        QString marker; // "•" for unordered items, the written number for ordered ones
        QString text;
        bool operator==(const Item &) const = default;
    };

    struct Block {
        enum class Kind { heading, paragraph, bullets, quote, code, table, rule };
        Kind kind = Kind::paragraph;
        int level = 0;             // heading
        QString text;              // heading, paragraph, quote, code
        std::vector<Item> items;   // bullets
        Table table;               // table
        bool operator==(const Block &) const = default;
    };
    using Blocks = std::vector<Block>;

    // Pure: the blocks of `text`.
    static Blocks parse(const QString &text);
    // The same through a process-wide cache of the last 300 texts (main thread only).
    static std::shared_ptr<const Blocks> blocks(const QString &text);

    // Inline Markdown rendered into runs, then repaired by boldLeftovers.
    static InlineText inlineText(const QString &text);
    // Turns literal "**…**" that the inline rules left standing into strong text.
    static void boldLeftovers(InlineText &text);

    static constexpr int cacheLimit = 300;
};

} // namespace zuv

#include "surface/MarkdownView.h"

#include "Support.h"

#include <gtest/gtest.h>

using namespace zuv;
using Kind = MarkdownView::Block::Kind;
using Align = MarkdownView::Alignment;

namespace {

std::vector<Kind> kinds(const MarkdownView::Blocks &blocks)
{
    std::vector<Kind> out;
    for (const auto &b : blocks)
        out.push_back(b.kind);
    return out;
}

// Rendered runs in a compact form: text with its intents, e.g. "a" "[S]b" "[C]c".
QStringList runs(const QString &markdown)
{
    QStringList out;
    for (const auto &run : MarkdownView::inlineText(markdown).runs) {
        QString tag;
        if (has(run.intents, Intent::emphasized)) tag += 'E';
        if (has(run.intents, Intent::strong)) tag += 'S';
        if (has(run.intents, Intent::code)) tag += 'C';
        if (has(run.intents, Intent::strikethrough)) tag += 'X';
        if (!run.link.isEmpty()) tag += "L=" + run.link;
        out << (tag.isEmpty() ? run.text : "[" + tag + "]" + run.text);
    }
    return out;
}

} // namespace

TEST(MarkdownBlocks, emptyTextsAndFences)
{
    EXPECT_TRUE(MarkdownView::parse("").empty());
    EXPECT_TRUE(MarkdownView::parse("\n  \n\t\n").empty());

    auto blocks = MarkdownView::parse("text\n```");
    EXPECT_EQ(kinds(blocks), (std::vector<Kind>{Kind::paragraph, Kind::code}));
    EXPECT_EQ(blocks[1].text, "") << "an opener on the last line is an empty code block";

    blocks = MarkdownView::parse("```python\n  indented\n\tx = 1\n# not a heading");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::code}));
    EXPECT_EQ(blocks[0].text, "  indented\n    x = 1\n# not a heading") << "an unclosed fence keeps all lines";

    blocks = MarkdownView::parse("```\na\n   ```\nafter\n```\nb\n```js\nc");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::code, Kind::paragraph, Kind::code, Kind::paragraph}));
    EXPECT_EQ(blocks[0].text, "a") << "an indented fence line closes";
    EXPECT_EQ(blocks[2].text, "b") << "so does one with a language name";
    EXPECT_EQ(blocks[3].text, "c");
}

TEST(MarkdownBlocks, headingsRulesAndParagraphs)
{
    auto blocks = MarkdownView::parse("# One\n###### Six #\n####### Seven\n#NoBlank\n  ## Indented");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::heading, Kind::heading, Kind::paragraph, Kind::heading}));
    EXPECT_EQ(blocks[0].level, 1);
    EXPECT_EQ(blocks[1].level, 6);
    EXPECT_EQ(blocks[1].text, "Six #") << "closing hashes stay";
    EXPECT_EQ(blocks[2].text, "####### Seven\n#NoBlank");
    EXPECT_EQ(blocks[3].text, "Indented");

    blocks = MarkdownView::parse("Title\n---\n----\n* * *\n***\n___");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::paragraph, Kind::rule, Kind::paragraph, Kind::bullets,
                                                Kind::rule, Kind::rule}));
    EXPECT_EQ(blocks[0].text, "Title") << "three hyphens under text are a rule, never an underline";
    EXPECT_EQ(blocks[2].text, "----");
    EXPECT_EQ(blocks[3].items[0].text, "* *");

    blocks = MarkdownView::parse("  kept indent\nsecond\n\nthird");
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].text, "  kept indent\nsecond");
}

TEST(MarkdownBlocks, listsMixAndContinue)
{
    auto blocks = MarkdownView::parse("1. one\n2) two\n- three\n+ four\n\t• five\n    - six");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::bullets}));
    const auto &items = blocks[0].items;
    ASSERT_EQ(items.size(), 6u);
    EXPECT_EQ(items[0].marker, "1.");
    EXPECT_EQ(items[1].marker, "2)");
    EXPECT_EQ(items[2].marker, "•");
    EXPECT_EQ(items[3].marker, "•");
    EXPECT_EQ(items[4].indent, 2) << "a tab is four spaces, two levels";
    EXPECT_EQ(items[5].indent, 2);

    blocks = MarkdownView::parse("1234. not a list\n999. a list");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::paragraph, Kind::bullets}));
    EXPECT_EQ(blocks[1].items[0].marker, "999.");

    blocks = MarkdownView::parse("- item\n  continues here\nends the list");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::bullets, Kind::paragraph}));
    EXPECT_EQ(blocks[0].items[0].text, "item continues here");
    EXPECT_EQ(blocks[1].text, "ends the list");

    blocks = MarkdownView::parse("- a\n\n- b");
    EXPECT_EQ(kinds(blocks), (std::vector<Kind>{Kind::bullets, Kind::bullets})) << "a blank line parts them";
}

TEST(MarkdownBlocks, quotesDoNotNest)
{
    const auto blocks = MarkdownView::parse("> one\n>> two\n>three\nafter");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::quote, Kind::paragraph}));
    EXPECT_EQ(blocks[0].text, "one\n> two\nthree");
}

TEST(MarkdownTables, headersRowsAndAlignment)
{
    auto blocks = MarkdownView::parse("| only | row |");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::table}));
    EXPECT_FALSE(blocks[0].table.header);
    EXPECT_EQ(blocks[0].table.rows, (std::vector<QStringList>{{"only", "row"}}));
    EXPECT_TRUE(blocks[0].table.alignments.empty());

    blocks = MarkdownView::parse("| a | b | c |\n|:--|:-:|--:|\n| 1 | 2 |\n|---|---|---|\n| x | y | z | w |\ntext | with pipes");
    ASSERT_EQ(kinds(blocks), (std::vector<Kind>{Kind::table, Kind::paragraph}));
    const auto &t = blocks[0].table;
    EXPECT_EQ(t.header, (QStringList{"a", "b", "c"}));
    EXPECT_EQ(t.alignments, (std::vector<Align>{Align::leading, Align::center, Align::trailing}));
    ASSERT_EQ(t.rows.size(), 2u) << "separator lines further down vanish";
    EXPECT_EQ(t.columns(), 4);

    EXPECT_EQ(MarkdownView::Table::cells("| a \\| b | c\\d |"), (QStringList{"a | b", "c\\d"}));
    EXPECT_EQ(MarkdownView::Table::cells("| end \\|"), (QStringList{"end |"}));
    EXPECT_EQ(MarkdownView::Table::cells("| trailing \\"), (QStringList{"trailing"})) << "a lone backslash at the end goes";
    EXPECT_EQ(MarkdownView::Table::cells("||"), (QStringList{""}));
    EXPECT_FALSE(MarkdownView::Table::separator("| a | b |"));
    EXPECT_FALSE(MarkdownView::Table::separator("|::|"));
    EXPECT_TRUE(MarkdownView::Table::separator("-|-"));
}

TEST(MarkdownBlocks, theCacheServesTheSameParse)
{
    const auto first = MarkdownView::blocks("# cached\ntext");
    EXPECT_EQ(MarkdownView::blocks("# cached\ntext").get(), first.get());
    for (int i = 0; i < MarkdownView::cacheLimit + 5; ++i)
        MarkdownView::blocks(QString::number(i));
    const auto again = MarkdownView::blocks("# cached\ntext");
    EXPECT_EQ(*again, *first);
    EXPECT_NE(again.get(), first.get()) << "pushed out by 300 newer texts, parsed anew";

    // Within the limit, every text is served from the cache, however often asked.
    std::vector<std::shared_ptr<const MarkdownView::Blocks>> held;
    for (int i = 0; i < MarkdownView::cacheLimit - 1; ++i)
        held.push_back(MarkdownView::blocks(QStringLiteral("text %1").arg(i)));
    for (int i = 0; i < MarkdownView::cacheLimit - 1; ++i)
        EXPECT_EQ(MarkdownView::blocks(QStringLiteral("text %1").arg(i)).get(), held[size_t(i)].get()) << i;
}

TEST(MarkdownInline, emphasisCodeLinksAndWhitespace)
{
    EXPECT_EQ(runs("plain  text\n  kept"), (QStringList{"plain  text\n  kept"}));
    EXPECT_EQ(runs("# not a heading"), (QStringList{"# not a heading"}));
    EXPECT_EQ(runs("a *b* __c__ ~~d~~ `e*f*`"),
              (QStringList{"a ", "[E]b", " ", "[S]c", " ", "[X]d", " ", "[C]e*f*"}));
    EXPECT_EQ(runs("***both***"), (QStringList{"[ES]both"}));
    EXPECT_EQ(runs("snake_case_name"), (QStringList{"snake_case_name"}));
    EXPECT_EQ(runs("see [the *docs*](https://x.org/a_(b)) now"),
              (QStringList{"see ", "[L=https://x.org/a_(b)]the ", "[EL=https://x.org/a_(b)]docs", " now"}));
    EXPECT_EQ(runs("[not a link] (x)"), (QStringList{"[not a link] (x)"}));
    EXPECT_EQ(runs("<https://a.b/c>"), (QStringList{"[L=https://a.b/c]https://a.b/c"}));
    EXPECT_EQ(runs("\\*not\\* &amp; &#65;"), (QStringList{"*not* & A"}));
    EXPECT_EQ(runs("``a ` b``"), (QStringList{"[C]a ` b"}));
    EXPECT_EQ(runs("`unclosed"), (QStringList{"`unclosed"}));
    EXPECT_EQ(runs("``x `b` `c`"), (QStringList{"``x ", "[C]b", " ", "[C]c"})) << "unmatched runs do not stop later spans";
    EXPECT_EQ(runs("[a [b](c) d](e)"), (QStringList{"[a ", "[L=c]b", " d](e)"})) << "no link around a link";
    EXPECT_EQ(runs("[x](y) [z](w)"), (QStringList{"[L=y]x", " ", "[L=w]z"}));
    EXPECT_EQ(runs("[![i](p) t](u) [v](w)"), (QStringList{"[L=p]i", "[L=u] t", " ", "[L=w]v"}));
    EXPECT_EQ(runs("[a](<b>) [c](<d\ne>)"), (QStringList{"[L=b]a", " [c](<d\ne>)"}));
    EXPECT_EQ(runs("&amp &abcdefghijk; &lt;"), (QStringList{"&amp &abcdefghijk; <"}));
    EXPECT_EQ(runs("<a b> <ab:c>"), (QStringList{"<a b> ", "[L=ab:c]ab:c"}));
}

TEST(MarkdownInline, boldLeftoversRepairsOnlyWhatItShould)
{
    // The delimiter rules refuse these; the repair makes them strong.
    EXPECT_EQ(runs("**\"Hello\"**world"), (QStringList{"[S]\"Hello\"", "world"}));
    EXPECT_EQ(runs("a**(x)**b and **ok**"), (QStringList{"a", "[S](x)", "b and ", "[S]ok"}));
    // These stay as written.
    EXPECT_EQ(runs("** opener followed by a blank**"), (QStringList{"** opener followed by a blank**"}));
    EXPECT_EQ(runs("**closer preceded by a blank **x"), (QStringList{"**closer preceded by a blank **x"}));
    EXPECT_EQ(runs("an **opener without closer"), (QStringList{"an **opener without closer"}));
    EXPECT_EQ(runs("`**code**`"), (QStringList{"[C]**code**"}));
    EXPECT_EQ(runs("****"), (QStringList{"****"}));
    EXPECT_EQ(runs("**\"a\nb\"**c"), (QStringList{"**\"a\nb\"**c"})) << "never across a line";
    EXPECT_EQ(runs("end **"), (QStringList{"end **"}));
}

// Searching titles in each mode, with the fuzzy matcher's scoring.
#include "clipboard/ClipSearch.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>
#include <QStringList>

#include <algorithm>

using namespace zuv;
using namespace zuv::ClipSearch;

namespace {

std::vector<size_t> indices(const std::vector<Match> &matches)
{
    std::vector<size_t> out;
    for (const Match &m : matches)
        out.push_back(m.index);
    return out;
}

// What the history does: titles go in with their folded form.
std::vector<Match> look(const QString &query, const QString &mode, const std::vector<QString> &titles)
{
    std::vector<ClipSearch::Folded> foldedTitles;
    for (const QString &t : titles)
        foldedTitles.push_back(ClipSearch::Folded::of(t));
    return ClipSearch::search(query, mode, titles, foldedTitles);
}

} // namespace

TEST(ClipSearch, theFuzzyMatcherScoresSkippedCharacters)
{
    EXPECT_EQ(fuzzy("ab", "a b")->score, 1);
    EXPECT_EQ(fuzzy("ab", "ab")->score, 0);
    EXPECT_EQ(fuzzy("ab", "xaby")->score, 1) << "the skipped x counts";
    EXPECT_FALSE(fuzzy("ba", "ab"));
    EXPECT_EQ(fuzzy("a b", "ab")->score, 0) << "blanks in the query are dropped";
    EXPECT_FALSE(fuzzy("   ", "ab"));
    const auto baab = fuzzy("aa", "baab");
    EXPECT_EQ(baab->score, 1);
    EXPECT_EQ(baab->ranges, (std::vector<Range>{{1, 3}}));
    const auto abab = fuzzy("aa", "abab");
    EXPECT_EQ(abab->score, 1);
    EXPECT_EQ(abab->ranges, (std::vector<Range>{{0, 1}, {2, 3}}));
    EXPECT_EQ(fuzzy("AB", folded("xAxb"))->score, 2) << "case folded on both sides";
    EXPECT_EQ(folded("ÄßΣ😀x").size(), QString("ÄßΣ😀x").size()) << "positions carry over";
    const auto emoji = fuzzy("😀b", "a😀b");
    EXPECT_EQ(emoji->score, 1) << "a pair of surrogates is one character";
    EXPECT_EQ(emoji->ranges, (std::vector<Range>{{1, 4}}));
    EXPECT_EQ(fuzzy("x", QString(1000, 'a') + "x")->score, 1000);
}

TEST(ClipSearch, eachModeFindsWhatItShouldInListOrder)
{
    const std::vector<QString> titles{"Pinned ABC", "notes abc", "", "xaby", "a(b", "x(zy"};
    for (const char *mode : {"exact", "fuzzy", "regex", "mixed", "nonsense"}) {
        const auto all = look("", mode, titles);
        ASSERT_EQ(all.size(), titles.size()) << mode;
        EXPECT_TRUE(all[2].ranges.empty());
    }
    const auto exact = look("abc", "exact", titles);
    EXPECT_EQ(indices(exact), (std::vector<size_t>{0, 1}));
    EXPECT_EQ(exact[0].ranges, (std::vector<Range>{{7, 10}}));
    EXPECT_EQ(indices(look("abc", "nonsense", titles)), (std::vector<size_t>{0, 1}));
    EXPECT_EQ(indices(look(" ", "exact", titles)), (std::vector<size_t>{0, 1})) << "a blank is a real query";
    EXPECT_TRUE(look(" ", "fuzzy", titles).empty());

    EXPECT_EQ(indices(look("abc", "regex", titles)), std::vector<size_t>{1}) << "regex is case-sensitive";
    EXPECT_EQ(look("n.t", "regex", titles)[0].ranges, (std::vector<Range>{{0, 3}}));
    EXPECT_TRUE(look("(", "regex", titles).empty());
    EXPECT_EQ(indices(look("ABC", "mixed", titles)), (std::vector<size_t>{0, 1})) << "exact first";
    EXPECT_EQ(indices(look("^x.b", "mixed", titles)), std::vector<size_t>{3}) << "then regex";
    EXPECT_EQ(indices(look("(b", "mixed", titles)), std::vector<size_t>{4}) << "exact finds a(b before the regex fails";
    EXPECT_EQ(indices(look("x(y", "mixed", titles)), std::vector<size_t>{5}) << "no regex: fuzzy";

    // Fuzzy results by score, ties in list order.
    const auto ranked = look("ab", "fuzzy", {"a...b", "ab", "xab", "zab"});
    EXPECT_EQ(indices(ranked), (std::vector<size_t>{1, 2, 3, 0}));
}

TEST(ClipSearch, aCatastrophicExpressionStaysBounded)
{
    std::vector<QString> titles(200, QString(1000, 'a') + "!");
    EXPECT_TRUE(look("(a+)+$", "regex", titles).empty());
    EXPECT_TRUE(look("(a|a)*b", "mixed", titles).empty());
    // Unbounded, one title alone would outlast the test's time-out by far.
}

TEST(ClipSearch, theShortcutsOfTheSearchFindWhatThePlainWalkFinds)
{
    // Random titles of a small alphabet with capitals, a combining accent and an
    // emoji, so that every path (skipped by the summary, one unit per character,
    // characters of two units) is taken; the result must be what a plain
    // character-by-character search gives.
    const QStringList pieces{"a", "b", "C", "d", "é", "e\u0301", "😀", " ", "ab", "Ab"};
    QRandomGenerator random(11);
    std::vector<QString> titles;
    for (int i = 0; i < 300; ++i) {
        QString t;
        const int length = int(random.bounded(12));
        for (int j = 0; j < length; ++j)
            t += pieces.at(int(random.bounded(pieces.size())));
        titles.push_back(t);
    }
    const QStringList queries{"ab", "b a", "c😀", "😀", "é", "dd", "a b c", "zz", "AB", "e\u0301"};
    for (const QString &q : queries) {
        std::vector<Match> walked;
        std::vector<Match> plain;
        for (size_t i = 0; i < titles.size(); ++i) {
            if (auto f = fuzzy(q, folded(titles[i])))
                walked.push_back({i, f->ranges});
            const qsizetype at = folded(titles[i]).indexOf(folded(q));
            if (at >= 0)
                plain.push_back({i, {{at, at + q.size()}}});
        }
        std::vector<Match> found = look(q, "fuzzy", titles);
        std::sort(found.begin(), found.end(), [](const Match &a, const Match &b) { return a.index < b.index; });
        EXPECT_EQ(found, walked) << q.toStdString();
        EXPECT_EQ(look(q, "exact", titles), plain) << q.toStdString();
    }
}

// The repair of leftover "**" against a plain transcription of its rules: restart
// from the beginning after each repair, exactly as the rules are written. The fast
// repair must agree with it on every input.
#include "surface/InlineMarkdown.h"
#include "surface/MarkdownView.h"

#include <gtest/gtest.h>

#include <QRandomGenerator>

using namespace zuv;

namespace {

struct Flat {
    QString text;
    std::vector<Intent> intents;
    std::vector<QString> links;

    explicit Flat(const InlineText &in)
    {
        for (const auto &run : in.runs) {
            text += run.text;
            intents.insert(intents.end(), size_t(run.text.size()), run.intents);
            links.insert(links.end(), size_t(run.text.size()), run.link);
        }
    }
    bool codeIn(qsizetype from, qsizetype length) const
    {
        for (qsizetype k = from; k < from + length; ++k)
            if (has(intents[size_t(k)], Intent::code))
                return true;
        return false;
    }
    void remove(qsizetype at, qsizetype length)
    {
        text.remove(at, length);
        intents.erase(intents.begin() + at, intents.begin() + at + length);
        links.erase(links.begin() + at, links.begin() + at + length);
    }
    InlineText runs() const
    {
        InlineText out;
        for (qsizetype i = 0; i < text.size(); ++i)
            out.append(text.mid(i, 1), intents[size_t(i)], links[size_t(i)]);
        return out;
    }
};

// The rules, step by step, with no care for speed.
void reference(InlineText &in)
{
    const QString stars = QStringLiteral("**");
    Flat f(in);
    bool changed = false;
    qsizetype cursor = 0;
    for (;;) {
        const qsizetype opener = f.text.indexOf(stars, cursor);
        if (opener < 0)
            break;
        const qsizetype openerEnd = opener + 2;
        if (f.codeIn(opener, 2) || openerEnd >= f.text.size() || f.text[openerEnd].isSpace()) {
            cursor = openerEnd;
            continue;
        }
        qsizetype closer = -1;
        for (qsizetype from = openerEnd;;) {
            const qsizetype candidate = f.text.indexOf(stars, from);
            if (candidate < 0)
                break;
            if (candidate > openerEnd && !f.codeIn(candidate, 2) && !f.text[candidate - 1].isSpace()) {
                closer = candidate;
                break;
            }
            from = candidate + 2;
        }
        if (closer < 0 || QStringView(f.text).mid(openerEnd, closer - openerEnd).contains(QLatin1Char('\n'))) {
            cursor = openerEnd;
            continue;
        }
        for (qsizetype k = openerEnd; k < closer; ++k)
            f.intents[size_t(k)] = f.intents[size_t(k)] | Intent::strong;
        f.remove(closer, 2);
        f.remove(opener, 2);
        changed = true;
        cursor = 0;
    }
    if (changed)
        in = f.runs();
}

InlineText randomText(QRandomGenerator &random, int longest)
{
    static const QString alphabet = QStringLiteral("***** ab\"\n.");
    InlineText out;
    const int runs = int(random.bounded(1, 5));
    for (int r = 0; r < runs; ++r) {
        QString text;
        const int length = int(random.bounded(1, longest));
        for (int i = 0; i < length; ++i)
            text += alphabet[qsizetype(random.bounded(int(alphabet.size())))];
        const quint32 roll = random.bounded(10);
        const Intent intent = roll == 0 ? Intent::code : roll == 1 ? Intent::emphasized : Intent::none;
        out.append(text, intent, random.bounded(6) == 0 ? QStringLiteral("https://x.org") : QString());
    }
    return out;
}

} // namespace

TEST(BoldLeftovers, agreesWithTheRulesAsWrittenOnEveryInput)
{
    QRandomGenerator random(20261122);
    for (int round = 0; round < 120000; ++round) {
        const InlineText input = randomText(random, round % 4 == 0 ? 40 : 12);
        InlineText expected = input;
        reference(expected);
        InlineText actual = input;
        InlineMarkdown::boldLeftovers(actual);
        ASSERT_EQ(actual.plain(), expected.plain()) << "input: " << input.plain().toStdString();
        ASSERT_EQ(actual, expected) << "input: " << input.plain().toStdString();
    }
}

TEST(BoldLeftovers, theCasesTheRulesNameAndLongLines)
{
    auto repaired = [](const QString &text) {
        InlineText t;
        t.append(text, Intent::none, {});
        InlineMarkdown::boldLeftovers(t);
        return t;
    };
    InlineText quoted = repaired(QStringLiteral("**\"x\"**y"));
    ASSERT_EQ(quoted.runs.size(), 2u);
    EXPECT_EQ(quoted.runs[0], (InlineRun{"\"x\"", Intent::strong, {}}));
    EXPECT_EQ(repaired("****").plain(), "****") << "no empty bold";
    EXPECT_EQ(repaired("**a\nb**").plain(), "**a\nb**") << "never across a line";
    EXPECT_EQ(repaired("** a**").plain(), "** a**");

    // Long hostile lines: openers with no closer, and openers before quoted pairs.
    QString openers;
    for (int i = 0; i < 25000; ++i)
        openers += QStringLiteral("**a ");
    EXPECT_EQ(repaired(openers).plain(), openers);
    QString mixed;
    for (int i = 0; i < 600; ++i)
        mixed += QStringLiteral("**a ");
    for (int i = 0; i < 600; ++i)
        mixed += QStringLiteral("\"**b**\" ");
    InlineText expected;
    expected.append(mixed, Intent::none, {});
    reference(expected);
    EXPECT_EQ(repaired(mixed), expected);
}

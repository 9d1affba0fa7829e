#include "surface/InlineMarkdown.h"

#include <algorithm>
#include <array>
#include <vector>

namespace zuv {

namespace {

bool isAsciiPunct(QChar c)
{
    const ushort u = c.unicode();
    return (u >= 33 && u <= 47) || (u >= 58 && u <= 64) || (u >= 91 && u <= 96) || (u >= 123 && u <= 126);
}

bool isPunct(QChar c) { return isAsciiPunct(c) || c.isPunct(); }

// The start and end of the text count as white space for flanking.
bool isWhite(QChar c) { return c.isNull() || c.isSpace(); }

// Characters that may start markup; everything else is plain text. A table,
// since every character of every reply passes through here.
constexpr std::array<bool, 128> specialTable = [] {
    std::array<bool, 128> table{};
    for (char c : {'\\', '`', '*', '_', '~', '[', '!', ']', '<', '&'})
        table[size_t(c)] = true;
    return table;
}();

// The first special character at or after `from`, or the size.
qsizetype nextSpecial(const QString &s, qsizetype from)
{
    const char16_t *data = reinterpret_cast<const char16_t *>(s.constData());
    const qsizetype n = s.size();
    while (from < n && (data[from] >= 128 || !specialTable[data[from]]))
        ++from;
    return from;
}

// A piece of the rendered output: literal text, or a run of delimiter characters
// that emphasis may consume from either side.
struct Piece {
    // The text: a slice [from, to) of the source when from >= 0, else `text`.
    qsizetype from = -1;
    qsizetype to = -1;
    QString text;
    Intent fixed = Intent::none; // code spans
    int link = -1;               // index into the link table
    bool bracket = false;        // an open bracket waiting for its "]"
    // Delimiter runs of *, _ or ~:
    QChar delim;
    int count = 0;
    int original = 0;
    bool canOpen = false;
    bool canClose = false;
    bool active = false;
    int prev = -1; // neighbours in the list of active delimiters
    int next = -1;
    int closes[3] = {0, 0, 0}; // emphasized, strong, strikethrough ended here
    int opensCount[3] = {0, 0, 0};
};

int slot(Intent i) { return i == Intent::emphasized ? 0 : i == Intent::strong ? 1 : 2; }

struct Bracket {
    int piece;    // index of the "[" piece
    bool image;
};

// The parser's lists, kept between calls so that a short line costs no allocation.
struct Lists {
    std::vector<Piece> pieces;
    std::vector<QString> links;
    std::vector<struct Bracket> brackets;
};

class Parser {
public:
    explicit Parser(const QString &text, Lists &lists)
        : s(text), pieces(lists.pieces), links(lists.links), brackets(lists.brackets)
    {
        pieces.clear();
        links.clear();
        brackets.clear();
        noCloserFrom.fill(-1);
    }

    InlineText run()
    {
        scan();
        processEmphasis(-1);
        return output();
    }

private:
    const QString &s;
    std::vector<Piece> &pieces;
    std::vector<QString> &links;
    std::vector<Bracket> &brackets;
    int lastDelim = -1; // tail of the active-delimiter list
    static constexpr int maxParenDepth = 8;
    // Brackets at positions below this in `brackets` can no longer make links.
    size_t inactiveBelow = 0;
    // Code spans: a backtick run of this length found no closer from this index on.
    std::array<qsizetype, 64> noCloserFrom;
    // Where the next of a character is, cached for searches that only move forward.
    struct NextOf {
        qsizetype from = -1;
        qsizetype at = -1;
    };
    std::array<NextOf, 4> nextOf; // '>' ')' '"' '\''

    qsizetype find(int which, QChar c, qsizetype from)
    {
        NextOf &cache = nextOf[size_t(which)];
        if (cache.from >= 0 && from >= cache.from && (cache.at < 0 || cache.at >= from))
            return cache.at;
        cache.from = from;
        cache.at = s.indexOf(c, from);
        return cache.at;
    }

    QChar at(qsizetype i) const { return i >= 0 && i < s.size() ? s[i] : QChar(); }

    static bool plain(const Piece &p)
    {
        return p.delim.isNull() && p.fixed == Intent::none && p.link < 0 && !p.bracket;
    }

    void own(Piece &p) const
    {
        if (p.from >= 0) {
            p.text = s.mid(p.from, p.to - p.from);
            p.from = p.to = -1;
        }
    }

    // Source text [a, b) as plain text: most text stays a slice of the source, and
    // no string is made for it until the output needs one.
    void slice(qsizetype a, qsizetype b)
    {
        if (a >= b)
            return;
        if (!pieces.empty() && plain(pieces.back())) {
            Piece &last = pieces.back();
            if (last.from >= 0 && last.to == a) {
                last.to = b;
                return;
            }
            if (last.from < 0 && last.text.isEmpty()) {
                last.from = a;
                last.to = b;
                return;
            }
            own(last);
            last.text += QStringView(s).mid(a, b - a);
            return;
        }
        Piece p;
        p.from = a;
        p.to = b;
        pieces.push_back(std::move(p));
    }

    // Text that is not in the source as it stands (an escape, an entity).
    void text(QStringView t)
    {
        if (pieces.empty() || !plain(pieces.back()))
            pieces.emplace_back();
        Piece &last = pieces.back();
        own(last);
        last.text += t;
    }

    void scan()
    {
        for (qsizetype i = 0; i < s.size();) {
            // Plain stretches go over in one piece.
            const qsizetype plainEnd = nextSpecial(s, i);
            if (plainEnd > i) {
                slice(i, plainEnd);
                i = plainEnd;
                if (i >= s.size())
                    break;
            }
            const QChar c = s[i];
            if (c == QLatin1Char('\\')) {
                const QChar n = at(i + 1);
                if (!n.isNull() && isAsciiPunct(n)) {
                    slice(i + 1, i + 2);
                    i += 2;
                } else if (n == QLatin1Char('\n')) {
                    slice(i + 1, i + 2); // a hard break, kept as the line end it is
                    i += 2;
                } else {
                    slice(i, i + 1);
                    ++i;
                }
            } else if (c == QLatin1Char('`')) {
                QString code;
                const qsizetype end = codeSpan(i, code);
                if (end < 0) {
                    qsizetype n = i;
                    while (n < s.size() && s[n] == QLatin1Char('`'))
                        ++n;
                    slice(i, n);
                    i = n;
                } else {
                    Piece p;
                    p.text = code;
                    p.fixed = Intent::code;
                    pieces.push_back(std::move(p));
                    i = end;
                }
            } else if (c == QLatin1Char('*') || c == QLatin1Char('_') || c == QLatin1Char('~')) {
                i = delimiterRun(i);
            } else if (c == QLatin1Char('[') || (c == QLatin1Char('!') && at(i + 1) == QLatin1Char('['))) {
                const bool image = c == QLatin1Char('!');
                Piece p;
                p.from = i;
                p.to = i + (image ? 2 : 1);
                p.bracket = true;
                pieces.push_back(std::move(p));
                brackets.push_back({int(pieces.size()) - 1, image});
                i += image ? 2 : 1;
            } else if (c == QLatin1Char(']')) {
                i = closeBracket(i);
            } else if (c == QLatin1Char('<')) {
                const qsizetype end = autolink(i);
                if (end < 0) {
                    slice(i, i + 1);
                    ++i;
                } else {
                    i = end;
                }
            } else if (c == QLatin1Char('&')) {
                qsizetype end = i;
                const QString decoded = entity(i, end);
                if (decoded.isNull()) {
                    slice(i, i + 1);
                    ++i;
                } else {
                    text(decoded);
                    i = end;
                }
            } else {
                slice(i, i + 1); // "!" without "["
                ++i;
            }
        }
    }

    // A code span opening at i: returns the index after it, or -1 when unmatched.
    qsizetype codeSpan(qsizetype i, QString &code)
    {
        qsizetype n = i;
        while (n < s.size() && s[n] == QLatin1Char('`'))
            ++n;
        const qsizetype ticks = n - i;
        // A run of this length that found no closer before will find none from
        // further on either: without this, "`a" repeated is quadratic.
        qsizetype &known = noCloserFrom[size_t(std::min<qsizetype>(ticks, qsizetype(noCloserFrom.size()) - 1))];
        if (ticks < qsizetype(noCloserFrom.size()) - 1 && known >= 0 && n >= known)
            return -1;
        for (qsizetype j = n; j < s.size();) {
            if (s[j] != QLatin1Char('`')) {
                ++j;
                continue;
            }
            qsizetype k = j;
            while (k < s.size() && s[k] == QLatin1Char('`'))
                ++k;
            if (k - j == ticks) {
                code = s.mid(n, j - n);
                code.replace(QLatin1Char('\n'), QLatin1Char(' '));
                if (code.size() >= 2 && code.startsWith(QLatin1Char(' ')) && code.endsWith(QLatin1Char(' '))
                    && !code.trimmed().isEmpty())
                    code = code.mid(1, code.size() - 2);
                return k;
            }
            j = k;
        }
        if (ticks < qsizetype(noCloserFrom.size()) - 1)
            known = n;
        return -1;
    }

    qsizetype delimiterRun(qsizetype i)
    {
        const QChar c = s[i];
        qsizetype n = i;
        while (n < s.size() && s[n] == c)
            ++n;
        const int count = int(n - i);
        const QChar before = at(i - 1);
        const QChar after = at(n);
        const bool left = !isWhite(after) && (!isPunct(after) || isWhite(before) || isPunct(before));
        const bool right = !isWhite(before) && (!isPunct(before) || isWhite(after) || isPunct(after));
        Piece p;
        p.from = i;
        p.to = n;
        p.delim = c;
        p.count = p.original = count;
        if (c == QLatin1Char('_')) {
            p.canOpen = left && (!right || isPunct(before));
            p.canClose = right && (!left || isPunct(after));
        } else {
            p.canOpen = left;
            p.canClose = right;
        }
        if (c == QLatin1Char('~') && count > 2)
            p.canOpen = p.canClose = false; // only ~ and ~~ strike through
        p.active = p.canOpen || p.canClose;
        pieces.push_back(std::move(p));
        if (pieces.back().active) {
            const int index = int(pieces.size()) - 1;
            pieces.back().prev = lastDelim;
            if (lastDelim >= 0)
                pieces[lastDelim].next = index;
            lastDelim = index;
        }
        return n;
    }

    void unlink(int d)
    {
        Piece &p = pieces[d];
        if (!p.active)
            return;
        if (p.prev >= 0)
            pieces[p.prev].next = p.next;
        if (p.next >= 0)
            pieces[p.next].prev = p.prev;
        if (lastDelim == d)
            lastDelim = p.prev;
        p.active = false;
        p.prev = p.next = -1;
    }

    // The CommonMark "process emphasis" procedure over delimiters after `bottom`.
    void processEmphasis(int bottom)
    {
        // First active delimiter after `bottom`.
        int first = lastDelim;
        while (first >= 0 && pieces[first].prev > bottom)
            first = pieces[first].prev;
        if (first >= 0 && first <= bottom)
            return;
        // openers_bottom per (character, closer can open, length % 3).
        std::array<int, 18> openersBottom;
        openersBottom.fill(bottom);
        auto key = [](const Piece &closer) {
            const int c = closer.delim == QLatin1Char('*') ? 0 : closer.delim == QLatin1Char('_') ? 1 : 2;
            return c * 6 + (closer.canOpen ? 3 : 0) + closer.original % 3;
        };
        for (int closer = first; closer >= 0;) {
            Piece &cl = pieces[closer];
            if (!cl.canClose) {
                closer = cl.next;
                continue;
            }
            bool found = false;
            int opener = cl.prev;
            const int floor = openersBottom[size_t(key(cl))];
            for (; opener > floor && opener > bottom; opener = pieces[opener].prev) {
                const Piece &op = pieces[opener];
                if (op.delim != cl.delim || !op.canOpen)
                    continue;
                if (cl.delim == QLatin1Char('~')) {
                    if (op.count != cl.count)
                        continue;
                } else if ((op.canClose || cl.canOpen) && (op.original + cl.original) % 3 == 0
                           && !(op.original % 3 == 0 && cl.original % 3 == 0)) {
                    continue;
                }
                found = true;
                break;
            }
            if (!found) {
                openersBottom[size_t(key(cl))] = cl.prev;
                const int next = cl.next;
                if (!cl.canOpen)
                    unlink(closer);
                closer = next;
                continue;
            }
            Piece &op = pieces[opener];
            Intent intent;
            int use;
            if (cl.delim == QLatin1Char('~')) {
                use = cl.count;
                intent = Intent::strikethrough;
            } else {
                use = (op.count >= 2 && cl.count >= 2) ? 2 : 1;
                intent = use == 2 ? Intent::strong : Intent::emphasized;
            }
            op.count -= use;
            cl.count -= use;
            ++op.opensCount[slot(intent)];
            ++cl.closes[slot(intent)];
            // Delimiters between them can no longer match anything.
            for (int between = op.next; between >= 0 && between != closer;) {
                const int next = pieces[between].next;
                unlink(between);
                between = next;
            }
            if (op.count == 0)
                unlink(opener);
            if (cl.count == 0) {
                const int next = cl.next;
                unlink(closer);
                closer = next;
            }
        }
        // What is left after `bottom` is literal from now on.
        for (int d = lastDelim; d > bottom && d >= 0;) {
            const int prev = pieces[d].prev;
            unlink(d);
            d = prev;
        }
    }

    // "]" at i: a link when an open bracket waits and "(destination)" follows.
    qsizetype closeBracket(qsizetype i)
    {
        if (brackets.empty()) {
            slice(i, i + 1);
            return i + 1;
        }
        const Bracket bracket = brackets.back();
        brackets.pop_back();
        pieces[bracket.piece].bracket = false;
        const bool active = brackets.size() >= inactiveBelow;
        inactiveBelow = std::min(inactiveBelow, brackets.size()); // the freed place takes live brackets again
        qsizetype end = i;
        QString destination;
        if (!active || !inlineDestination(i + 1, destination, end)) {
            pieces[bracket.piece].fixed = Intent::none;
            slice(i, i + 1);
            return i + 1;
        }
        processEmphasis(bracket.piece);
        const int linkIndex = int(links.size());
        links.push_back(destination);
        pieces[bracket.piece].from = pieces[bracket.piece].to = -1;
        pieces[bracket.piece].text.clear();
        for (size_t p = size_t(bracket.piece) + 1; p < pieces.size(); ++p)
            if (pieces[p].link < 0)
                pieces[p].link = linkIndex;
        if (!bracket.image)
            inactiveBelow = brackets.size(); // no links inside links: every bracket still open is dead
        // Following text must not merge into the link's last piece.
        Piece boundary;
        pieces.push_back(std::move(boundary));
        return end;
    }

    // "(" destination [title] ")" starting at i.
    bool inlineDestination(qsizetype i, QString &destination, qsizetype &end)
    {
        if (at(i) != QLatin1Char('('))
            return false;
        qsizetype j = i + 1;
        auto skipSpace = [&] {
            while (j < s.size() && s[j].isSpace())
                ++j;
        };
        skipSpace();
        if (at(j) == QLatin1Char('<')) {
            qsizetype close = j + 1;
            while (close < s.size() && s[close] != QLatin1Char('>') && s[close] != QLatin1Char('\n')
                   && s[close] != QLatin1Char('<'))
                ++close;
            if (close >= s.size() || s[close] != QLatin1Char('>'))
                return false;
            destination = s.mid(j + 1, close - j - 1);
            j = close + 1;
        } else {
            int depth = 0;
            const qsizetype start = j;
            const char16_t *data = reinterpret_cast<const char16_t *>(s.constData());
            const qsizetype n = s.size();
            for (; j < n; ++j) {
                const char16_t c = data[j];
                if (c == u' ' || c == u'\n' || c == u'\t' || (c >= 128 && QChar(c).isSpace()) || c == u'\r'
                    || c == u'\f' || c == u'\v')
                    break;
                if (c == u'\\' && j + 1 < n && isAsciiPunct(QChar(data[j + 1]))) {
                    ++j;
                } else if (c == u'(') {
                    // CommonMark lets an implementation limit the nesting (three levels
                    // at least); eight keeps "[a](b" repeated cheap, as each failed
                    // destination reads on through the parentheses of those after it.
                    if (++depth > maxParenDepth)
                        return false;
                } else if (c == u')') {
                    if (depth == 0)
                        break;
                    --depth;
                }
            }
            if (depth != 0)
                return false;
            destination = s.mid(start, j - start);
        }
        skipSpace();
        const QChar quote = at(j);
        if (quote == QLatin1Char('"') || quote == QLatin1Char('\'') || quote == QLatin1Char('(')) {
            const QChar closing = quote == QLatin1Char('(') ? QLatin1Char(')') : quote;
            const int which = closing == QLatin1Char(')') ? 1 : closing == QLatin1Char('"') ? 2 : 3;
            const qsizetype close = find(which, closing, j + 1);
            if (close < 0)
                return false;
            j = close + 1;
            skipSpace();
        }
        if (at(j) != QLatin1Char(')'))
            return false;
        end = j + 1;
        return true;
    }

    // <scheme:…> or <user@host>.
    qsizetype autolink(qsizetype i)
    {
        // Stops at what no autolink holds, so "<a" repeated stays linear.
        qsizetype close = i + 1;
        while (close < s.size() && s[close] != QLatin1Char('>') && s[close] != QLatin1Char(' ')
               && s[close] != QLatin1Char('<') && s[close] != QLatin1Char('\n'))
            ++close;
        if (close >= s.size() || s[close] != QLatin1Char('>'))
            return -1;
        const QString inner = s.mid(i + 1, close - i - 1);
        if (inner.isEmpty() || inner.contains(QLatin1Char(' ')) || inner.contains(QLatin1Char('<'))
            || inner.contains(QLatin1Char('\n')))
            return -1;
        const qsizetype colon = inner.indexOf(QLatin1Char(':'));
        const bool uri = colon >= 2 && colon <= 32 && inner[0].isLetter();
        const bool mail = !uri && inner.contains(QLatin1Char('@')) && !inner.contains(QLatin1Char('/'));
        if (!uri && !mail)
            return -1;
        Piece p;
        p.from = i + 1;
        p.to = close;
        p.link = int(links.size());
        links.push_back(mail ? QStringLiteral("mailto:") + inner : inner);
        pieces.push_back(std::move(p));
        return close + 1;
    }

    // &name; or &#…; at i; a null string when it is none.
    QString entity(qsizetype i, qsizetype &end) const
    {
        qsizetype semicolon = i + 1;
        while (semicolon < s.size() && semicolon - i <= 10 && s[semicolon] != QLatin1Char(';'))
            ++semicolon;
        if (semicolon >= s.size() || semicolon - i > 10 || s[semicolon] != QLatin1Char(';'))
            return {};
        const QString name = s.mid(i + 1, semicolon - i - 1);
        end = semicolon + 1;
        if (name.startsWith(QLatin1Char('#'))) {
            bool ok = false;
            const uint code = name.size() > 1 && (name[1] == QLatin1Char('x') || name[1] == QLatin1Char('X'))
                ? name.mid(2).toUInt(&ok, 16)
                : name.mid(1).toUInt(&ok, 10);
            if (!ok || code == 0 || code > 0x10FFFF)
                return {};
            const char32_t c = code;
            return QString::fromUcs4(&c, 1);
        }
        static const std::pair<const char *, const char *> named[] = {
            {"amp", "&"}, {"lt", "<"}, {"gt", ">"}, {"quot", "\""}, {"apos", "'"}, {"nbsp", "\u00a0"},
            {"copy", "\u00a9"}, {"mdash", "\u2014"}, {"ndash", "\u2013"}, {"hellip", "\u2026"}};
        for (const auto &[key, value] : named)
            if (name == QLatin1String(key))
                return QString::fromUtf8(value);
        return {};
    }

    InlineText output() const
    {
        InlineText out;
        out.runs.reserve(pieces.size());
        int open[3] = {0, 0, 0};
        auto intents = [&](const Piece &p) {
            Intent i = p.fixed;
            if (open[0] > 0)
                i = i | Intent::emphasized;
            if (open[1] > 0)
                i = i | Intent::strong;
            if (open[2] > 0)
                i = i | Intent::strikethrough;
            return i;
        };
        // The run being gathered: a slice of the source while its pieces follow each
        // other there, its own string once they do not.
        bool gathering = false;
        Intent runIntents = Intent::none;
        int runLink = -1;
        qsizetype runFrom = -1;
        qsizetype runTo = -1;
        QString runText;
        auto sameLink = [&](int a, int b) { return a == b || (a >= 0 && b >= 0 && links[size_t(a)] == links[size_t(b)]); };
        auto flush = [&] {
            if (!gathering)
                return;
            QString t = runFrom >= 0 ? s.mid(runFrom, runTo - runFrom) : std::move(runText);
            runText = QString();
            gathering = false;
            if (t.isEmpty())
                return;
            out.runs.push_back({std::move(t), runIntents, runLink >= 0 ? links[size_t(runLink)] : QString()});
        };
        auto put = [&](Intent in, int link, qsizetype a, qsizetype b, const QString &owned) {
            if (a >= 0 ? a >= b : owned.isEmpty())
                return;
            if (gathering && (in != runIntents || !sameLink(link, runLink)))
                flush();
            if (!gathering) {
                gathering = true;
                runIntents = in;
                runLink = link;
                runFrom = a;
                runTo = b;
                if (a < 0)
                    runText = owned;
                return;
            }
            if (runFrom >= 0 && a >= 0 && runTo == a) {
                runTo = b;
                return;
            }
            if (runFrom >= 0) {
                runText = s.mid(runFrom, runTo - runFrom);
                runFrom = runTo = -1;
            }
            if (a >= 0)
                runText += QStringView(s).mid(a, b - a);
            else
                runText += owned;
        };
        for (const Piece &p : pieces) {
            if (p.delim.isNull()) {
                put(intents(p), p.link, p.from, p.to, p.text);
                continue;
            }
            for (int k = 0; k < 3; ++k)
                open[k] -= p.closes[k];
            if (p.count > 0) {
                // What is left of a run is the same character throughout; take it from
                // the side that touches the text it stands beside.
                const bool closed = p.closes[0] + p.closes[1] + p.closes[2] > 0;
                const qsizetype a = closed ? p.to - p.count : p.from;
                put(intents(p), p.link, a, a + p.count, QString());
            }
            for (int k = 0; k < 3; ++k)
                open[k] += p.opensCount[k];
        }
        flush();
        return out;
    }
};

// The repair of strong emphasis over one line of rendered text, in the text's own
// indices. Removed characters are skipped through a union-find "next live" table,
// so a removal costs nothing to the text; strong is added through a difference
// table. A search for a closer leaves a jump behind at every place it passed, so
// no later search walks the same stretch again: the work stays linear in the line.
class BoldRepair {
public:
    BoldRepair(const QString &text, const std::vector<Intent> &intents, std::vector<int> &next, std::vector<int> &strong,
               std::vector<int> &jump)
        : t(text), intents(intents), next(next), strong(strong), jump(jump)
    {
    }

    // Repairs [from, to), which holds no line feed.
    void line(qsizetype from, qsizetype to)
    {
        end = int(to);
        int cursor = int(from);
        for (;;) {
            const int opener = occurrence(cursor);
            if (opener < 0)
                return;
            const int second = live(opener + 1);
            const int openerEnd = live(second + 1);
            if (code(opener) || code(second) || openerEnd >= end || t[openerEnd].isSpace()) {
                cursor = openerEnd;
                continue;
            }
            const int closer = closerAfter(openerEnd);
            // A search that finds nothing means no later opener of this line finds
            // anything either: each would search a tail of the same chain.
            if (closer < 0)
                return;
            ++strong[size_t(openerEnd)];
            --strong[size_t(closer)];
            remove(live(closer + 1));
            remove(closer);
            remove(second);
            remove(opener);
            cursor = openerEnd;
        }
    }

private:
    const QString &t;
    const std::vector<Intent> &intents;
    std::vector<int> &next; // union-find: the first live index at or after i
    std::vector<int> &strong;
    std::vector<int> &jump; // from a search position: where the search goes on; -1 none
    int end = 0;
    std::vector<int> passed;

    bool code(int i) const { return has(intents[size_t(i)], Intent::code); }

    int live(int i)
    {
        int root = i;
        while (root < end && next[size_t(root)] != root)
            root = next[size_t(root)];
        while (i < root) {
            const int up = next[size_t(i)];
            next[size_t(i)] = root;
            i = up;
        }
        return std::min(root, end);
    }

    void remove(int i) { next[size_t(i)] = i + 1; }
    bool removed(int i) const { return next[size_t(i)] != i; }

    // The first "**" of live characters starting at or after i; -1 when none.
    int occurrence(int i)
    {
        for (i = live(i); i < end;) {
            const int following = live(i + 1);
            if (t[i] == QLatin1Char('*') && following < end && t[following] == QLatin1Char('*'))
                return i;
            i = following;
        }
        return -1;
    }

    int followJumps(int from)
    {
        int target = from;
        while (jump[size_t(target)] >= 0)
            target = jump[size_t(target)];
        while (jump[size_t(from)] >= 0 && jump[size_t(from)] != target) {
            const int up = jump[size_t(from)];
            jump[size_t(from)] = target;
            from = up;
        }
        return live(target);
    }

    // The first "**" after the opener's end that may close it: not at the opener's
    // end itself (no empty bold), outside code, and not behind white space.
    int closerAfter(int openerEnd)
    {
        passed.clear();
        int from = openerEnd;
        for (bool first = true;; first = false) {
            if (!first && from < end) {
                passed.push_back(from);
                from = followJumps(from);
            }
            const int candidate = from < end ? occurrence(from) : -1;
            if (candidate < 0) {
                for (int p : passed)
                    jump[size_t(p)] = end; // nothing beyond: a later search ends at once
                return -1;
            }
            const int second = live(candidate + 1);
            // A removed character just behind the candidate belonged to an accepted
            // closer, whose own predecessor was not white space.
            const bool afterBlank = !removed(candidate - 1) && t[candidate - 1].isSpace();
            if (candidate != openerEnd && !code(candidate) && !code(second) && !afterBlank) {
                for (int p : passed)
                    if (p < candidate)
                        jump[size_t(p)] = candidate;
                return candidate;
            }
            from = live(second + 1);
        }
    }
};

} // namespace

InlineText InlineMarkdown::render(const QString &text)
{
    // Most lines hold no markup at all.
    if (nextSpecial(text, 0) == text.size()) {
        InlineText out;
        out.append(text, Intent::none, QString());
        return out;
    }
    static thread_local Lists lists;
    return Parser(text, lists).run();
}

void InlineMarkdown::boldLeftovers(InlineText &in)
{
    bool anyStar = false;
    for (const auto &run : in.runs)
        anyStar = anyStar || run.text.contains(QLatin1Char('*'));
    if (!anyStar)
        return;
    QString text;
    for (const auto &run : in.runs)
        text += run.text;
    if (!text.contains(QLatin1String("**")))
        return;
    const size_t n = size_t(text.size());
    // Scratch tables kept between calls: a reply repairs many short lines.
    static thread_local struct {
        std::vector<Intent> intents;
        std::vector<int> runOf, next, strong, jump;
    } scratch;
    auto &intents = scratch.intents;
    auto &runOf = scratch.runOf;
    intents.clear();
    runOf.clear();
    for (size_t r = 0; r < in.runs.size(); ++r) {
        intents.insert(intents.end(), size_t(in.runs[r].text.size()), in.runs[r].intents);
        runOf.insert(runOf.end(), size_t(in.runs[r].text.size()), int(r));
    }
    auto &next = scratch.next;
    next.resize(n + 1);
    for (size_t i = 0; i <= n; ++i)
        next[i] = int(i);
    auto &strong = scratch.strong;
    strong.assign(n + 1, 0);
    auto &jump = scratch.jump;
    jump.assign(n + 1, -1);
    BoldRepair repair(text, intents, next, strong, jump);
    // A bold span never crosses a line, so each line is repaired on its own.
    bool changed = false;
    for (qsizetype from = 0; from <= text.size();) {
        qsizetype to = text.indexOf(QLatin1Char('\n'), from);
        if (to < 0)
            to = text.size();
        if (QStringView(text).mid(from, to - from).contains(QLatin1String("**"))) {
            repair.line(from, to);
            changed = true;
        }
        from = to + 1;
    }
    if (!changed)
        return;
    InlineText out;
    out.runs.reserve(in.runs.size() + 2);
    int depth = 0;
    Intent current = Intent::none;
    int currentRun = -1;
    QString piece;
    qsizetype stretch = -1; // start of the live characters not yet copied into `piece`
    auto copy = [&](qsizetype upTo) {
        if (stretch >= 0 && upTo > stretch)
            piece += QStringView(text).mid(stretch, upTo - stretch);
        stretch = -1;
    };
    auto flush = [&](qsizetype upTo) {
        copy(upTo);
        if (!piece.isEmpty())
            out.append(piece, current, in.runs[size_t(currentRun)].link);
        piece.clear();
    };
    for (size_t i = 0; i < n; ++i) {
        depth += strong[i];
        if (next[i] != int(i)) {
            copy(qsizetype(i)); // removed
            continue;
        }
        const Intent intent = depth > 0 ? intents[i] | Intent::strong : intents[i];
        if (intent != current || runOf[i] != currentRun) {
            flush(qsizetype(i));
            current = intent;
            currentRun = runOf[i];
        }
        if (stretch < 0)
            stretch = qsizetype(i);
    }
    flush(qsizetype(n));
    in = std::move(out);
}

} // namespace zuv

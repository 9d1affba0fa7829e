#include "surface/InlineMarkdown.h"

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

// Characters that may start markup; everything else is plain text.
bool special(QChar c)
{
    switch (c.unicode()) {
    case '\\': case '`': case '*': case '_': case '~': case '[': case '!': case ']': case '<': case '&':
        return true;
    default:
        return false;
    }
}

// A piece of the rendered output: literal text, or a run of delimiter characters
// that emphasis may consume from either side.
struct Piece {
    QString text;
    Intent fixed = Intent::none; // code spans
    int link = -1;               // index into the link table
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
    bool active;
};

class Parser {
public:
    explicit Parser(const QString &text) : s(text) { pieces.reserve(16); }

    InlineText run()
    {
        scan();
        processEmphasis(-1);
        return output();
    }

private:
    const QString &s;
    std::vector<Piece> pieces;
    std::vector<QString> links;
    std::vector<Bracket> brackets;
    int lastDelim = -1; // tail of the active-delimiter list

    QChar at(qsizetype i) const { return i >= 0 && i < s.size() ? s[i] : QChar(); }

    void text(QString t)
    {
        if (!pieces.empty() && pieces.back().delim.isNull() && pieces.back().fixed == Intent::none
            && pieces.back().link < 0 && !isBracket(int(pieces.size()) - 1)) {
            pieces.back().text += t;
            return;
        }
        Piece p;
        p.text = std::move(t);
        pieces.push_back(std::move(p));
    }

    bool isBracket(int piece) const
    {
        for (const auto &b : brackets)
            if (b.piece == piece)
                return true;
        return false;
    }

    void scan()
    {
        QString buffer;
        auto flushText = [&] {
            if (!buffer.isEmpty())
                text(std::exchange(buffer, QString()));
        };
        for (qsizetype i = 0; i < s.size();) {
            // Plain stretches go over in one piece.
            qsizetype plain = i;
            while (plain < s.size() && !special(s[plain]))
                ++plain;
            if (plain > i) {
                buffer += QStringView(s).mid(i, plain - i);
                i = plain;
                if (i >= s.size())
                    break;
            }
            const QChar c = s[i];
            if (c == QLatin1Char('\\')) {
                const QChar n = at(i + 1);
                if (!n.isNull() && isAsciiPunct(n)) {
                    buffer += n;
                    i += 2;
                } else if (n == QLatin1Char('\n')) {
                    buffer += QLatin1Char('\n'); // a hard break, kept as the line end it is
                    i += 2;
                } else {
                    buffer += c;
                    ++i;
                }
            } else if (c == QLatin1Char('`')) {
                QString code;
                const qsizetype end = codeSpan(i, code);
                if (end < 0) {
                    qsizetype n = i;
                    while (n < s.size() && s[n] == QLatin1Char('`'))
                        ++n;
                    buffer += QStringView(s).mid(i, n - i);
                    i = n;
                } else {
                    flushText();
                    Piece p;
                    p.text = code;
                    p.fixed = Intent::code;
                    pieces.push_back(std::move(p));
                    i = end;
                }
            } else if (c == QLatin1Char('*') || c == QLatin1Char('_') || c == QLatin1Char('~')) {
                flushText();
                i = delimiterRun(i);
            } else if (c == QLatin1Char('[') || (c == QLatin1Char('!') && at(i + 1) == QLatin1Char('['))) {
                flushText();
                const bool image = c == QLatin1Char('!');
                Piece p;
                p.text = image ? QStringLiteral("![") : QStringLiteral("[");
                pieces.push_back(std::move(p));
                brackets.push_back({int(pieces.size()) - 1, image, true});
                i += image ? 2 : 1;
            } else if (c == QLatin1Char(']')) {
                flushText();
                i = closeBracket(i);
            } else if (c == QLatin1Char('<')) {
                const qsizetype end = autolink(i);
                if (end < 0) {
                    buffer += c;
                    ++i;
                } else {
                    flushText();
                    i = end;
                }
            } else if (c == QLatin1Char('&')) {
                qsizetype end = i;
                const QString decoded = entity(i, end);
                if (decoded.isNull()) {
                    buffer += c;
                    ++i;
                } else {
                    buffer += decoded;
                    i = end;
                }
            } else {
                buffer += c; // "!" without "["
                ++i;
            }
        }
        flushText();
    }

    // A code span opening at i: returns the index after it, or -1 when unmatched.
    qsizetype codeSpan(qsizetype i, QString &code) const
    {
        qsizetype n = i;
        while (n < s.size() && s[n] == QLatin1Char('`'))
            ++n;
        const qsizetype ticks = n - i;
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
            text(QStringLiteral("]"));
            return i + 1;
        }
        const Bracket bracket = brackets.back();
        brackets.pop_back();
        qsizetype end = i;
        QString destination;
        if (!bracket.active || !inlineDestination(i + 1, destination, end)) {
            pieces[bracket.piece].fixed = Intent::none;
            text(QStringLiteral("]"));
            return i + 1;
        }
        processEmphasis(bracket.piece);
        const int linkIndex = int(links.size());
        links.push_back(destination);
        pieces[bracket.piece].text.clear();
        for (size_t p = size_t(bracket.piece) + 1; p < pieces.size(); ++p)
            if (pieces[p].link < 0)
                pieces[p].link = linkIndex;
        if (!bracket.image)
            for (auto &b : brackets)
                b.active = false; // no links inside links
        // Following text must not merge into the link's last piece.
        Piece boundary;
        pieces.push_back(std::move(boundary));
        return end;
    }

    // "(" destination [title] ")" starting at i.
    bool inlineDestination(qsizetype i, QString &destination, qsizetype &end) const
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
            const qsizetype close = s.indexOf(QLatin1Char('>'), j + 1);
            if (close < 0 || s.mid(j + 1, close - j - 1).contains(QLatin1Char('\n')))
                return false;
            destination = s.mid(j + 1, close - j - 1);
            j = close + 1;
        } else {
            int depth = 0;
            const qsizetype start = j;
            while (j < s.size() && !s[j].isSpace()) {
                const QChar c = s[j];
                if (c == QLatin1Char('\\') && j + 1 < s.size() && isAsciiPunct(s[j + 1])) {
                    j += 2;
                    continue;
                }
                if (c == QLatin1Char('('))
                    ++depth;
                else if (c == QLatin1Char(')')) {
                    if (depth == 0)
                        break;
                    --depth;
                }
                ++j;
            }
            if (depth != 0)
                return false;
            destination = s.mid(start, j - start);
        }
        skipSpace();
        const QChar quote = at(j);
        if (quote == QLatin1Char('"') || quote == QLatin1Char('\'') || quote == QLatin1Char('(')) {
            const QChar closing = quote == QLatin1Char('(') ? QLatin1Char(')') : quote;
            const qsizetype close = s.indexOf(closing, j + 1);
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
        const qsizetype close = s.indexOf(QLatin1Char('>'), i + 1);
        if (close < 0)
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
        p.text = inner;
        p.link = int(links.size());
        links.push_back(mail ? QStringLiteral("mailto:") + inner : inner);
        pieces.push_back(std::move(p));
        return close + 1;
    }

    // &name; or &#…; at i; a null string when it is none.
    QString entity(qsizetype i, qsizetype &end) const
    {
        const qsizetype semicolon = s.indexOf(QLatin1Char(';'), i + 1);
        if (semicolon < 0 || semicolon - i > 10)
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
        for (const Piece &p : pieces) {
            const QString link = p.link >= 0 ? links[size_t(p.link)] : QString();
            if (p.delim.isNull()) {
                out.append(p.text, intents(p), link);
                continue;
            }
            for (int k = 0; k < 3; ++k)
                open[k] -= p.closes[k];
            if (p.count > 0)
                out.append(QString(p.count, p.delim), intents(p), link);
            for (int k = 0; k < 3; ++k)
                open[k] += p.opensCount[k];
        }
        return out;
    }
};

// Character-level view of rendered text, for the repair.
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
        for (qsizetype start = 0; start < text.size();) {
            qsizetype end = start + 1;
            while (end < text.size() && intents[size_t(end)] == intents[size_t(start)]
                   && links[size_t(end)] == links[size_t(start)])
                ++end;
            out.append(text.mid(start, end - start), intents[size_t(start)], links[size_t(start)]);
            start = end;
        }
        return out;
    }
};

} // namespace

InlineText InlineMarkdown::render(const QString &text)
{
    // Most lines hold no markup at all.
    bool plain = true;
    for (QChar c : text) {
        if (special(c)) {
            plain = false;
            break;
        }
    }
    if (plain) {
        InlineText out;
        out.append(text, Intent::none, QString());
        return out;
    }
    return Parser(text).run();
}

void InlineMarkdown::boldLeftovers(InlineText &in)
{
    static const QString stars = QStringLiteral("**");
    bool anyStar = false;
    for (const auto &run : in.runs)
        anyStar = anyStar || run.text.contains(QLatin1Char('*'));
    if (!anyStar || !in.plain().contains(stars))
        return;
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

} // namespace zuv

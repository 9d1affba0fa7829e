#include "surface/MarkdownView.h"

#include "surface/InlineMarkdown.h"

#include <QCache>

namespace zuv {

namespace {

// Spaces, tabs and the other horizontal blanks; never line ends.
bool isBlank(QChar c)
{
    if (c.unicode() < 0x80)
        return c == QLatin1Char(' ') || c == QLatin1Char('\t');
    return c.category() == QChar::Separator_Space;
}

// \s of the block patterns: any white space.
bool isSpace(QChar c) { return c.isSpace(); }

QStringView trimBlanks(QStringView s)
{
    qsizetype start = 0;
    qsizetype end = s.size();
    while (start < end && isBlank(s[start]))
        ++start;
    while (end > start && isBlank(s[end - 1]))
        --end;
    return s.mid(start, end - start);
}

// After a marker: at least one white space, then the rest (group 2 of the patterns).
std::optional<QStringView> afterSpaces(QStringView s, qsizetype from)
{
    if (from >= s.size() || !isSpace(s[from]))
        return std::nullopt;
    while (from < s.size() && isSpace(s[from]))
        ++from;
    return s.mid(from);
}

// ^(#{1,6})\s+(.*)$
bool heading(QStringView t, int &level, QStringView &text)
{
    qsizetype n = 0;
    while (n < t.size() && t[n] == QLatin1Char('#'))
        ++n;
    if (n < 1 || n > 6)
        return false;
    const auto rest = afterSpaces(t, n);
    if (!rest)
        return false;
    level = int(n);
    text = *rest;
    return true;
}

// ^([-*+•])\s+(.*)$
bool bullet(QStringView t, QStringView &text)
{
    if (t.isEmpty())
        return false;
    const QChar c = t[0];
    if (c != QLatin1Char('-') && c != QLatin1Char('*') && c != QLatin1Char('+') && c != QChar(0x2022))
        return false;
    const auto rest = afterSpaces(t, 1);
    if (!rest)
        return false;
    text = *rest;
    return true;
}

// ^(\d{1,3}[.)])\s+(.*)$
bool ordered(QStringView t, QStringView &marker, QStringView &text)
{
    qsizetype n = 0;
    while (n < t.size() && n < 4 && t[n].isDigit())
        ++n;
    if (n < 1 || n > 3 || n >= t.size() || (t[n] != QLatin1Char('.') && t[n] != QLatin1Char(')')))
        return false;
    const auto rest = afterSpaces(t, n + 1);
    if (!rest)
        return false;
    marker = t.left(n + 1);
    text = *rest;
    return true;
}

int leadingSpaces(QStringView raw)
{
    int n = 0;
    while (n < raw.size() && raw[n] == QLatin1Char(' '))
        ++n;
    return n;
}

// Lines joined by line feeds. While the lines follow each other in the source
// unchanged, the joined text is that stretch of the source, taken in one piece
// at the end: no string grows line by line.
struct Joined {
    const QString &source;
    qsizetype from = -1;
    qsizetype to = -1;
    QString text;
    bool any = false;

    explicit Joined(const QString &s) : source(s) {}

    // `offset` is where `line` stands in the source; -1 when it is not there as is.
    void add(QStringView line, qsizetype offset)
    {
        if (!any) {
            any = true;
            if (offset >= 0) {
                from = offset;
                to = offset + line.size();
            } else {
                text = line.toString();
            }
            return;
        }
        if (from >= 0 && offset == to + 1) {
            to = offset + line.size();
            return;
        }
        if (from >= 0) {
            text = source.mid(from, to - from);
            from = to = -1;
        }
        text += QLatin1Char('\n');
        text += line;
    }

    QString take()
    {
        QString out = from >= 0 ? source.mid(from, to - from) : std::move(text);
        text = QString();
        from = to = -1;
        any = false;
        return out;
    }
};

struct Builder {
    explicit Builder(const QString &source) : paragraph(source), quote(source) {}
    MarkdownView::Blocks out;
    Joined paragraph;
    std::vector<MarkdownView::Item> items;
    Joined quote; // stripped lines, so never a stretch of the source
    QStringList table;

    void flushParagraph()
    {
        if (!paragraph.any)
            return;
        MarkdownView::Block b;
        b.kind = MarkdownView::Block::Kind::paragraph;
        b.text = paragraph.take();
        out.push_back(std::move(b));
    }
    void flushList()
    {
        if (items.empty())
            return;
        MarkdownView::Block b;
        b.kind = MarkdownView::Block::Kind::bullets;
        b.items = std::move(items);
        out.push_back(std::move(b));
        items.clear();
    }
    void flushQuote()
    {
        if (!quote.any)
            return;
        MarkdownView::Block b;
        b.kind = MarkdownView::Block::Kind::quote;
        b.text = quote.take();
        out.push_back(std::move(b));
    }
    void flushTable()
    {
        if (table.isEmpty())
            return;
        MarkdownView::Block b;
        b.kind = MarkdownView::Block::Kind::table;
        b.table = MarkdownView::Table::parse(table);
        out.push_back(std::move(b));
        table.clear();
    }
    void flush()
    {
        flushParagraph();
        flushList();
        flushQuote();
        flushTable();
    }
    void add(MarkdownView::Block::Kind kind, QString text = {}, int level = 0)
    {
        MarkdownView::Block b;
        b.kind = kind;
        b.text = std::move(text);
        b.level = level;
        out.push_back(std::move(b));
    }
};

struct Parsed {
    std::shared_ptr<const MarkdownView::Blocks> blocks;
};

} // namespace

MarkdownView::Blocks MarkdownView::parse(const QString &text)
{
    Builder b(text);
    b.out.reserve(size_t(text.size() / 80 + 4));
    bool inFence = false;
    Joined fence(text);
    QString expanded;
    const QChar *base = text.constData();
    for (QStringView line : QStringTokenizer(text, QLatin1Char('\n'))) {
        QStringView raw = line;
        qsizetype offset = line.data() - base; // where the line stands in the source
        if (line.contains(QLatin1Char('\t'))) {
            expanded = line.toString().replace(QLatin1Char('\t'), QStringLiteral("    "));
            raw = expanded;
            offset = -1;
        }
        const QStringView trimmed = trimBlanks(raw);

        if (inFence) {
            if (trimmed.startsWith(QLatin1String("```"))) {
                b.add(Block::Kind::code, fence.take());
                inFence = false;
            } else {
                fence.add(raw, offset);
            }
            continue;
        }
        if (trimmed.startsWith(QLatin1String("```"))) {
            b.flush();
            inFence = true;
            continue;
        }
        if (trimmed.isEmpty()) {
            b.flush();
            continue;
        }
        if (trimmed == QLatin1String("---") || trimmed == QLatin1String("***") || trimmed == QLatin1String("___")) {
            b.flush();
            b.add(Block::Kind::rule);
            continue;
        }
        int level = 0;
        QStringView content;
        if (heading(trimmed, level, content)) {
            b.flush();
            b.add(Block::Kind::heading, content.toString(), level);
            continue;
        }
        const int indent = leadingSpaces(raw) / 2;
        QStringView marker;
        const bool unorderedItem = bullet(trimmed, content);
        if (unorderedItem || ordered(trimmed, marker, content)) {
            b.flushParagraph();
            b.flushQuote();
            b.flushTable();
            b.items.push_back({indent, unorderedItem ? QStringLiteral("•") : marker.toString(), content.toString()});
            continue;
        }
        if (trimmed.startsWith(QLatin1Char('>'))) {
            b.flushParagraph();
            b.flushList();
            b.flushTable();
            b.quote.add(trimBlanks(trimmed.mid(1)), -1);
            continue;
        }
        if (trimmed.startsWith(QLatin1Char('|'))) {
            b.flushParagraph();
            b.flushList();
            b.flushQuote();
            b.table.append(trimmed.toString());
            continue;
        }
        if (!b.items.empty() && raw.startsWith(QLatin1String("  "))) {
            b.items.back().text += QLatin1Char(' ') + trimmed.toString();
            continue;
        }
        b.flushList();
        b.flushQuote();
        b.flushTable();
        b.paragraph.add(raw, offset);
    }
    if (inFence)
        b.add(Block::Kind::code, fence.take());
    b.flush();
    return std::move(b.out);
}

std::shared_ptr<const MarkdownView::Blocks> MarkdownView::blocks(const QString &text)
{
    static QCache<QString, Parsed> cache(cacheLimit);
    if (Parsed *hit = cache.object(text))
        return hit->blocks;
    auto parsed = std::make_shared<const Blocks>(parse(text));
    cache.insert(text, new Parsed{parsed});
    return parsed;
}

int MarkdownView::Table::columns() const
{
    qsizetype n = header ? header->size() : 0;
    for (const auto &row : rows)
        n = std::max(n, row.size());
    return int(n);
}

QStringList MarkdownView::Table::cells(const QString &line)
{
    QStringView s = QStringView(line).trimmed();
    if (s.startsWith(QLatin1Char('|')))
        s = s.mid(1);
    if (s.endsWith(QLatin1Char('|')) && !s.endsWith(QLatin1String("\\|")))
        s.chop(1);
    QStringList out;
    QString cell;
    bool escaped = false;
    bool copied = false;     // the cell so far is in `cell`, not only in the source
    qsizetype start = 0;     // where the cell begins in the source
    qsizetype plain = 0;     // start of the characters not yet copied into `cell`
    for (qsizetype i = 0; i < s.size(); ++i) {
        const QChar c = s[i];
        if (escaped) {
            if (c != QLatin1Char('|'))
                cell += QLatin1Char('\\');
            cell += c;
            escaped = false;
            plain = i + 1;
        } else if (c == QLatin1Char('\\')) {
            cell += s.mid(plain, i - plain);
            copied = true;
            plain = i + 1;
            escaped = true;
        } else if (c == QLatin1Char('|')) {
            // A cell without escapes is a stretch of the source: one string, made once.
            if (copied) {
                cell += s.mid(plain, i - plain);
                out << cell.trimmed();
            } else {
                out << s.mid(start, i - start).trimmed().toString();
            }
            cell.clear();
            copied = false;
            start = plain = i + 1;
        }
    }
    if (!copied) {
        out << s.mid(start).trimmed().toString();
        return out;
    }
    if (!escaped)
        cell += s.mid(plain);
    out << cell.trimmed();
    return out;
}

namespace {

// ^\|?\s*:?-{1,}:?\s*(\|\s*:?-{1,}:?\s*)*\|?$, by hand: tables are common in replies.
bool separatorLine(QStringView s)
{
    qsizetype i = 0;
    const qsizetype n = s.size();
    auto spaces = [&] {
        while (i < n && s[i].isSpace())
            ++i;
    };
    // One cell: \s*:?-+:?\s*
    auto cell = [&] {
        spaces();
        if (i < n && s[i] == QLatin1Char(':'))
            ++i;
        const qsizetype dashes = i;
        while (i < n && s[i] == QLatin1Char('-'))
            ++i;
        if (i == dashes)
            return false;
        if (i < n && s[i] == QLatin1Char(':'))
            ++i;
        spaces();
        return true;
    };
    if (i < n && s[i] == QLatin1Char('|'))
        ++i;
    if (!cell())
        return false;
    while (i < n && s[i] == QLatin1Char('|')) {
        const qsizetype bar = i++;
        if (!cell()) {
            // Only a final "|" may stand without a cell after it.
            return bar == n - 1;
        }
    }
    return i == n;
}

} // namespace

std::optional<std::vector<MarkdownView::Alignment>> MarkdownView::Table::separator(const QString &line)
{
    if (!separatorLine(line))
        return std::nullopt;
    std::vector<Alignment> out;
    for (const QString &cell : cells(line)) {
        const bool left = cell.startsWith(QLatin1Char(':'));
        const bool right = cell.endsWith(QLatin1Char(':'));
        out.push_back(left && right ? Alignment::center : right ? Alignment::trailing : Alignment::leading);
    }
    return out;
}

MarkdownView::Table MarkdownView::Table::parse(const QStringList &lines)
{
    Table t;
    if (lines.size() >= 2) {
        if (auto alignments = separator(lines[1])) {
            t.header = cells(lines[0]);
            t.alignments = std::move(*alignments);
            for (qsizetype i = 2; i < lines.size(); ++i)
                if (!separator(lines[i]))
                    t.rows.push_back(cells(lines[i]));
            return t;
        }
    }
    for (const QString &line : lines)
        if (!separator(line))
            t.rows.push_back(cells(line));
    return t;
}

InlineText MarkdownView::inlineText(const QString &text)
{
    InlineText out = InlineMarkdown::render(text);
    boldLeftovers(out);
    return out;
}

void MarkdownView::boldLeftovers(InlineText &text) { InlineMarkdown::boldLeftovers(text); }

} // namespace zuv

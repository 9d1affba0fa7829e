#include "clipboard/ClipSearch.h"

#include <QRegularExpression>
#include <QStringMatcher>

#include <algorithm>

namespace zuv::ClipSearch {

namespace {

// Where a pair of adjacent UTF-16 units lands in a title's summary.
unsigned pairBit(char16_t a, char16_t b) { return (unsigned(a) * 31u + unsigned(b)) & 511u; }

std::vector<Match> simple(const std::vector<QString> &titles, const std::function<std::optional<Range>(const QString &)> &find)
{
    std::vector<Match> out;
    for (size_t i = 0; i < titles.size(); ++i) {
        if (const auto range = find(titles[i]))
            out.push_back({i, {*range}});
    }
    return out;
}

std::vector<Match> exact(const QString &query, const std::vector<Folded> &foldedTitles)
{
    // Folded on both sides, then a plain search with the query's skip table made
    // once, instead of folding every character of every title again.
    const Folded needle = Folded::of(query);
    const QStringMatcher matcher(needle.text, Qt::CaseSensitive);
    const auto find = [&](const QString &title) -> std::optional<Range> {
        const qsizetype at = matcher.indexIn(title);
        if (at < 0)
            return std::nullopt;
        return Range{at, at + query.size()};
    };
    std::vector<Match> out;
    for (size_t i = 0; i < foldedTitles.size(); ++i) {
        if (!foldedTitles[i].mayContain(needle))
            continue;
        if (const auto range = find(foldedTitles[i].text))
            out.push_back({i, {*range}});
    }
    return out;
}

std::vector<Match> regex(const QRegularExpression &expression, const std::vector<QString> &titles)
{
    return simple(titles, [&expression](const QString &title) -> std::optional<Range> {
        const QRegularExpressionMatch m = expression.match(title);
        if (!m.hasMatch())
            return std::nullopt;
        return Range{m.capturedStart(), m.capturedEnd()};
    });
}

std::vector<char32_t> wantedOf(const QString &query)
{
    // The query as characters (code points), lower case, without blanks.
    std::vector<char32_t> wanted;
    for (char32_t c : query.toUcs4()) {
        if (!QChar::isSpace(c))
            wanted.push_back(c > 0xffff ? c : QChar::toCaseFolded(c));
    }
    return wanted;
}

bool bmp(const std::vector<char32_t> &wanted)
{
    return std::all_of(wanted.begin(), wanted.end(), [](char32_t c) { return c <= 0xffff && !QChar::isSurrogate(c); });
}

// The greedy walk over characters, each one or two UTF-16 units.
std::optional<Fuzzy> fuzzyWalk(const std::vector<char32_t> &wanted, const QString &text)
{
    Fuzzy result;
    size_t next = 0;
    qint64 position = 0;
    std::optional<qint64> last;
    for (qsizetype at = 0; at < text.size() && next < wanted.size();) {
        const bool pair = text.at(at).isHighSurrogate() && at + 1 < text.size() && text.at(at + 1).isLowSurrogate();
        const char32_t c = pair ? QChar::surrogateToUcs4(text.at(at), text.at(at + 1)) : text.at(at).unicode();
        const qsizetype width = pair ? 2 : 1;
        if (c == wanted[next]) {
            result.score += last ? position - *last - 1 : position;
            if (!result.ranges.empty() && result.ranges.back().second == at)
                result.ranges.back().second = at + width;
            else
                result.ranges.push_back({at, at + width});
            last = position;
            ++next;
        }
        ++position;
        at += width;
    }
    if (next != wanted.size())
        return std::nullopt;
    return result;
}

// The walk where every character is one UTF-16 unit: each wanted character is
// found with a vectorised search from where the last one matched, which is the
// same greedy walk without looking at every character in between.
std::optional<Fuzzy> fuzzyUnits(const std::vector<char32_t> &wanted, const QString &text)
{
    Fuzzy result;
    const QStringView view(text);
    qsizetype from = 0;
    qsizetype last = -1;
    for (char32_t c : wanted) {
        const qsizetype at = view.indexOf(QChar(char16_t(c)), from);
        if (at < 0)
            return std::nullopt;
        result.score += last < 0 ? at : at - last - 1;
        if (!result.ranges.empty() && result.ranges.back().second == at)
            result.ranges.back().second = at + 1;
        else
            result.ranges.push_back({at, at + 1});
        last = at;
        from = at + 1;
    }
    return result;
}

std::vector<Match> fuzzySearch(const QString &query, const std::vector<Folded> &foldedTitles)
{
    std::vector<std::pair<qint64, Match>> scored;
    const std::vector<char32_t> wanted = wantedOf(query);
    if (wanted.empty())
        return {};
    const bool units = bmp(wanted);
    for (size_t i = 0; i < foldedTitles.size(); ++i) {
        const Folded &title = foldedTitles[i];
        if (auto f = units && !title.surrogates ? fuzzyUnits(wanted, title.text) : fuzzyWalk(wanted, title.text))
            scored.push_back({f->score, {i, std::move(f->ranges)}});
    }
    std::stable_sort(scored.begin(), scored.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<Match> out;
    out.reserve(scored.size());
    for (auto &[score, match] : scored)
        out.push_back(std::move(match));
    return out;
}

} // namespace

QString folded(const QString &title)
{
    QString out = title;
    // Simple folding, one UTF-16 unit for one, so that positions carry over.
    for (qsizetype i = 0; i < out.size(); ++i) {
        const QChar c = out.at(i);
        if (!c.isSurrogate())
            out[i] = c.toCaseFolded();
    }
    return out;
}

Folded Folded::of(const QString &title)
{
    Folded f{folded(title), {}, false};
    const char16_t *units = reinterpret_cast<const char16_t *>(f.text.constData());
    for (qsizetype i = 0; i < f.text.size() && !f.surrogates; ++i)
        f.surrogates = QChar::isSurrogate(units[i]);
    for (qsizetype i = 1; i < f.text.size(); ++i) {
        const unsigned bit = pairBit(units[i - 1], units[i]);
        f.pairs[bit / 64] |= quint64(1) << (bit % 64);
    }
    return f;
}

bool Folded::mayContain(const Folded &needle) const
{
    for (size_t i = 0; i < pairs.size(); ++i)
        if ((needle.pairs[i] & pairs[i]) != needle.pairs[i])
            return false;
    return needle.text.size() <= text.size();
}

QString bounded(const QString &pattern) { return QStringLiteral("(*LIMIT_MATCH=100000)") + pattern; }

std::optional<Fuzzy> fuzzy(const QString &query, const QString &text)
{
    const std::vector<char32_t> wanted = wantedOf(query);
    if (wanted.empty())
        return std::nullopt;
    return fuzzyWalk(wanted, text);
}

std::vector<Match> search(const QString &query, const QString &mode, const std::vector<QString> &titles,
                          const std::vector<Folded> &foldedTitles)
{
    if (query.isEmpty()) {
        std::vector<Match> all(titles.size());
        for (size_t i = 0; i < titles.size(); ++i)
            all[i].index = i;
        return all;
    }
    if (mode == QLatin1String("fuzzy"))
        return fuzzySearch(query, foldedTitles);
    if (mode == QLatin1String("regex")) {
        const QRegularExpression expression(bounded(query));
        if (!expression.isValid())
            return {};
        return regex(expression, titles);
    }
    if (mode == QLatin1String("mixed")) {
        std::vector<Match> found = exact(query, foldedTitles);
        if (!found.empty())
            return found;
        const QRegularExpression expression(bounded(query));
        if (!expression.isValid())
            return fuzzySearch(query, foldedTitles);
        found = regex(expression, titles);
        return found.empty() ? fuzzySearch(query, foldedTitles) : found;
    }
    return exact(query, foldedTitles);
}

} // namespace zuv::ClipSearch

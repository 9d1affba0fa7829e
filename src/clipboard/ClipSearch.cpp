#include "clipboard/ClipSearch.h"

#include <QRegularExpression>

#include <algorithm>

namespace zuv::ClipSearch {

namespace {

std::vector<Match> simple(const std::vector<QString> &titles, const std::function<std::optional<Range>(const QString &)> &find)
{
    std::vector<Match> out;
    for (size_t i = 0; i < titles.size(); ++i) {
        if (const auto range = find(titles[i]))
            out.push_back({i, {*range}});
    }
    return out;
}

std::vector<Match> exact(const QString &query, const std::vector<QString> &foldedTitles)
{
    // Folded on both sides, then a plain search, which Qt runs with vector
    // instructions instead of folding every character of every title again.
    const QString needle = folded(query);
    return simple(foldedTitles, [&needle, &query](const QString &title) -> std::optional<Range> {
        const qsizetype at = title.indexOf(needle);
        if (at < 0)
            return std::nullopt;
        return Range{at, at + query.size()};
    });
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

std::vector<Match> fuzzySearch(const QString &query, const std::vector<QString> &foldedTitles)
{
    std::vector<std::pair<qint64, Match>> scored;
    for (size_t i = 0; i < foldedTitles.size(); ++i) {
        if (auto f = fuzzy(query, foldedTitles[i]))
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

QString bounded(const QString &pattern) { return QStringLiteral("(*LIMIT_MATCH=100000)") + pattern; }

std::optional<Fuzzy> fuzzy(const QString &query, const QString &text)
{
    // The query as characters (code points), lower case, without blanks.
    std::vector<char32_t> wanted;
    for (char32_t c : query.toUcs4()) {
        if (!QChar::isSpace(c))
            wanted.push_back(c > 0xffff ? c : QChar::toCaseFolded(c));
    }
    if (wanted.empty())
        return std::nullopt;
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

std::vector<Match> search(const QString &query, const QString &mode, const std::vector<QString> &titles,
                          const std::vector<QString> &foldedTitles)
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

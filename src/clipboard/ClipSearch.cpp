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

std::vector<Match> exact(const QString &query, const std::vector<QString> &titles)
{
    return simple(titles, [&query](const QString &title) -> std::optional<Range> {
        const qsizetype at = title.indexOf(query, 0, Qt::CaseInsensitive);
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

std::vector<Match> fuzzySearch(const QString &query, const std::vector<QString> &titles)
{
    std::vector<std::pair<qint64, Match>> scored;
    for (size_t i = 0; i < titles.size(); ++i) {
        if (auto f = fuzzy(query, titles[i]))
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

QString bounded(const QString &pattern) { return QStringLiteral("(*LIMIT_MATCH=100000)") + pattern; }

std::optional<Fuzzy> fuzzy(const QString &query, const QString &text)
{
    // The query as characters (code points), lower case, without blanks.
    std::vector<char32_t> wanted;
    for (char32_t c : query.toUcs4()) {
        if (!QChar::isSpace(c))
            wanted.push_back(QChar::toLower(c));
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
        if (QChar::toLower(c) == wanted[next]) {
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

std::vector<Match> search(const QString &query, const QString &mode, const std::vector<QString> &titles)
{
    if (query.isEmpty()) {
        std::vector<Match> all(titles.size());
        for (size_t i = 0; i < titles.size(); ++i)
            all[i].index = i;
        return all;
    }
    if (mode == QLatin1String("fuzzy"))
        return fuzzySearch(query, titles);
    if (mode == QLatin1String("regex")) {
        const QRegularExpression expression(bounded(query));
        if (!expression.isValid())
            return {};
        return regex(expression, titles);
    }
    if (mode == QLatin1String("mixed")) {
        std::vector<Match> found = exact(query, titles);
        if (!found.empty())
            return found;
        const QRegularExpression expression(bounded(query));
        if (!expression.isValid())
            return fuzzySearch(query, titles);
        found = regex(expression, titles);
        return found.empty() ? fuzzySearch(query, titles) : found;
    }
    return exact(query, titles);
}

} // namespace zuv::ClipSearch

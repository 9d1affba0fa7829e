#include "clipboard/RtfText.h"

#include <QHash>
#include <QSet>

#include <vector>

namespace zuv::RtfText {

namespace {

struct Group {
    bool skip = false; // a destination whose text is not the document's
    int fallback = 1;  // \ucN: characters after a \u that stand in for it
};

constexpr size_t deepest = 256;

// Windows-1252, the usual \ansicpg, from 0x80 to 0x9f; the rest is Latin-1.
constexpr char16_t cp1252[32] = {0x20ac, 0xfffd, 0x201a, 0x0192, 0x201e, 0x2026, 0x2020, 0x2021,
                                 0x02c6, 0x2030, 0x0160, 0x2039, 0x0152, 0xfffd, 0x017d, 0xfffd,
                                 0xfffd, 0x2018, 0x2019, 0x201c, 0x201d, 0x2022, 0x2013, 0x2014,
                                 0x02dc, 0x2122, 0x0161, 0x203a, 0x0153, 0xfffd, 0x017e, 0x0178};

QChar byteChar(unsigned char b) { return b >= 0x80 && b < 0xa0 ? QChar(cp1252[b - 0x80]) : QChar(b); }

bool skippedDestination(const QByteArray &word)
{
    static const QSet<QByteArray> words{
        "fonttbl",   "colortbl", "stylesheet", "info",        "pict",      "header",     "headerl",
        "headerr",   "headerf",  "footer",     "footerl",     "footerr",   "footerf",    "footnote",
        "fldinst",   "object",   "themedata",  "colorschememapping", "latentstyles", "datastore",
        "listtable", "listoverridetable", "rsidtbl", "generator", "xmlnstbl", "pgdsctbl", "filetbl",
        "revtbl",    "bkmkstart", "bkmkend",   "shppict",    "nonshppict", "blipuid",    "mmathPr"};
    return words.contains(word);
}

// Control words that stand for one character.
const QHash<QByteArray, QChar> &symbols()
{
    static const QHash<QByteArray, QChar> table{
        {"par", QLatin1Char('\n')},  {"line", QLatin1Char('\n')}, {"sect", QLatin1Char('\n')},
        {"page", QLatin1Char('\n')}, {"tab", QLatin1Char('\t')},  {"emdash", QChar(0x2014)},
        {"endash", QChar(0x2013)},   {"bullet", QChar(0x2022)},   {"lquote", QChar(0x2018)},
        {"rquote", QChar(0x2019)},   {"ldblquote", QChar(0x201c)}, {"rdblquote", QChar(0x201d)},
    };
    return table;
}

int hex(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

QString plain(const QByteArray &rtf)
{
    QString out;
    out.reserve(rtf.size() / 2);
    std::vector<Group> stack{Group{}};
    size_t ignoredDepth = 0; // groups opened beyond `deepest`
    int pendingFallback = 0; // characters still to drop after a \u
    bool starred = false;    // "\*": the next control word opens a destination we do not know
    const qsizetype n = rtf.size();
    const auto put = [&](QChar c) {
        if (pendingFallback > 0) {
            --pendingFallback;
            return;
        }
        if (!stack.back().skip)
            out.append(c);
    };
    for (qsizetype i = 0; i < n;) {
        const char c = rtf.at(i);
        if (c == '{') {
            if (stack.size() < deepest)
                stack.push_back(stack.back());
            else
                ++ignoredDepth;
            pendingFallback = 0;
            ++i;
            continue;
        }
        if (c == '}') {
            if (ignoredDepth > 0)
                --ignoredDepth;
            else if (stack.size() > 1)
                stack.pop_back();
            pendingFallback = 0;
            starred = false;
            ++i;
            continue;
        }
        if (c == '\r' || c == '\n') {
            ++i; // line ends in the source mean nothing
            continue;
        }
        if (c != '\\') {
            put(byteChar(static_cast<unsigned char>(c)));
            ++i;
            continue;
        }
        // A control word or symbol.
        ++i;
        if (i >= n)
            break;
        const char s = rtf.at(i);
        if (!((s >= 'a' && s <= 'z') || (s >= 'A' && s <= 'Z'))) {
            ++i;
            switch (s) {
            case '\\':
            case '{':
            case '}':
                put(QChar(s));
                break;
            case '\'':
                if (i + 1 < n && hex(rtf.at(i)) >= 0 && hex(rtf.at(i + 1)) >= 0) {
                    put(byteChar(static_cast<unsigned char>(hex(rtf.at(i)) * 16 + hex(rtf.at(i + 1)))));
                    i += 2;
                }
                break;
            case '*':
                starred = true;
                break;
            case '~':
                put(QChar(0x00a0));
                break;
            case '_':
                put(QChar(0x2011));
                break;
            case '\n':
            case '\r':
                put(QLatin1Char('\n'));
                break;
            default:
                break; // "\-" and the like: nothing to show
            }
            continue;
        }
        const qsizetype wordStart = i;
        while (i < n && i - wordStart < 32 && ((rtf.at(i) >= 'a' && rtf.at(i) <= 'z') || (rtf.at(i) >= 'A' && rtf.at(i) <= 'Z')))
            ++i;
        // A view into the input, not a copy: a document is mostly control words.
        const QByteArray word = QByteArray::fromRawData(rtf.constData() + wordStart, i - wordStart);
        bool hasParameter = false;
        long parameter = 0;
        bool negative = false;
        if (i < n && rtf.at(i) == '-') {
            negative = true;
            ++i;
        }
        const qsizetype digitsStart = i;
        while (i < n && i - digitsStart < 10 && rtf.at(i) >= '0' && rtf.at(i) <= '9') {
            parameter = parameter * 10 + (rtf.at(i) - '0');
            hasParameter = true;
            ++i;
        }
        if (negative)
            parameter = -parameter;
        if (i < n && rtf.at(i) == ' ')
            ++i; // the delimiter belongs to the word

        Group &group = stack.back();
        if (starred || skippedDestination(word)) {
            starred = false;
            if (ignoredDepth == 0 && stack.size() > 1)
                group.skip = true;
            continue;
        }
        if (word == "u" && hasParameter) {
            const long unit = parameter < 0 ? parameter + 65536 : parameter;
            pendingFallback = 0; // its own character is never another's fallback
            put(QChar(char16_t(unit & 0xffff)));
            pendingFallback = std::min(group.fallback, 16);
        } else if (word == "uc" && hasParameter) {
            group.fallback = int(std::clamp(parameter, 0L, 16L));
        } else if (const auto symbol = symbols().constFind(word); symbol != symbols().constEnd()) {
            put(*symbol);
        }
    }
    return out;
}

} // namespace zuv::RtfText

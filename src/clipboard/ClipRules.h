#pragma once

#include "clipboard/Clip.h"

#include <QByteArray>
#include <QStringList>

#include <optional>
#include <vector>

namespace zuv {

// What a copy becomes: which types are kept, whether it is recorded at all, its
// kind, text and dedupe key, and the order and length of the list. Plain rules
// over data, so that every one of them is tested without a display.
namespace ClipRules {

// Pasteboard types, as MIME types.
inline const QString plainText = QStringLiteral("text/plain;charset=utf-8");
inline const QString plainTextBare = QStringLiteral("text/plain");
inline const QString html = QStringLiteral("text/html");
inline const QString rtf = QStringLiteral("text/rtf");
inline const QString fileURL = QStringLiteral("text/uri-list");
// Password managers mark what they copy with this type and the value "secret".
inline const QString concealed = QStringLiteral("x-kde-passwordManagerHint");

QStringList textTypes();  // HTML, RTF, plain text, in this order
QStringList imageTypes(); // PNG, TIFF, JPEG, HEIC
// Types that veto a copy whatever the settings say.
QStringList alwaysIgnoredTypes();

struct Settings {
    bool saveText = true;
    bool saveImages = true;
    bool saveFiles = true;
    QStringList ignoredTypes;
    QStringList ignoredPatterns;
};

// One item of a copy: its types in order, each with its bytes.
using Item = std::vector<ClipContent>;

bool persistable(const QString &type);
// The first row of `type`, if any.
const ClipContent *row(const std::vector<ClipContent> &contents, const QString &type);
// The bytes as UTF-8; none when they are not valid UTF-8, a cut-off end included.
std::optional<QString> utf8(const QByteArray &bytes);

// What of a copy is kept, or none when it is not recorded at all (no kept type,
// a vetoing type or pattern, blank, or over 50 MiB).
std::optional<std::vector<ClipContent>> read(const std::vector<Item> &items, const Settings &settings);

// Which offered types a capture fetches, or none when the offer is not recorded
// at all (nothing it may keep, or a vetoing type). Pictures are fetched only
// where there is no text; other applications' private types are kept so that a
// rich copy pastes back whole, except pictures and documents that their owners
// render on request.
std::optional<Pasteboard::Plan> plan(const QStringList &types, const Settings &settings);

struct Description {
    Clip::Kind kind = Clip::Kind::text;
    QString text; // at most 1000 characters as the person counts them
    QString key;
    bool operator==(const Description &) const = default;
};
std::optional<Description> describe(const std::vector<ClipContent> &contents);

// SHA-256, its first 16 bytes in lower-case hex.
QString hash(const QByteArray &data);

// At most `count` user-perceived characters from the start.
QString firstCharacters(const QString &text, int count);

// Pinned first by their order, the rest by `sort` ("last", "first", "copies").
void sort(std::vector<Clip> &clips, const QString &sort);
// The ids of the unpinned clips beyond the limit (at least 1), in list order.
std::vector<qint64> beyondLimit(const std::vector<Clip> &sortedClips, int size);

// Whether copies made in `app` are left out.
bool ignored(const std::optional<QString> &app, const QStringList &apps, bool onlyListed);

constexpr qint64 largestCopy = 52'428'800;

} // namespace ClipRules

} // namespace zuv

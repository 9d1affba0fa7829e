#pragma once

#include "platform/Pasteboard.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace zuv {

// One clip of the history as it is held in memory and in the store's `clips` row.
struct Clip {
    enum class Kind { text, image, files };

    qint64 id = 0;
    Kind kind = Kind::text;
    QString text; // what search and titles work on
    std::optional<QString> app;
    double first = 0; // seconds since 1970
    double last = 0;
    qint64 copies = 1;
    std::optional<QString> pin;
    double order = 0; // column `ord`
    QString key;      // the dedupe key

    bool operator==(const Clip &) const = default;

    static QString word(Kind kind);
    // An unknown or empty word reads as text.
    static Kind kindOf(const QString &word);
};

// One pasteboard type of a clip and its bytes.
using ClipContent = PasteboardContent;

} // namespace zuv

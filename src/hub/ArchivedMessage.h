#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

// One hit of a message search.
struct ArchivedMessage {
    QString id;
    QString thread; // where it was said, in the hub's naming ("app:<id>", "telegram:<chat>", …)
    QString role;
    QString text;
    double at = 0;
    std::optional<QString> channel;

    static ArchivedMessage fromJson(const QJsonObject &object);
    bool operator==(const ArchivedMessage &) const = default;
    size_t hash() const;

    // The name of where the hit lives: "Zuv", "Telegram", "X" or the thread itself.
    QString place() const;
    // The conversation the hit opens, if any.
    std::optional<QString> conversation() const;
};

} // namespace zuv

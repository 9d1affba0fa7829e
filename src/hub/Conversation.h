#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

struct Conversation {
    QString id; // "main" for the main conversation; "tg-" and "x-" for Telegram and X chats
    QString title;
    double createdAt = 0;
    double updatedAt = 0;
    QString preview;
    std::optional<bool> unread;
    std::optional<QString> channel;

    static Conversation fromJson(const QJsonObject &object);
    bool operator==(const Conversation &) const = default;
    size_t hash() const;

    // Markdown stripped for one-line use.
    static QString plain(const QString &text);
};

} // namespace zuv

#pragma once

#include "hub/Usage.h"

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// One message of a conversation.
struct Entry {
    // One attachment; also what an upload returns.
    struct File {
        QString key; // empty in a local echo until the upload is done
        QString name;
        QString mime;

        static File fromJson(const QJsonObject &object);
        QJsonObject toJson() const;
        bool operator==(const File &) const = default;
        size_t hash() const;
    };

    QString id;
    QString role; // "user", or anything else for the assistant
    QString text;
    double at = 0;
    std::optional<std::vector<File>> files;
    std::optional<QString> conversation; // none: the main conversation
    std::optional<Usage> usage;
    std::optional<QString> channel; // none counts as "app"

    static Entry fromJson(const QJsonObject &object);
    bool operator==(const Entry &) const = default;
    size_t hash() const;
};

} // namespace zuv

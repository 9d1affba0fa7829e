#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

// One tool call that waits for a yes or no.
struct CcPermission {
    QString id;
    QString sessionId;
    QString project;
    std::optional<QString> title;
    QString tool;
    QString summary;
    QString detail;
    double at = 0;
    QString status; // "pending" while open

    static CcPermission fromJson(const QJsonObject &object);
    bool operator==(const CcPermission &) const = default;
    size_t hash() const;
};

} // namespace zuv

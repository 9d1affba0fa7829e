#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// One changed file of a session's Git tree.
struct CcChange {
    QString path;
    QString status; // Git status letter or word
    qint64 added = 0;
    qint64 removed = 0;
    bool binary = false;
    bool truncated = false; // the diff was cut by the hub's agent
    QString diff;           // unified diff

    static CcChange fromJson(const QJsonObject &object);
    bool operator==(const CcChange &) const = default;
    size_t hash() const;
};

// The state of a session's Git tree.
struct CcChanges {
    bool git = false; // false when cwd is no repository
    QString cwd;
    std::optional<QString> branch; // none when detached
    std::optional<QString> upstream;
    std::optional<qint64> ahead;
    std::vector<CcChange> files;

    static CcChanges fromJson(const QJsonObject &object);
    bool operator==(const CcChanges &) const = default;
    size_t hash() const;
};

struct CcProject {
    QString name;
    QString cwd;

    static CcProject fromJson(const QJsonObject &object);
    bool operator==(const CcProject &) const = default;
    size_t hash() const;
};

} // namespace zuv

#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

struct sqlite3;

namespace zuv::hub {

// The hub's own SQLite file: records as the JSON the hub sends, by kind and id,
// with the conversation and the time they belong to for the lists.
class HubStore {
public:
    explicit HubStore(const QString &file);
    ~HubStore();
    HubStore(const HubStore &) = delete;
    HubStore &operator=(const HubStore &) = delete;

    bool open() const { return m_db != nullptr; }
    QString problem() const { return m_problem; }

    void put(const QString &kind, const QString &id, const QJsonObject &record, const QString &group = {},
             double at = 0);
    std::optional<QJsonObject> get(const QString &kind, const QString &id) const;
    void remove(const QString &kind, const QString &id);
    void removeGroup(const QString &kind, const QString &group);
    void clear();
    // Newest first by `at`; with a group, only its records; at most `limit`.
    std::vector<QJsonObject> list(const QString &kind, const QString &group = {}, int limit = 1000) const;
    // Records of `kind` whose JSON holds `text`, ignoring case, newest first.
    std::vector<QJsonObject> search(const QString &kind, const QString &text, int limit) const;

private:
    sqlite3 *m_db = nullptr;
    QString m_problem;
};

} // namespace zuv::hub

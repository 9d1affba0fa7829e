#pragma once

#include "base/Shared.h"
#include "shortcuts/KeyCombo.h"

#include <QObject>
#include <QSet>
#include <QUuid>

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace zuv {

class Defaults;
class HotKeys;
class Workspace;

// Global shortcuts that open an application, bring it forward, or (pressed again
// while it is in front) hide it. The list is the person's, kept in the settings.
class AppShortcuts : public QObject, public Shared<AppShortcuts> {
    Q_OBJECT
public:
    struct Item {
        QUuid id;
        QString name;
        QString path;                    // the desktop file when it was added
        std::optional<QString> bundleID; // its desktop-file id
        std::optional<KeyCombo> combo;
        bool operator==(const Item &) const = default;
        static std::optional<Item> fromJson(const QJsonValue &value);
        QJsonObject toJson() const;
    };
    // Other owners of shortcuts, in the order they are asked: a name and a combo.
    using Owners = std::function<std::vector<std::pair<QString, KeyCombo>>()>;

    AppShortcuts(Defaults &defaults, HotKeys &hotKeys, Workspace &workspace, Owners owners = {},
                 QObject *parent = nullptr);
    ~AppShortcuts() override;

    const std::vector<Item> &items() const { return m_items; }
    const QSet<QUuid> &refused() const { return m_refused; }
    bool hideWhenFront() const { return m_hideWhenFront; }
    void setHideWhenFront(bool on);

    void apply();
    void open(const QUuid &id);
    QUuid add(const QString &path);
    void remove(const QUuid &id);
    // The name of the owner that already has the combo, with nothing changed; else none.
    std::optional<QString> setCombo(const std::optional<KeyCombo> &combo, const QUuid &id);

    static constexpr const char *itemsKey = "app-shortcuts";
    static constexpr const char *hideKey = "app-shortcuts-hide";

signals:
    void changed();

private:
    void save();
    void clearKeys();
    const Item *find(const QUuid &id) const;

    Defaults &m_defaults;
    HotKeys &m_hotKeys;
    Workspace &m_workspace;
    Owners m_owners;
    std::vector<Item> m_items;
    QSet<QUuid> m_refused;
    bool m_hideWhenFront = true;
    std::map<QUuid, quint32> m_keys; // item id to hot key id
};

} // namespace zuv

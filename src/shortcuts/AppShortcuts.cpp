#include "shortcuts/AppShortcuts.h"

#include "base/Defaults.h"
#include "base/Json.h"
#include "base/Log.h"
#include "platform/Workspace.h"
#include "shortcuts/HotKeys.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

namespace zuv {

std::optional<AppShortcuts::Item> AppShortcuts::Item::fromJson(const QJsonValue &value)
{
    try {
        const QJsonObject o = json::decode<QJsonObject>(value);
        Item item;
        item.id = QUuid::fromString(json::required<QString>(o, QStringLiteral("id")));
        item.name = json::required<QString>(o, QStringLiteral("name"));
        item.path = json::required<QString>(o, QStringLiteral("path"));
        item.bundleID = json::optional<QString>(o, QStringLiteral("bundleID"));
        if (const auto combo = json::optional<QJsonValue>(o, QStringLiteral("combo"))) {
            item.combo = KeyCombo::fromJson(*combo);
            if (!item.combo)
                return std::nullopt;
        }
        if (item.id.isNull())
            return std::nullopt;
        return item;
    } catch (const DecodingError &) {
        return std::nullopt;
    }
}

QJsonObject AppShortcuts::Item::toJson() const
{
    QJsonObject o{{QStringLiteral("id"), id.toString(QUuid::WithoutBraces).toUpper()},
                  {QStringLiteral("name"), name},
                  {QStringLiteral("path"), path}};
    if (bundleID)
        o.insert(QStringLiteral("bundleID"), *bundleID);
    if (combo)
        o.insert(QStringLiteral("combo"), combo->toJson());
    return o;
}

AppShortcuts::AppShortcuts(Defaults &defaults, HotKeys &hotKeys, Workspace &workspace, Owners owners, QObject *parent)
    : QObject(parent), m_defaults(defaults), m_hotKeys(hotKeys), m_workspace(workspace), m_owners(std::move(owners))
{
    m_hideWhenFront = m_defaults.boolean(QString::fromLatin1(hideKey)).valueOr(true);
    // One item that does not decode spoils the list, which then starts empty, as stored.
    const QJsonValue stored = m_defaults.value(QString::fromLatin1(itemsKey));
    if (stored.isArray()) {
        std::vector<Item> items;
        for (const QJsonValue &v : stored.toArray()) {
            auto item = Item::fromJson(v);
            if (!item) {
                items.clear();
                break;
            }
            items.push_back(std::move(*item));
        }
        m_items = std::move(items);
    }
}

AppShortcuts::~AppShortcuts() { clearKeys(); }

void AppShortcuts::setHideWhenFront(bool on)
{
    m_hideWhenFront = on;
    m_defaults.set(QString::fromLatin1(hideKey), on);
    emit changed();
}

const AppShortcuts::Item *AppShortcuts::find(const QUuid &id) const
{
    const auto it = std::find_if(m_items.begin(), m_items.end(), [&id](const Item &i) { return i.id == id; });
    return it == m_items.end() ? nullptr : &*it;
}

void AppShortcuts::clearKeys()
{
    for (const auto &[item, key] : m_keys)
        m_hotKeys.remove(key);
    m_keys.clear();
}

void AppShortcuts::apply()
{
    clearKeys();
    QSet<QUuid> refused;
    for (const Item &item : m_items) {
        if (!item.combo)
            continue;
        const QUuid id = item.id;
        if (const auto key = m_hotKeys.add(*item.combo, [this, id] { open(id); }))
            m_keys[id] = *key;
        else
            refused.insert(id);
    }
    m_refused = refused;
    emit changed();
}

void AppShortcuts::open(const QUuid &id)
{
    const Item *item = find(id);
    if (!item)
        return;
    // The entry may have moved since it was added: its id wins over the stored path.
    std::optional<Workspace::App> app;
    if (item->bundleID)
        app = m_workspace.application(*item->bundleID);
    if (!app)
        app = m_workspace.applicationAt(item->path);
    if (!app) {
        log(QStringLiteral("app shortcut %1: %2")
                .arg(item->name, QCoreApplication::translate("AppShortcuts", "The application is no longer installed.")));
        return;
    }
    const quint32 time = m_hotKeys.lastPressTime();
    const auto front = m_workspace.frontmost();
    const bool same = front && (*front == app->id || (item->bundleID && *front == *item->bundleID));
    if (m_hideWhenFront && same) {
        m_workspace.hide(app->id);
        return;
    }
    if (m_workspace.activate(app->id, time))
        return;
    const QString error = m_workspace.launch(*app, time);
    if (!error.isEmpty())
        log(QStringLiteral("app shortcut %1: %2").arg(item->name, error));
}

QUuid AppShortcuts::add(const QString &path)
{
    for (const Item &item : m_items) {
        if (item.path == path)
            return item.id;
    }
    Item item;
    item.id = QUuid::createUuid();
    item.path = path;
    if (const auto app = m_workspace.applicationAt(path)) {
        item.name = app->name;
        item.bundleID = app->id;
    } else {
        item.name = QFileInfo(path).completeBaseName();
    }
    m_items.push_back(item);
    save();
    emit changed();
    return item.id;
}

void AppShortcuts::remove(const QUuid &id)
{
    std::erase_if(m_items, [&id](const Item &i) { return i.id == id; });
    save();
    apply();
}

std::optional<QString> AppShortcuts::setCombo(const std::optional<KeyCombo> &combo, const QUuid &id)
{
    auto it = std::find_if(m_items.begin(), m_items.end(), [&id](const Item &i) { return i.id == id; });
    if (it == m_items.end())
        return std::nullopt;
    if (combo) {
        for (const Item &other : m_items) {
            if (other.id != id && other.combo == combo)
                return other.name;
        }
        if (m_owners) {
            for (const auto &[owner, taken] : m_owners()) {
                if (taken == *combo)
                    return owner;
            }
        }
        if (m_hotKeys.isSystemShortcut(*combo))
            return QCoreApplication::translate("AppShortcuts", "The desktop");
    }
    it->combo = combo;
    save();
    apply();
    return std::nullopt;
}

void AppShortcuts::save()
{
    QJsonArray list;
    for (const Item &item : m_items)
        list.append(item.toJson());
    m_defaults.set(QString::fromLatin1(itemsKey), list);
}

} // namespace zuv

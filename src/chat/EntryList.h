#pragma once

#include "hub/Entry.h"

#include <QHash>

#include <vector>

namespace zuv {

// The loaded messages of one conversation, oldest first, with an index by id so
// that a frame finds its entry at the same cost however long the chat has grown.
class EntryList {
public:
    EntryList() = default;
    explicit EntryList(std::vector<Entry> items) { assign(std::move(items)); }

    const std::vector<Entry> &items() const { return m_items; }
    size_t size() const { return m_items.size(); }
    bool empty() const { return m_items.empty(); }
    const Entry &operator[](size_t i) const { return m_items[i]; }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

    // Position of the first entry with `id`, or -1.
    qsizetype indexOf(const QString &id) const { return m_index.value(id, -1); }
    bool contains(const QString &id) const { return m_index.contains(id); }

    // Replaces the entry with the same id in place, or appends it.
    void upsert(Entry entry);
    // Replaces the first entry with `id`; false when there is none.
    bool replace(const QString &id, Entry entry);
    void append(Entry entry);
    // Removes every entry with `id`.
    void remove(const QString &id);
    void assign(std::vector<Entry> items);

private:
    void reindex();

    std::vector<Entry> m_items;
    QHash<QString, qsizetype> m_index;
};

} // namespace zuv

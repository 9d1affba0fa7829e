#include "chat/EntryList.h"

#include <algorithm>

namespace zuv {

void EntryList::upsert(Entry entry)
{
    if (!replace(entry.id, entry))
        append(std::move(entry));
}

bool EntryList::replace(const QString &id, Entry entry)
{
    const qsizetype at = indexOf(id);
    if (at < 0)
        return false;
    if (entry.id != id) {
        m_index.remove(id);
        // Another entry may hold the same id further on; the first one is the one indexed.
        m_index.insert(entry.id, std::min(at, m_index.value(entry.id, at)));
    }
    m_items[size_t(at)] = std::move(entry);
    if (!m_index.contains(id)) {
        for (size_t i = size_t(at) + 1; i < m_items.size(); ++i) {
            if (m_items[i].id == id) {
                m_index.insert(id, qsizetype(i));
                break;
            }
        }
    }
    return true;
}

void EntryList::append(Entry entry)
{
    if (!m_index.contains(entry.id))
        m_index.insert(entry.id, qsizetype(m_items.size()));
    m_items.push_back(std::move(entry));
}

void EntryList::remove(const QString &id)
{
    if (!m_index.contains(id))
        return;
    std::erase_if(m_items, [&id](const Entry &e) { return e.id == id; });
    reindex();
}

void EntryList::assign(std::vector<Entry> items)
{
    m_items = std::move(items);
    reindex();
}

void EntryList::reindex()
{
    m_index.clear();
    m_index.reserve(qsizetype(m_items.size()));
    for (size_t i = 0; i < m_items.size(); ++i) {
        if (!m_index.contains(m_items[i].id))
            m_index.insert(m_items[i].id, qsizetype(i));
    }
}

} // namespace zuv

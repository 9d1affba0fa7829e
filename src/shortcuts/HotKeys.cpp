#include "shortcuts/HotKeys.h"

#include "platform/HotKeyService.h"

#include <QPointer>

namespace zuv {

HotKeys::HotKeys(HotKeyService &service, SystemShortcuts system, QObject *parent)
    : QObject(parent), m_service(service), m_system(std::move(system))
{
    connect(&m_service, &HotKeyService::pressed, this, &HotKeys::pressed);
}

HotKeys::~HotKeys()
{
    for (const auto &[id, key] : m_live) {
        if (key.held)
            m_service.ungrab(id);
    }
}

std::optional<quint32> HotKeys::add(const KeyCombo &combo, std::function<void()> action)
{
    const quint32 id = m_next++; // taken even when refused: ids are never reused
    if (!m_service.grab(id, combo.keyCode, combo.modifiers))
        return std::nullopt;
    HotKey key{combo, std::move(action), true};
    if (m_suspended > 0) {
        m_service.ungrab(id);
        key.held = false;
    }
    m_live.emplace(id, std::move(key));
    return id;
}

void HotKeys::remove(quint32 id)
{
    auto it = m_live.find(id);
    if (it == m_live.end())
        return;
    if (it->second.held)
        m_service.ungrab(id);
    m_live.erase(it);
}

QString HotKeys::problem() const { return m_service.problem(); }

bool HotKeys::held(quint32 id) const
{
    const auto it = m_live.find(id);
    return it != m_live.end() && it->second.held;
}

void HotKeys::suspend()
{
    if (++m_suspended != 1)
        return;
    for (auto &[id, key] : m_live) {
        if (key.held) {
            m_service.ungrab(id);
            key.held = false;
        }
    }
}

void HotKeys::resume()
{
    if (m_suspended == 0 || --m_suspended != 0)
        return;
    // A key that cannot be had again simply stays unheld.
    for (auto &[id, key] : m_live) {
        if (!key.held)
            key.held = m_service.grab(id, key.combo.keyCode, key.combo.modifiers);
    }
}

void HotKeys::pressed(quint32 id, quint32 time)
{
    // On the next turn, and only if the key is still wanted then.
    QPointer<HotKeys> self(this);
    QMetaObject::invokeMethod(
        this,
        [self, id, time] {
            if (!self)
                return;
            const auto it = self->m_live.find(id);
            if (it == self->m_live.end() || !it->second.held)
                return;
            self->m_lastPressTime = time;
            const auto action = it->second.action; // the action may remove its own key
            if (action)
                action();
        },
        Qt::QueuedConnection);
}

} // namespace zuv

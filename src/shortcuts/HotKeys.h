#pragma once

#include "base/Shared.h"
#include "shortcuts/KeyCombo.h"

#include <QObject>

#include <functional>
#include <map>
#include <optional>

namespace zuv {

class HotKeyService;

// The one owner of the process's global shortcuts: it hands out ids, keeps what
// is registered, and runs a shortcut's action on the main thread when it is
// pressed. While a shortcut is being recorded every key is let go, so that the
// keys being typed do not fire their old owners.
class HotKeys : public QObject, public Shared<HotKeys> {
    Q_OBJECT
public:
    using SystemShortcuts = std::function<bool(const KeyCombo &)>;

    explicit HotKeys(HotKeyService &service, SystemShortcuts system = {}, QObject *parent = nullptr);
    ~HotKeys() override;

    // The id of the new hot key, or none when the system refused the combination.
    // During a recording the key is kept and grabbed when the recording ends.
    std::optional<quint32> add(const KeyCombo &combo, std::function<void()> action);
    void remove(quint32 id);
    // Whether the key is grabbed on the system right now.
    bool held(quint32 id) const;

    void suspend();
    void resume();
    int suspended() const { return m_suspended; }

    bool isSystemShortcut(const KeyCombo &combo) const { return m_system && m_system(combo); }
    // Why no global shortcut can work here, if so.
    QString problem() const;
    // The server time of the last press, for asking the window manager to raise a window.
    quint32 lastPressTime() const { return m_lastPressTime; }

private:
    struct HotKey {
        KeyCombo combo;
        std::function<void()> action;
        bool held = false;
    };

    void pressed(quint32 id, quint32 time);

    HotKeyService &m_service;
    SystemShortcuts m_system;
    std::map<quint32, HotKey> m_live;
    quint32 m_next = 1;
    int m_suspended = 0;
    quint32 m_lastPressTime = 0;
};

} // namespace zuv

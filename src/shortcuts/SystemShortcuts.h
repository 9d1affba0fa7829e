#pragma once

#include "shortcuts/KeyCombo.h"

#include <QStringList>

#include <optional>
#include <vector>

namespace zuv {

class Keyboard;

// The desktop's own shortcuts, so that a combo it uses is refused with its name.
// Accelerators come as the desktop writes them and are read against the
// current layout; what cannot be read (media keys, mouse buttons) is skipped.
class SystemShortcuts {
public:
    struct Combo {
        quint32 keyCode = 0;
        quint32 modifiers = 0;
        bool operator==(const Combo &) const = default;
    };

    // GNOME's "<Super><Shift>d", "<Primary>Page_Up".
    static std::optional<Combo> parseGnome(const QString &accelerator, const Keyboard &keyboard);
    // KDE's "Meta+Shift+D", "Ctrl+Alt+Del".
    static std::optional<Combo> parseKde(const QString &shortcut, const Keyboard &keyboard);

    void load(const QStringList &gnome, const QStringList &kde, const Keyboard &keyboard);
    bool contains(const KeyCombo &combo) const;
    size_t size() const { return m_combos.size(); }

private:
    std::vector<Combo> m_combos;
};

} // namespace zuv

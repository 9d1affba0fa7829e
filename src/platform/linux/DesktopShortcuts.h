#pragma once

#include <QStringList>

namespace zuv::DesktopShortcuts {

// The desktop's own key bindings, as the desktop writes them: GNOME's
// accelerators ("<Super>d") from the GSettings schemas that are installed, and
// KDE's ("Meta+D") from `kglobalshortcutsrc` in the config folder.
QStringList gnome();
QStringList kde(const QString &configFolder);

} // namespace zuv::DesktopShortcuts

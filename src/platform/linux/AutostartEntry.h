#pragma once

#include "platform/LoginItems.h"

#include <QString>

namespace zuv {

// Open at login through the freedesktop autostart folder: a desktop file of ours in
// $XDG_CONFIG_HOME/autostart, switched off by `Hidden` or GNOME's own key.
class AutostartEntry final : public LoginItems {
public:
    // `folder` is the autostart folder; `executable` what the entry starts.
    AutostartEntry(QString folder, QString executable);

    static QString defaultFolder();
    QString file() const;

    Status status() const override;
    std::optional<QString> registerApp() override;
    std::optional<QString> unregisterApp() override;
    void openSettings() override;

private:
    QString m_folder;
    QString m_executable;
};

// X11 lets every client read the screen and send keys; on Wayland the desktop's
// portals ask at the moment of use.
class DesktopScreenAccess final : public ScreenAccess {
public:
    // `platform` is the Qt platform name ("xcb", "wayland", …).
    explicit DesktopScreenAccess(QString platform);

    bool screenRecording() const override;
    bool accessibility() const override;
    bool requestScreenRecording() override;
    bool requestAccessibility() override;
    QString reason() const override;

private:
    bool x11() const;
    QString m_platform;
};

} // namespace zuv

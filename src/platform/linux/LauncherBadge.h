#pragma once

#include "platform/Badge.h"

#include <QDBusConnection>
#include <QString>

namespace zuv {

// The count on the launcher icon through com.canonical.Unity.LauncherEntry, the
// signal that docks and panels (GNOME's Dash to Dock, KDE's task manager, Plank)
// listen to. A desktop that listens to nobody simply shows nothing.
class LauncherBadge final : public Badge {
public:
    explicit LauncherBadge(QDBusConnection bus = QDBusConnection::sessionBus(),
                           QString desktopFile = QStringLiteral("com.kelmor.zuv.mac.desktop"));

    void setCount(int count) override;
    int count() const override { return m_count; }

    static constexpr const char *objectPath = "/com/kelmor/zuv/LauncherEntry";

private:
    QDBusConnection m_bus;
    QString m_uri;
    int m_count = -1; // nothing sent yet
};

} // namespace zuv

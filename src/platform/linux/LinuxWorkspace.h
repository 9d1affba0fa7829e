#pragma once

#include "platform/Workspace.h"

#include <QByteArray>
#include <QHash>

#include <array>

struct xcb_connection_t;

namespace zuv {

// Desktop entries through GIO, windows through EWMH on an X11 connection of our
// own. Without a display, applications still launch; nothing is found in front.
class LinuxWorkspace final : public Workspace {
public:
    // What is known of one window, for telling which entry it belongs to.
    struct WindowFacts {
        QString instance;      // WM_CLASS, first part
        QString windowClass;   // WM_CLASS, second part
        QString gtkId;         // _GTK_APPLICATION_ID
        QString launchedEntry; // GIO_LAUNCHED_DESKTOP_FILE of its process, when its pid matches
    };
    struct Entry {
        QString id;
        QString path;
        QString startupWMClass;
    };
    // The desktop id a window belongs to, in GNOME Shell's order: StartupWMClass
    // against the instance, then the class; desktop-id guesses from both; the
    // GTK application id; the entry that launched its process.
    static std::optional<QString> match(const WindowFacts &window, const std::vector<Entry> &entries);

    explicit LinuxWorkspace(const QByteArray &display = {});
    ~LinuxWorkspace() override;

    std::optional<App> application(const QString &id) const override;
    std::optional<App> applicationAt(const QString &path) const override;
    std::vector<App> installed() const override;
    std::optional<QString> frontmost() const override;
    std::optional<QString> applicationOfProcess(qint64 pid) const override;
    std::optional<quint32> activeWindow() const override;
    bool activateWindow(quint32 window, quint32 time) override;
    std::optional<QRect> windowFrame(quint32 window) const override;
    void keepOutOfTaskbar(quint32 window) override;
    void showFiles(const QStringList &paths) override;
    bool activate(const QString &id, quint32 time) override;
    bool hide(const QString &id) override;
    QString launch(const App &app, quint32 time) override;

private:
    quint32 atom(const char *name) const;
    std::vector<quint32> windowsOf(const QString &id) const;
    std::optional<QString> owner(quint32 window, const std::vector<Entry> &entries) const;
    std::vector<Entry> entries() const;
    void message(quint32 window, quint32 type, const std::array<quint32, 5> &data) const;

    xcb_connection_t *m_connection = nullptr;
    quint32 m_root = 0;
    mutable QHash<QByteArray, quint32> m_atoms;
};

} // namespace zuv

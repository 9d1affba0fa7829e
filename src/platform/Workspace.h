#pragma once

#include <QRect>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace zuv {

// The desktop's applications and their windows. An application is a desktop
// entry: its desktop-file id stands where a bundle identifier would, the
// entry's file where a bundle's path would.
class Workspace {
public:
    struct App {
        QString id;   // "org.gnome.TextEditor.desktop"
        QString name; // as the desktop shows it
        QString path; // the desktop file
        QString icon; // an icon name or file, may be empty
        bool operator==(const App &) const = default;
    };

    virtual ~Workspace() = default;

    virtual std::optional<App> application(const QString &id) const = 0;
    virtual std::optional<App> applicationAt(const QString &path) const = 0;
    // What may be given a shortcut: the entries that the desktop shows.
    virtual std::vector<App> installed() const = 0;

    // The desktop id of the application whose window is active, when it can be told.
    virtual std::optional<QString> frontmost() const = 0;
    // The window that has the keyboard, to be given it back later.
    virtual std::optional<quint32> activeWindow() const = 0;
    // Gives a window the keyboard again; false when it is gone.
    virtual bool activateWindow(quint32 window, quint32 time) = 0;
    // Asks the window manager to leave a shown window of ours out of the taskbar and pager.
    virtual void keepOutOfTaskbar(quint32 window) = 0;
    // Shows files in the desktop's file manager, or opens their folder.
    virtual void showFiles(const QStringList &paths) = 0;
    // Where a window is on the screen, its frame included.
    virtual std::optional<QRect> windowFrame(quint32 window) const = 0;
    // The desktop id of the application a process belongs to, when it can be told.
    virtual std::optional<QString> applicationOfProcess(qint64 pid) const = 0;
    // Brings a window of the application forward; false when it has none.
    // `time` is the X time of the key press that asked for it.
    virtual bool activate(const QString &id, quint32 time) = 0;
    // Minimises every window of the application; false when it has none.
    virtual bool hide(const QString &id) = 0;
    // Starts the application; the error's text, or empty when it started.
    virtual QString launch(const App &app, quint32 time) = 0;
};

} // namespace zuv

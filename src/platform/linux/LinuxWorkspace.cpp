#include "platform/linux/LinuxWorkspace.h"

#include <QCoreApplication>
#include <QFile>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

#include "platform/linux/Xcb.h"

// GLib names a field "signals", which Qt keeps as a keyword.
#undef signals
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#define signals Q_SIGNALS

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>

namespace zuv {

namespace {

std::optional<Workspace::App> fromInfo(GDesktopAppInfo *info, const QString &fallbackId = {})
{
    if (!info)
        return std::nullopt;
    auto *app = G_APP_INFO(info);
    Workspace::App out;
    const char *id = g_app_info_get_id(app);
    out.id = id ? QString::fromUtf8(id) : fallbackId;
    out.name = QString::fromUtf8(g_app_info_get_name(app));
    const char *file = g_desktop_app_info_get_filename(info);
    out.path = file ? QString::fromUtf8(file) : QString();
    if (GIcon *icon = g_app_info_get_icon(app)) {
        gchar *text = g_icon_to_string(icon);
        out.icon = QString::fromUtf8(text);
        g_free(text);
    }
    g_object_unref(info);
    return out;
}

QString lower(const QString &s) { return s.toLower(); }

} // namespace

std::optional<QString> LinuxWorkspace::match(const WindowFacts &w, const std::vector<Entry> &entries)
{
    for (const QString &wmClass : {w.instance, w.windowClass}) {
        if (wmClass.isEmpty())
            continue;
        for (const Entry &e : entries)
            if (!e.startupWMClass.isEmpty() && e.startupWMClass == wmClass)
                return e.id;
    }
    for (const QString &wmClass : {w.instance, w.windowClass}) {
        if (wmClass.isEmpty())
            continue;
        const QString guess = lower(wmClass).replace(QLatin1Char(' '), QLatin1Char('-')) + QStringLiteral(".desktop");
        for (const Entry &e : entries)
            if (lower(e.id) == guess)
                return e.id;
    }
    if (!w.gtkId.isEmpty()) {
        for (const Entry &e : entries)
            if (e.id == w.gtkId + QStringLiteral(".desktop"))
                return e.id;
    }
    if (!w.launchedEntry.isEmpty()) {
        for (const Entry &e : entries)
            if (e.path == w.launchedEntry)
                return e.id;
    }
    return std::nullopt;
}

LinuxWorkspace::LinuxWorkspace(const QByteArray &display)
{
    const xcb::Connection opened = xcb::connect(display);
    m_connection = opened.connection;
    m_root = opened.root;
}

LinuxWorkspace::~LinuxWorkspace()
{
    if (m_connection)
        xcb_disconnect(m_connection);
}

std::optional<Workspace::App> LinuxWorkspace::application(const QString &id) const
{
    return fromInfo(g_desktop_app_info_new(id.toUtf8().constData()), id);
}

std::optional<Workspace::App> LinuxWorkspace::applicationAt(const QString &path) const
{
    if (!QFileInfo(path).isFile())
        return std::nullopt;
    return fromInfo(g_desktop_app_info_new_from_filename(QFile::encodeName(path).constData()), QFileInfo(path).fileName());
}

std::vector<Workspace::App> LinuxWorkspace::installed() const
{
    std::vector<App> out;
    GList *all = g_app_info_get_all();
    for (GList *l = all; l; l = l->next) {
        auto *info = G_APP_INFO(l->data);
        if (g_app_info_should_show(info) && G_IS_DESKTOP_APP_INFO(info)) {
            g_object_ref(info);
            if (auto app = fromInfo(G_DESKTOP_APP_INFO(info)))
                out.push_back(std::move(*app));
        }
    }
    g_list_free_full(all, g_object_unref);
    return out;
}

std::vector<LinuxWorkspace::Entry> LinuxWorkspace::entries() const
{
    std::vector<Entry> out;
    GList *all = g_app_info_get_all();
    for (GList *l = all; l; l = l->next) {
        if (!G_IS_DESKTOP_APP_INFO(l->data))
            continue;
        auto *info = G_DESKTOP_APP_INFO(l->data);
        const char *id = g_app_info_get_id(G_APP_INFO(info));
        const char *file = g_desktop_app_info_get_filename(info);
        const char *wmClass = g_desktop_app_info_get_startup_wm_class(info);
        out.push_back({QString::fromUtf8(id ? id : ""), QString::fromUtf8(file ? file : ""),
                       QString::fromUtf8(wmClass ? wmClass : "")});
    }
    g_list_free_full(all, g_object_unref);
    return out;
}

quint32 LinuxWorkspace::atom(const char *name) const
{
    const auto cached = m_atoms.constFind(name);
    if (cached != m_atoms.constEnd())
        return *cached;
    const quint32 value = xcb::atom(m_connection, name);
    m_atoms.insert(name, value);
    return value;
}

namespace {

QByteArray property(xcb_connection_t *c, quint32 window, quint32 name, quint32 type)
{
    xcb::Reply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(c, xcb_get_property(c, 0, window, name, type, 0, 4096), nullptr));
    if (!reply)
        return {};
    return QByteArray(static_cast<const char *>(xcb_get_property_value(reply.get())),
                      xcb_get_property_value_length(reply.get()));
}

std::vector<quint32> windows(const QByteArray &value)
{
    std::vector<quint32> out(size_t(value.size()) / 4);
    if (!out.empty())
        memcpy(out.data(), value.constData(), out.size() * 4);
    return out;
}

// GIO_LAUNCHED_DESKTOP_FILE of a process, trusted only when its pid is that process.
QString launchedEntry(quint32 pid)
{
    QFile file(QStringLiteral("/proc/%1/environ").arg(pid));
    if (!pid || !file.open(QIODevice::ReadOnly))
        return {};
    QString entry;
    bool ownPid = false;
    for (const QByteArray &pair : file.read(1 << 20).split('\0')) {
        if (pair.startsWith("GIO_LAUNCHED_DESKTOP_FILE="))
            entry = QFile::decodeName(pair.mid(26));
        else if (pair.startsWith("GIO_LAUNCHED_DESKTOP_FILE_PID="))
            ownPid = pair.mid(30).toUInt() == pid;
    }
    return ownPid ? entry : QString();
}

} // namespace

std::optional<QString> LinuxWorkspace::owner(quint32 window, const std::vector<Entry> &entries) const
{
    WindowFacts facts;
    const QList<QByteArray> wmClass = property(m_connection, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING).split('\0');
    facts.instance = QString::fromUtf8(wmClass.value(0));
    facts.windowClass = QString::fromUtf8(wmClass.value(1));
    facts.gtkId = QString::fromUtf8(property(m_connection, window, atom("_GTK_APPLICATION_ID"), atom("UTF8_STRING")));
    const QByteArray pid = property(m_connection, window, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL);
    if (pid.size() == 4) {
        quint32 value = 0;
        memcpy(&value, pid.constData(), 4);
        facts.launchedEntry = launchedEntry(value);
    }
    return match(facts, entries);
}

std::optional<QString> LinuxWorkspace::frontmost() const
{
    if (!m_connection)
        return std::nullopt;
    const auto active = windows(property(m_connection, m_root, atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_WINDOW));
    if (active.empty() || !active[0])
        return std::nullopt;
    return owner(active[0], entries());
}

std::optional<QString> LinuxWorkspace::applicationOfProcess(qint64 pid) const
{
    if (pid <= 0)
        return std::nullopt;
    if (pid == QCoreApplication::applicationPid())
        return QStringLiteral("com.kelmor.zuv.mac.desktop"); // our own copies
    if (m_connection) {
        // A window of the process tells best; a process may have many, all of one entry.
        for (quint32 w : windows(property(m_connection, m_root, atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW))) {
            const QByteArray value = property(m_connection, w, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL);
            quint32 windowPid = 0;
            if (value.size() == 4)
                memcpy(&windowPid, value.constData(), 4);
            if (windowPid == quint64(pid))
                return owner(w, entries());
        }
    }
    const QString launched = launchedEntry(quint32(pid));
    if (launched.isEmpty())
        return std::nullopt;
    WindowFacts facts;
    facts.launchedEntry = launched;
    return match(facts, entries());
}

std::optional<quint32> LinuxWorkspace::activeWindow() const
{
    if (!m_connection)
        return std::nullopt;
    const auto active = windows(property(m_connection, m_root, atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_WINDOW));
    if (active.empty() || !active[0])
        return std::nullopt;
    return active[0];
}

bool LinuxWorkspace::activateWindow(quint32 window, quint32 time)
{
    if (!m_connection)
        return false;
    xcb::Reply<xcb_get_window_attributes_reply_t> alive(
        xcb_get_window_attributes_reply(m_connection, xcb_get_window_attributes(m_connection, window), nullptr));
    if (!alive)
        return false;
    // Source 2: on the person's behalf, as a pager would.
    message(window, atom("_NET_ACTIVE_WINDOW"), {2, time, 0, 0, 0});
    xcb_flush(m_connection);
    return true;
}

void LinuxWorkspace::keepOutOfTaskbar(quint32 window)
{
    if (!m_connection)
        return;
    // 1: add, with the source 2 of a request on the person's behalf.
    message(window, atom("_NET_WM_STATE"), {1, atom("_NET_WM_STATE_SKIP_TASKBAR"), atom("_NET_WM_STATE_SKIP_PAGER"), 2, 0});
    xcb_flush(m_connection);
}

void LinuxWorkspace::showFiles(const QStringList &paths)
{
    QStringList uris;
    for (const QString &p : paths)
        uris << QUrl::fromLocalFile(p).toString();
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("/org/freedesktop/FileManager1"),
                                                       QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("ShowItems"));
    call << uris << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 2000);
    // Where no file manager answers on the bus, the folder opens.
    if (reply.type() == QDBusMessage::ErrorMessage && !paths.isEmpty())
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(paths.first()).absolutePath()));
}

std::optional<QRect> LinuxWorkspace::windowFrame(quint32 window) const
{
    if (!m_connection)
        return std::nullopt;
    xcb::Reply<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(m_connection, xcb_get_geometry(m_connection, window), nullptr));
    xcb::Reply<xcb_translate_coordinates_reply_t> at(xcb_translate_coordinates_reply(
        m_connection, xcb_translate_coordinates(m_connection, window, m_root, 0, 0), nullptr));
    if (!geometry || !at)
        return std::nullopt;
    QRect frame(at->dst_x, at->dst_y, geometry->width, geometry->height);
    // The window manager's decorations: left, right, top, bottom.
    const QByteArray extents = property(m_connection, window, atom("_NET_FRAME_EXTENTS"), XCB_ATOM_CARDINAL);
    if (extents.size() == 16) {
        quint32 e[4];
        memcpy(e, extents.constData(), 16);
        frame.adjust(-int(e[0]), -int(e[2]), int(e[1]), int(e[3]));
    }
    return frame;
}

std::vector<quint32> LinuxWorkspace::windowsOf(const QString &id) const
{
    std::vector<quint32> out;
    if (!m_connection)
        return out;
    const auto all = entries();
    // Bottom to top, so that the last one is the window in front.
    for (quint32 w : windows(property(m_connection, m_root, atom("_NET_CLIENT_LIST_STACKING"), XCB_ATOM_WINDOW))) {
        if (owner(w, all) == id)
            out.push_back(w);
    }
    return out;
}

void LinuxWorkspace::message(quint32 window, quint32 type, const std::array<quint32, 5> &data) const
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = type;
    for (size_t i = 0; i < data.size(); ++i)
        event.data.data32[i] = data[i];
    xcb_send_event(m_connection, 0, m_root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&event));
}

bool LinuxWorkspace::activate(const QString &id, quint32 time)
{
    const auto found = windowsOf(id);
    if (found.empty())
        return false;
    const quint32 window = found.back();
    // Onto its desktop first: window managers will not cross desktops for a request.
    const QByteArray desktop = property(m_connection, window, atom("_NET_WM_DESKTOP"), XCB_ATOM_CARDINAL);
    if (desktop.size() == 4) {
        quint32 number = 0;
        memcpy(&number, desktop.constData(), 4);
        if (number != 0xffffffffu)
            message(m_root, atom("_NET_CURRENT_DESKTOP"), {number, time, 0, 0, 0});
    }
    const auto active = windows(property(m_connection, m_root, atom("_NET_ACTIVE_WINDOW"), XCB_ATOM_WINDOW));
    // Source 2: the person asked, with the key press's own time, which focus-stealing
    // prevention weighs.
    message(window, atom("_NET_ACTIVE_WINDOW"), {2, time, active.empty() ? 0 : active[0], 0, 0});
    xcb_flush(m_connection);
    return true;
}

bool LinuxWorkspace::hide(const QString &id)
{
    const auto found = windowsOf(id);
    for (quint32 window : found)
        message(window, atom("WM_CHANGE_STATE"), {3 /* IconicState */, 0, 0, 0, 0});
    if (m_connection)
        xcb_flush(m_connection);
    return !found.empty();
}

QString LinuxWorkspace::launch(const App &app, quint32 time)
{
    GDesktopAppInfo *info = g_desktop_app_info_new(app.id.toUtf8().constData());
    if (!info && !app.path.isEmpty())
        info = g_desktop_app_info_new_from_filename(QFile::encodeName(app.path).constData());
    if (!info)
        return QCoreApplication::translate("LinuxWorkspace", "The application is no longer installed.");
    GAppLaunchContext *context = g_app_launch_context_new();
    // The key press's time rides along, so that the new window may take the focus.
    const QByteArray startup = QStringLiteral("zuv-%1-%2_TIME%3")
                                   .arg(getpid())
                                   .arg(QFileInfo(app.id).completeBaseName())
                                   .arg(time)
                                   .toUtf8();
    g_app_launch_context_setenv(context, "DESKTOP_STARTUP_ID", startup.constData());
    GError *error = nullptr;
    const gboolean started = g_app_info_launch(G_APP_INFO(info), nullptr, context, &error);
    QString text;
    if (!started)
        text = error ? QString::fromUtf8(error->message)
                     : QCoreApplication::translate("LinuxWorkspace", "The application could not be started.");
    if (error)
        g_error_free(error);
    g_object_unref(context);
    g_object_unref(info);
    return text;
}

} // namespace zuv

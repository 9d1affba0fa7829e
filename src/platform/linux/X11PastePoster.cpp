#include "platform/linux/X11PastePoster.h"

#include "platform/linux/Xcb.h"

#include <QList>
#include <QSet>

#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

namespace zuv {

namespace {

constexpr xcb_keysym_t keysymV = 0x0076;
constexpr xcb_keysym_t keysymControl = 0xffe3;
constexpr xcb_keysym_t keysymShift = 0xffe1;
// The V key on the standard PC keyboard, where the layout has no "v".
constexpr xcb_keycode_t keycodeV = 55;

} // namespace

X11PastePoster::X11PastePoster(const QByteArray &display)
{
    const xcb::Connection connection = xcb::connect(display);
    m_connection = connection.connection;
    m_root = connection.root;
    if (!m_connection)
        return;
    const xcb_query_extension_reply_t *xtest = xcb_get_extension_data(m_connection, &xcb_test_id);
    m_xtest = xtest && xtest->present;
}

X11PastePoster::~X11PastePoster()
{
    if (m_connection)
        xcb_disconnect(m_connection);
}

bool X11PastePoster::isTerminal(const QString &instance, const QString &windowClass)
{
    static const QSet<QString> known = {
        QStringLiteral("konsole"),     QStringLiteral("kitty"),   QStringLiteral("alacritty"), QStringLiteral("tilix"),
        QStringLiteral("guake"),       QStringLiteral("tilda"),   QStringLiteral("kgx"),       QStringLiteral("org.gnome.console"),
        QStringLiteral("wezterm"),     QStringLiteral("foot"),    QStringLiteral("urxvt"),     QStringLiteral("terminology"),
        QStringLiteral("yakuake"),     QStringLiteral("st-256color"), QStringLiteral("org.wezfurlong.wezterm"),
        QStringLiteral("terminator"),
    };
    for (const QString &name : {instance.toLower(), windowClass.toLower()}) {
        if (known.contains(name) || name.contains(QLatin1String("term")))
            return true;
    }
    return false;
}

bool X11PastePoster::postPaste()
{
    if (!m_xtest)
        return false;
    const xcb_atom_t activeAtom = xcb::atom(m_connection, "_NET_ACTIVE_WINDOW");
    xcb::Reply<xcb_get_property_reply_t> active(xcb_get_property_reply(
        m_connection, xcb_get_property(m_connection, 0, m_root, activeAtom, XCB_ATOM_WINDOW, 0, 1), nullptr));
    bool terminal = false;
    if (active && xcb_get_property_value_length(active.get()) == 4) {
        const xcb_window_t window = *static_cast<xcb_window_t *>(xcb_get_property_value(active.get()));
        xcb::Reply<xcb_get_property_reply_t> wmClass(xcb_get_property_reply(
            m_connection, xcb_get_property(m_connection, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 256), nullptr));
        if (wmClass) {
            const QList<QByteArray> parts = QByteArray(static_cast<const char *>(xcb_get_property_value(wmClass.get())),
                                                       xcb_get_property_value_length(wmClass.get()))
                                                .split('\0');
            terminal = isTerminal(QString::fromUtf8(parts.value(0)), QString::fromUtf8(parts.value(1)));
        }
    }

    // Key codes of the layout in use now.
    xcb_key_symbols_t *symbols = xcb_key_symbols_alloc(m_connection);
    const auto code = [symbols](xcb_keysym_t sym, xcb_keycode_t fallback) {
        xcb::Reply<xcb_keycode_t> codes(xcb_key_symbols_get_keycode(symbols, sym));
        return codes && codes.get()[0] != XCB_NO_SYMBOL ? codes.get()[0] : fallback;
    };
    const xcb_keycode_t v = code(keysymV, keycodeV);
    const xcb_keycode_t control = code(keysymControl, 37);
    const xcb_keycode_t shift = code(keysymShift, 50);
    xcb_key_symbols_free(symbols);

    const auto key = [this](uint8_t type, xcb_keycode_t keycode) {
        xcb_test_fake_input(m_connection, type, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    };
    key(XCB_KEY_PRESS, control);
    if (terminal)
        key(XCB_KEY_PRESS, shift);
    key(XCB_KEY_PRESS, v);
    key(XCB_KEY_RELEASE, v);
    if (terminal)
        key(XCB_KEY_RELEASE, shift);
    key(XCB_KEY_RELEASE, control);
    xcb_flush(m_connection);
    return true;
}

} // namespace zuv

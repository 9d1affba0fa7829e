#pragma once

#include <QByteArray>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace zuv::xcb {

struct Free {
    void operator()(void *p) const { std::free(p); }
};
// A reply or error that xcb allocated for us.
template<class T>
using Reply = std::unique_ptr<T, Free>;

// A connection of our own to `display` ($DISPLAY when empty) and its screen's
// root window; a null connection when none could be made.
struct Connection {
    xcb_connection_t *connection = nullptr;
    xcb_window_t root = 0;
};

inline Connection connect(const QByteArray &display)
{
    int screen = 0;
    xcb_connection_t *c = xcb_connect(display.isEmpty() ? nullptr : display.constData(), &screen);
    if (!c || xcb_connection_has_error(c)) {
        if (c)
            xcb_disconnect(c);
        return {};
    }
    auto roots = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screen && roots.rem; ++i)
        xcb_screen_next(&roots);
    return {c, roots.data->root};
}

inline xcb_atom_t atom(xcb_connection_t *c, const char *name)
{
    Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

} // namespace zuv::xcb

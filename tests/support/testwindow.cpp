// A window for tests of app activation: it names itself ZuvTestApp, says its
// pid, writes its environment to the file given, and lives until killed. A
// second argument gives it another class, so that it belongs to no entry.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <xcb/xcb.h>

extern char **environ;

static xcb_atom_t atom(xcb_connection_t *c, const char *name)
{
    xcb_intern_atom_reply_t *r = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, (uint16_t)strlen(name), name), NULL);
    xcb_atom_t a = r ? r->atom : XCB_ATOM_NONE;
    free(r);
    return a;
}

int main(int argc, char **argv)
{
    if (argc > 1) {
        FILE *f = fopen(argv[1], "w");
        if (f) {
            for (char **e = environ; *e; ++e)
                fprintf(f, "%s\n", *e);
            fclose(f);
        }
    }
    xcb_connection_t *c = xcb_connect(NULL, NULL);
    if (xcb_connection_has_error(c))
        return 1;
    xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    xcb_window_t w = xcb_generate_id(c);
    xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, 10, 10, 200, 100, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen->root_visual, 0, NULL);
    char wmClass[256] = "zuvtestapp\0ZuvTestApp";
    size_t classSize = sizeof "zuvtestapp\0ZuvTestApp";
    if (argc > 2 && strlen(argv[2]) < 120) {
        const size_t n = strlen(argv[2]);
        memcpy(wmClass, argv[2], n + 1);
        memcpy(wmClass + n + 1, argv[2], n + 1);
        classSize = 2 * (n + 1);
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, (uint32_t)classSize, wmClass);
    uint32_t pid = (uint32_t)getpid();
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, atom(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 8, "Test app");
    xcb_map_window(c, w);
    xcb_flush(c);
    xcb_generic_event_t *e;
    while ((e = xcb_wait_for_event(c)))
        free(e);
    return 0;
}

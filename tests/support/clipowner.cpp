// A clipboard owner for tests, on raw xcb, that can misbehave on demand.
//
//   zuv-clipowner [options] TYPE::VALUE...    (VALUE "@path" reads a file)
//     --log FILE          appends the name of every target asked for
//     --stall TYPE        never answers a request for TYPE
//     --incr N            sends values in INCR chunks of N bytes
//     --announce BYTES    announces this INCR size instead of the real one
//     --die-after N       exits after sending N INCR chunks
//     --reown             takes the clipboard again after every answer
//     --release-after MS  gives the clipboard up after MS milliseconds, and stays
//
// It prints "owned" when it owns the clipboard, and exits when another client
// takes it.
#include <xcb/xcb.h>

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

xcb_connection_t *c;
xcb_window_t window;

xcb_atom_t atom(const std::string &name)
{
    auto *reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(name.size()), name.c_str()), nullptr);
    const xcb_atom_t a = reply ? reply->atom : XCB_NONE;
    std::free(reply);
    return a;
}

std::string name(xcb_atom_t a)
{
    auto *reply = xcb_get_atom_name_reply(c, xcb_get_atom_name(c, a), nullptr);
    std::string out = reply ? std::string(xcb_get_atom_name_name(reply), size_t(xcb_get_atom_name_name_length(reply))) : "";
    std::free(reply);
    return out;
}

void notify(const xcb_selection_request_event_t *request, xcb_atom_t property)
{
    xcb_selection_notify_event_t event{};
    event.response_type = XCB_SELECTION_NOTIFY;
    event.time = request->time;
    event.requestor = request->requestor;
    event.selection = request->selection;
    event.target = request->target;
    event.property = property;
    xcb_send_event(c, 0, request->requestor, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char *>(&event));
}

struct Transfer {
    xcb_window_t requestor;
    xcb_atom_t property;
    xcb_atom_t type;
    std::string data;
    size_t offset = 0;
    bool done = false;
};

} // namespace

int main(int argc, char **argv)
{
    std::string logPath, stall;
    size_t incr = 0, dieAfter = 0;
    long long announce = -1, releaseAfter = -1;
    bool reown = false;
    std::vector<std::pair<std::string, std::string>> values;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (arg == "--log")
            logPath = next();
        else if (arg == "--stall")
            stall = next();
        else if (arg == "--incr")
            incr = std::stoul(next());
        else if (arg == "--announce")
            announce = std::stoll(next());
        else if (arg == "--die-after")
            dieAfter = std::stoul(next());
        else if (arg == "--reown")
            reown = true;
        else if (arg == "--release-after")
            releaseAfter = std::stoll(next());
        else if (const size_t eq = arg.find("::"); eq != std::string::npos) {
            std::string value = arg.substr(eq + 2);
            if (!value.empty() && value[0] == '@') {
                std::ifstream file(value.substr(1), std::ios::binary);
                std::stringstream s;
                s << file.rdbuf();
                value = s.str();
            }
            values.emplace_back(arg.substr(0, eq), value);
        }
    }

    c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c))
        return 2;
    const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    window = xcb_generate_id(c);
    const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                      XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &mask);
    const xcb_atom_t clipboard = atom("CLIPBOARD"), targets = atom("TARGETS"), incrAtom = atom("INCR");
    std::map<xcb_atom_t, std::string> offered;
    std::vector<xcb_atom_t> list{targets};
    for (const auto &[type, value] : values) {
        const xcb_atom_t a = atom(type);
        offered[a] = value;
        list.push_back(a);
    }
    const auto own = [&] {
        xcb_set_selection_owner(c, window, clipboard, XCB_CURRENT_TIME);
        xcb_flush(c);
    };
    own();
    auto *owner = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, clipboard), nullptr);
    if (!owner || owner->owner != window)
        return 3;
    std::free(owner);
    std::printf("owned\n");
    std::fflush(stdout);

    std::ofstream log;
    if (!logPath.empty())
        log.open(logPath, std::ios::app);
    std::vector<Transfer> transfers;
    size_t chunks = 0;
    const auto started = std::chrono::steady_clock::now();
    bool released = false;

    const auto sendChunk = [&](Transfer &t) {
        const size_t n = std::min(incr, t.data.size() - t.offset);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, t.requestor, t.property, t.type, 8, uint32_t(n),
                            t.data.data() + t.offset);
        t.offset += n;
        t.done = n == 0;
        xcb_flush(c);
        if (n && dieAfter && ++chunks >= dieAfter)
            std::_Exit(0);
    };

    for (;;) {
        int timeout = -1;
        if (releaseAfter >= 0 && !released) {
            const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
            timeout = int(std::max<long long>(0, releaseAfter - elapsed));
            if (timeout == 0) {
                xcb_set_selection_owner(c, XCB_NONE, clipboard, XCB_CURRENT_TIME);
                xcb_flush(c);
                released = true;
                timeout = -1;
            }
        }
        xcb_generic_event_t *event = xcb_poll_for_event(c);
        if (!event) {
            if (xcb_connection_has_error(c))
                return 0;
            pollfd fd{xcb_get_file_descriptor(c), POLLIN, 0};
            poll(&fd, 1, timeout);
            continue;
        }
        const uint8_t type = event->response_type & 0x7f;
        if (type == XCB_SELECTION_CLEAR && !released) {
            std::free(event);
            return 0;
        }
        if (type == XCB_PROPERTY_NOTIFY) {
            const auto *p = reinterpret_cast<xcb_property_notify_event_t *>(event);
            if (p->state == XCB_PROPERTY_DELETE) {
                for (Transfer &t : transfers)
                    if (!t.done && t.requestor == p->window && t.property == p->atom)
                        sendChunk(t);
            }
        } else if (type == XCB_SELECTION_REQUEST) {
            const auto *r = reinterpret_cast<xcb_selection_request_event_t *>(event);
            const std::string target = name(r->target);
            if (log.is_open())
                log << target << std::endl;
            const xcb_atom_t property = r->property == XCB_NONE ? r->target : r->property;
            if (target == stall) {
                // never answered
            } else if (r->target == targets) {
                xcb_change_property(c, XCB_PROP_MODE_REPLACE, r->requestor, property, XCB_ATOM_ATOM, 32,
                                    uint32_t(list.size()), list.data());
                notify(r, property);
            } else if (auto it = offered.find(r->target); it != offered.end()) {
                if (incr || announce >= 0) {
                    const uint32_t size = uint32_t(announce >= 0 ? announce : (long long)it->second.size());
                    const uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
                    xcb_change_window_attributes(c, r->requestor, XCB_CW_EVENT_MASK, &events);
                    xcb_change_property(c, XCB_PROP_MODE_REPLACE, r->requestor, property, incrAtom, 32, 1, &size);
                    if (!incr)
                        incr = 65536;
                    transfers.push_back({r->requestor, property, r->target, it->second});
                } else {
                    xcb_change_property(c, XCB_PROP_MODE_REPLACE, r->requestor, property, r->target, 8,
                                        uint32_t(it->second.size()), it->second.data());
                }
                notify(r, property);
            } else {
                notify(r, XCB_NONE);
            }
            xcb_flush(c);
            if (reown)
                own();
        }
        std::free(event);
    }
}

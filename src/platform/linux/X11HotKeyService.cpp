#include "platform/linux/X11HotKeyService.h"

#include "base/Clock.h"
#include "base/Log.h"
#include "platform/linux/Xcb.h"
#include "platform/linux/XkbKeyNames.h"

#include <QMetaObject>
#include <QPointer>
#include <QSocketNotifier>

// xkb.h names a field "explicit", which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <cstdlib>
#include <memory>

namespace zuv {

namespace {

constexpr quint32 carbonCommand = 256, carbonShift = 512, carbonOption = 2048, carbonControl = 4096;

using xcb::Reply;

// The modifier bits of a key event, without the pointer buttons and group bits.
constexpr quint16 modifierBits = 0xff;

} // namespace

X11HotKeyService::X11HotKeyService(Clock &clock, const QByteArray &display, QObject *parent)
    : HotKeyService(parent), m_clock(clock)
{
    const xcb::Connection opened = xcb::connect(display);
    if (!opened.connection) {
        m_problem = tr("Global shortcuts need an X11 display, and none could be reached.");
        return;
    }
    m_connection = opened.connection;
    m_root = opened.root;

    quint8 firstEvent = 0;
    if (!xkb_x11_setup_xkb_extension(m_connection, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
                                     XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &firstEvent, nullptr)) {
        m_problem = tr("Global shortcuts need the X keyboard extension, which this display lacks.");
        return;
    }
    m_xkbEvent = firstEvent;
    m_device = xkb_x11_get_core_keyboard_device_id(m_connection);
    m_context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (m_device < 0 || !m_context || !loadKeymap()) {
        m_problem = tr("The keyboard's layout could not be read, so global shortcuts are off.");
        return;
    }

    // Keymap and layout changes come as XKB events, not as core MappingNotify.
    const quint16 events = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY
        | XCB_XKB_EVENT_TYPE_STATE_NOTIFY;
    const quint16 mapParts = XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS | XCB_XKB_MAP_PART_MODIFIER_MAP
        | XCB_XKB_MAP_PART_EXPLICIT_COMPONENTS | XCB_XKB_MAP_PART_KEY_ACTIONS | XCB_XKB_MAP_PART_VIRTUAL_MODS
        | XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP;
    xcb_xkb_select_events_details_t details{};
    details.affectNewKeyboard = XCB_XKB_NKN_DETAIL_KEYCODES;
    details.newKeyboardDetails = XCB_XKB_NKN_DETAIL_KEYCODES;
    details.affectState = XCB_XKB_STATE_PART_GROUP_STATE | XCB_XKB_STATE_PART_MODIFIER_STATE;
    details.stateDetails = details.affectState;
    xcb_xkb_select_events_aux(m_connection, xcb_xkb_device_spec_t(m_device), events, 0, 0, mapParts, mapParts,
                              &details);
    // On our own connection only: a held key repeats as presses without releases,
    // which the set of keys down turns into one press.
    Reply<xcb_xkb_per_client_flags_reply_t>(xcb_xkb_per_client_flags_reply(
        m_connection,
        xcb_xkb_per_client_flags(m_connection, xcb_xkb_device_spec_t(m_device),
                                 XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT,
                                 XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT, 0, 0, 0),
        nullptr));

    m_notifier = new QSocketNotifier(xcb_get_file_descriptor(m_connection), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &X11HotKeyService::readEvents);
    // Through XWayland the grabs are taken, but the compositor hands keys to X11
    // clients only while one of their windows is active.
    if (qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland"))
        m_problem = tr("This is a Wayland session: global shortcuts work only while a window of an X11 "
                       "application is active.");
}

X11HotKeyService::~X11HotKeyService()
{
    if (m_connection) {
        for (auto &[id, grab] : m_grabs)
            ungrabOnServer(grab);
        xcb_flush(m_connection);
        xcb_disconnect(m_connection);
    }
    xkb_state_unref(m_state);
    xkb_keymap_unref(m_keymap);
    xkb_context_unref(m_context);
}

bool X11HotKeyService::loadKeymap()
{
    xkb_keymap *keymap = xkb_x11_keymap_new_from_device(m_context, m_connection, m_device, XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (!keymap)
        return false;
    xkb_state *state = xkb_x11_state_new_from_device(keymap, m_connection, m_device);
    if (!state) {
        xkb_keymap_unref(keymap);
        return false;
    }
    xkb_state_unref(m_state);
    xkb_keymap_unref(m_keymap);
    m_keymap = keymap;
    m_state = state;
    findModifiers();
    return true;
}

// Super, Alt, NumLock and ScrollLock sit on whichever of Mod1-Mod5 the modifier
// map puts them; nothing about them is fixed.
void X11HotKeyService::findModifiers()
{
    m_super = m_alt = m_numLock = m_scrollLock = 0;
    Reply<xcb_get_modifier_mapping_reply_t> map(
        xcb_get_modifier_mapping_reply(m_connection, xcb_get_modifier_mapping(m_connection), nullptr));
    if (!map)
        return;
    const xcb_keycode_t *keys = xcb_get_modifier_mapping_keycodes(map.get());
    const int perModifier = map->keycodes_per_modifier;
    for (int modifier = 3; modifier < 8; ++modifier) { // Mod1 to Mod5
        const quint16 bit = quint16(1u << modifier);
        for (int i = 0; i < perModifier; ++i) {
            const xcb_keycode_t key = keys[modifier * perModifier + i];
            if (!key)
                continue;
            const xkb_keysym_t *syms = nullptr;
            const int count = xkb_keymap_key_get_syms_by_level(m_keymap, key, 0, 0, &syms);
            for (int s = 0; s < count; ++s) {
                switch (syms[s]) {
                case XKB_KEY_Super_L:
                case XKB_KEY_Super_R:
                    m_super = m_super ? m_super : bit;
                    break;
                case XKB_KEY_Alt_L:
                case XKB_KEY_Alt_R:
                    m_alt = m_alt ? m_alt : bit;
                    break;
                case XKB_KEY_Num_Lock:
                    m_numLock = bit;
                    break;
                case XKB_KEY_Scroll_Lock:
                    m_scrollLock = bit;
                    break;
                default:
                    break;
                }
            }
        }
    }
    if (!m_alt)
        m_alt = XCB_MOD_MASK_1;
    if (!m_super)
        m_super = XCB_MOD_MASK_4;
}

std::vector<quint16> X11HotKeyService::lockVariants() const
{
    std::vector<quint16> locks{XCB_MOD_MASK_LOCK};
    for (quint16 bit : {m_numLock, m_scrollLock}) {
        if (bit && bit != m_super && bit != m_alt)
            locks.push_back(bit);
    }
    std::vector<quint16> variants;
    for (quint32 subset = 0; subset < (1u << locks.size()); ++subset) {
        quint16 mask = 0;
        for (size_t i = 0; i < locks.size(); ++i)
            if (subset & (1u << i))
                mask |= locks[i];
        variants.push_back(mask);
    }
    return variants;
}

quint8 X11HotKeyService::keyFor(quint32 keyCode) const
{
    const char *name = XkbKeyNames::forKeyCode(keyCode);
    if (!name || !m_keymap)
        return 0;
    const xkb_keycode_t key = xkb_keymap_key_by_name(m_keymap, name);
    return key == XKB_KEYCODE_INVALID || key > 255 ? 0 : quint8(key);
}

bool X11HotKeyService::grabOnServer(Grab &grab)
{
    const quint8 key = keyFor(grab.keyCode);
    if (!key)
        return false;
    quint16 state = 0;
    if (grab.modifiers & carbonShift)
        state |= XCB_MOD_MASK_SHIFT;
    if (grab.modifiers & carbonControl)
        state |= XCB_MOD_MASK_CONTROL;
    if (grab.modifiers & carbonOption)
        state |= m_alt;
    if (grab.modifiers & carbonCommand)
        state |= m_super;
    // Checked, every variant, and all or nothing: a refusal leaves no grab behind.
    std::vector<xcb_void_cookie_t> cookies;
    for (quint16 variant : lockVariants())
        cookies.push_back(xcb_grab_key_checked(m_connection, 1, m_root, quint16(state | variant), key,
                                               XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
    bool refused = false;
    for (const auto &cookie : cookies) {
        if (xcb_generic_error_t *error = xcb_request_check(m_connection, cookie)) {
            refused = true;
            std::free(error);
        }
    }
    grab.key = key;
    grab.state = state;
    if (refused) {
        ungrabOnServer(grab);
        return false;
    }
    // Replies may have brought events along that the socket will not announce again.
    QMetaObject::invokeMethod(this, &X11HotKeyService::readEvents, Qt::QueuedConnection);
    return true;
}

void X11HotKeyService::ungrabOnServer(Grab &grab)
{
    if (!grab.key)
        return;
    for (quint16 variant : lockVariants())
        xcb_ungrab_key(m_connection, grab.key, m_root, quint16(grab.state | variant));
    xcb_flush(m_connection);
    m_down.remove(grab.key);
    grab.key = 0;
}

bool X11HotKeyService::grab(quint32 id, quint32 keyCode, quint32 modifiers)
{
    if (!m_connection || !m_keymap)
        return false;
    ungrab(id);
    Grab g{keyCode, modifiers};
    if (!grabOnServer(g))
        return false;
    m_grabs[id] = g;
    return true;
}

void X11HotKeyService::ungrab(quint32 id)
{
    auto it = m_grabs.find(id);
    if (it == m_grabs.end())
        return;
    ungrabOnServer(it->second);
    m_grabs.erase(it);
}

void X11HotKeyService::readEvents()
{
    if (!m_connection)
        return;
    while (xcb_generic_event_t *event = xcb_poll_for_event(m_connection)) {
        handle(event);
        std::free(event);
    }
    if (xcb_connection_has_error(m_connection) && m_problem.isEmpty()) {
        m_problem = tr("The connection to the X11 display was lost, so global shortcuts are off.");
        log(m_problem);
        m_notifier->setEnabled(false);
    }
}

void X11HotKeyService::handle(void *raw)
{
    auto *event = static_cast<xcb_generic_event_t *>(raw);
    const quint8 type = event->response_type & 0x7f;
    if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
        auto *key = reinterpret_cast<xcb_key_press_event_t *>(event);
        if (type == XCB_KEY_RELEASE) {
            m_down.remove(key->detail);
            return;
        }
        if (m_down.contains(key->detail))
            return; // the key repeating while held
        const quint16 locks = quint16(XCB_MOD_MASK_LOCK | m_numLock | m_scrollLock);
        const quint16 state = quint16(key->state & modifierBits & ~locks);
        for (const auto &[id, grab] : m_grabs) {
            if (grab.key == key->detail && grab.state == state) {
                m_down.insert(key->detail);
                emit pressed(id, key->time);
                return;
            }
        }
        return;
    }
    if (m_xkbEvent && type == m_xkbEvent) {
        // Every XKB event starts with its own kind in the second byte.
        const quint8 kind = reinterpret_cast<const quint8 *>(event)[1];
        if (kind == XCB_XKB_NEW_KEYBOARD_NOTIFY || kind == XCB_XKB_MAP_NOTIFY) {
            // A layout change comes as a burst of events: one reload once it has
            // settled, every event starting the wait over.
            m_reload = Job::start([this](CancelToken token) { return reloadWhenSettled(std::move(token)); },
                                  QStringLiteral("Reading the new keyboard layout"));
        } else if (kind == XCB_XKB_STATE_NOTIFY && m_state) {
            auto *s = reinterpret_cast<xcb_xkb_state_notify_event_t *>(event);
            xkb_state_update_mask(m_state, s->baseMods, s->latchedMods, s->lockedMods, xkb_layout_index_t(s->baseGroup),
                                  xkb_layout_index_t(s->latchedGroup), xkb_layout_index_t(s->lockedGroup));
        }
    }
}

QCoro::Task<void> X11HotKeyService::reloadWhenSettled(CancelToken token)
{
    QPointer<X11HotKeyService> self(this);
    const bool waited = co_await m_clock.sleep(0.02, token);
    if (waited && self && !token.isCancelled())
        reloadKeymap();
}

void X11HotKeyService::reloadKeymap()
{
    for (auto &[id, grab] : m_grabs)
        ungrabOnServer(grab);
    if (!loadKeymap())
        log(QStringLiteral("The new keyboard layout could not be read; the old one stays."));
    // Keys that the new layout does not have stay unheld until it comes back.
    for (auto &[id, grab] : m_grabs)
        grabOnServer(grab);
    emit keymapChanged();
}

std::optional<QString> X11HotKeyService::character(quint16 keyCode) const
{
    const quint8 key = keyFor(keyCode);
    if (!key || !m_state)
        return std::nullopt;
    const xkb_layout_index_t layout = xkb_state_key_get_layout(m_state, key);
    const xkb_keysym_t *syms = nullptr;
    if (xkb_keymap_key_get_syms_by_level(m_keymap, key, layout == XKB_LAYOUT_INVALID ? 0 : layout, 0, &syms) < 1)
        return std::nullopt;
    char utf8[16] = {};
    if (xkb_keysym_to_utf8(syms[0], utf8, sizeof utf8) <= 1)
        return std::nullopt;
    const QString text = QString::fromUtf8(utf8);
    if (text.isEmpty() || !text.at(0).isPrint())
        return std::nullopt;
    return text;
}

} // namespace zuv

namespace zuv {

std::optional<quint32> X11HotKeyService::storedKeyCode(quint32 nativeKey) const
{
    if (!nativeKey)
        return std::nullopt;
    for (quint32 code = 0; code < 128; ++code) {
        if (keyFor(code) == nativeKey)
            return code;
    }
    return std::nullopt;
}

} // namespace zuv

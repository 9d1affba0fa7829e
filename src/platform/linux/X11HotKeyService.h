#pragma once

#include "platform/HotKeyService.h"
#include "platform/Keyboard.h"
#include "base/Job.h"

#include <QSet>

#include <map>
#include <vector>

struct xcb_connection_t;
struct xkb_context;
struct xkb_keymap;
struct xkb_state;
class QSocketNotifier;

namespace zuv {

class Clock;

// Global shortcuts as passive key grabs on the X11 root window, through an xcb
// connection of our own whose events are read on the main thread. Each combo is
// grabbed once for every on/off mix of the lock keys (Caps, Num, Scroll), all or
// nothing. Keys are found by their XKB names on the current keymap and grabbed
// again whenever the keymap changes. The same keymap answers for `Keyboard`.
class X11HotKeyService final : public HotKeyService, public Keyboard {
    Q_OBJECT
public:
    // Connects to `display`, or to $DISPLAY when it is empty. `clock` times the
    // wait for a burst of keymap events to settle.
    explicit X11HotKeyService(Clock &clock, const QByteArray &display = {}, QObject *parent = nullptr);
    ~X11HotKeyService() override;

    bool grab(quint32 id, quint32 keyCode, quint32 modifiers) override;
    // Also says when a Wayland session keeps the grabs from working everywhere.
    void ungrab(quint32 id) override;
    QString problem() const override { return m_problem; }
    std::optional<QString> character(quint16 keyCode) const override;
    std::optional<quint32> storedKeyCode(quint32 nativeKey) const override;

    // Delivers what the server has sent; a test calls it after acting on the display.
    void readEvents();

signals:
    void keymapChanged();

private:
    struct Grab {
        quint32 keyCode = 0;
        quint32 modifiers = 0;
        quint8 key = 0;      // the X key code it was grabbed on; 0 when not held
        quint16 state = 0;   // the X modifier bits, without lock keys
    };

    bool loadKeymap();
    void findModifiers();
    std::vector<quint16> lockVariants() const;
    bool grabOnServer(Grab &grab);
    void ungrabOnServer(Grab &grab);
    void handle(void *event); // one xcb_generic_event_t
    void reloadKeymap();
    QCoro::Task<void> reloadWhenSettled(CancelToken token);
    quint8 keyFor(quint32 keyCode) const;

    xcb_connection_t *m_connection = nullptr;
    quint32 m_root = 0;
    qint32 m_device = -1;
    quint8 m_xkbEvent = 0;
    xkb_context *m_context = nullptr;
    xkb_keymap *m_keymap = nullptr;
    xkb_state *m_state = nullptr;
    quint16 m_super = 0;
    quint16 m_alt = 0;
    quint16 m_numLock = 0;
    quint16 m_scrollLock = 0;
    std::map<quint32, Grab> m_grabs;
    QSet<quint8> m_down; // keys pressed and not yet released: repeats fire nothing
    QSocketNotifier *m_notifier = nullptr;
    Clock &m_clock;
    Job m_reload; // waits for a burst of keymap events to settle
    QString m_problem;
};

} // namespace zuv

#pragma once

#include "base/Job.h"
#include "base/Shared.h"
#include "clipboard/ClipboardHistory.h"

#include <QObject>
#include <QPoint>
#include <QRect>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace zuv {

class Clock;
class Defaults;

// What one opening of the panel is at: the query, the selection, the preview.
struct ClipPanelState {
    QString query;
    std::optional<qint64> selected; // none: the default row
    bool keyboard = true;           // the last move was by keys; hovering waits for the mouse to move
    std::optional<qint64> scrollTarget; // -1 is the top
    Qt::KeyboardModifiers flags;    // held: Shift, Ctrl, Alt
    bool previewOpen = false;
    bool previewSuppressed = false; // closed by the keyboard: not opened by itself again this time
    double previewHeight = 200;
    double previewMaxHeight = 600;
    double previewWidth = 400;
    int generation = 0; // raised at each opening
};

// The panel's windows as the logic drives them; the views implement it.
class PanelWindow {
public:
    virtual ~PanelWindow() = default;
    virtual bool isVisible() const = 0;
    virtual QRect frame() const = 0;
    // Shows the panel at `frame`, raised and with the keyboard.
    virtual void present(const QRect &frame) = 0;
    virtual void setFrame(const QRect &frame) = 0;
    virtual void hide() = 0;
    virtual void showPreview(const QRect &frame) = 0;
    virtual void hidePreview() = 0;
    // Asks whether to clear: {clear, don't ask again}.
    virtual std::pair<bool, bool> confirm(const QString &message, const QString &information) = 0;
};

// The desktop around the panel when it opens.
struct PanelDesktop {
    QPoint cursor;
    std::vector<QRect> screens;       // usable areas; the first is the primary screen's
    std::optional<QRect> frontWindow; // the frame of the window that was in front
};

// The clipboard panel's logic: which row is chosen, what a key does, where the
// window goes and how tall it is, and the preview beside it.
class ClipboardPanel : public QObject, public Shared<ClipboardPanel> {
    Q_OBJECT
public:
    enum class Move { next, previous, first, last };

    // A key press as the panel weighs it. `scanCode` is the X key code, which
    // tells the digit keys apart whatever Shift makes of them.
    struct Key {
        int key = 0;
        Qt::KeyboardModifiers modifiers;
        quint32 scanCode = 0;
        bool composing = false; // an input method is composing in the search field
    };

    struct Use {
        bool paste = false;
        bool plain = false;
    };

    ClipboardPanel(Clock &clock, Defaults &defaults, ClipboardHistory &history, QObject *parent = nullptr);
    ~ClipboardPanel() override;

    PanelWindow *window = nullptr;
    std::function<PanelDesktop()> desktop;
    // The window in front is noted at each opening and given the keyboard back
    // at each closing, so that a paste lands there.
    std::function<void()> rememberFront;
    std::function<void()> restoreFront;
    std::function<void()> settings;               // opens the clipboard settings
    std::function<void(const QString &)> message; // a short notice to the person

    const ClipPanelState &state() const { return m_state; }
    void setQuery(const QString &query);
    void setFlags(Qt::KeyboardModifiers flags);

    std::vector<ClipboardHistory::Match> visible();
    std::optional<Clip> current(const std::vector<ClipboardHistory::Match> &visible) const;
    // The 1-based number of an unpinned row among the first nine, if it has one.
    static std::optional<int> number(qint64 id, const std::vector<ClipboardHistory::Match> &visible);
    // What Return does with these modifiers held; none when nothing happens.
    static std::optional<Use> action(Qt::KeyboardModifiers modifiers, bool pasteSetting, bool plainSetting);

    void toggle();
    void show();
    void close();
    bool handle(const Key &key);
    void move(const std::vector<ClipboardHistory::Match> &visible, Move to);
    void hover(qint64 id);
    void mouseMoved();
    void remove(const Clip &clip, const std::vector<ClipboardHistory::Match> &visible);
    void confirmClear(bool all);
    void togglePreview();
    void openSettings();
    // Uses a clip as Return does with `modifiers` held.
    void use(const Clip &clip, Qt::KeyboardModifiers modifiers);
    // Copies and then pastes, whatever the paste setting says.
    void paste(const Clip &clip, bool plain);

    void selectionChanged();
    void updatePreview();
    void placePreview();
    void fit();
    double fittingHeight(double maximum);
    QPoint origin(const QSize &size, const PanelDesktop &desktop) const;
    void previewFits(double height);
    void previewWants(double width);
    // The person moved or resized the panel.
    void moved(const QRect &frame);
    void resized(const QRect &frame);
    // The panel lost the keyboard to another window.
    void focusLost();
    bool holding() const { return m_holding; }

signals:
    void changed();
    void shown();

private:
    QCoro::Task<void> openPreviewLater(int milliseconds, CancelToken token);
    QCoro::Task<void> pasteWhenBack(CancelToken token);
    std::optional<Clip> shortcutItem(const std::vector<ClipboardHistory::Match> &visible, const Key &key) const;
    QRect screenOf(const QPoint &point, const PanelDesktop &desktop) const;
    void finishUse(const Clip &clip, Use use);

    Clock &m_clock;
    Defaults &m_defaults;
    ClipboardHistory &m_history;
    ClipPanelState m_state;
    PanelDesktop m_desktop; // as it was at the opening
    bool m_holding = false;
    Job m_previewTask;
    Job m_pasteTask;
};

} // namespace zuv

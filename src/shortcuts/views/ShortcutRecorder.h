#pragma once

#include "shortcuts/KeyCombo.h"

#include <QPushButton>

#include <functional>
#include <optional>

namespace zuv {

class HotKeys;
class Keyboard;

// The control that records one shortcut. A click starts recording: every global
// shortcut lets go meanwhile, Escape stops with no change, Backspace or Delete
// clears, and any other key makes the combo (or beeps and waits for a better one).
class ShortcutRecorder : public QPushButton {
    Q_OBJECT
public:
    ShortcutRecorder(HotKeys &hotKeys, const Keyboard &keyboard, QWidget *parent = nullptr);
    ~ShortcutRecorder() override;

    std::optional<KeyCombo> combo() const { return m_combo; }
    void setCombo(const std::optional<KeyCombo> &combo);
    bool recording() const { return m_recording; }
    void setRecording(bool on);

    // What the carbon modifier bits of Qt's modifiers are.
    static quint32 modifiers(Qt::KeyboardModifiers held);

signals:
    // A new combo, or none to clear it.
    void changed(const std::optional<KeyCombo> &combo);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    void refreshText();

    HotKeys &m_hotKeys;
    const Keyboard &m_keyboard;
    std::optional<KeyCombo> m_combo;
    bool m_recording = false;
};

} // namespace zuv

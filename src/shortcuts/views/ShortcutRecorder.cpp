#include "shortcuts/views/ShortcutRecorder.h"

#include "platform/Keyboard.h"
#include "shortcuts/HotKeys.h"

#include <QApplication>
#include <QKeyEvent>

namespace zuv {

ShortcutRecorder::ShortcutRecorder(HotKeys &hotKeys, const Keyboard &keyboard, QWidget *parent)
    : QPushButton(parent), m_hotKeys(hotKeys), m_keyboard(keyboard)
{
    setMinimumWidth(160);
    setCheckable(true);
    connect(this, &QPushButton::clicked, this, [this] { setRecording(!m_recording); });
    refreshText();
}

ShortcutRecorder::~ShortcutRecorder() { setRecording(false); }

void ShortcutRecorder::setCombo(const std::optional<KeyCombo> &combo)
{
    m_combo = combo;
    refreshText();
}

void ShortcutRecorder::setRecording(bool on)
{
    if (on == m_recording)
        return;
    m_recording = on;
    // Suspended while recording, so that the keys being typed fire nobody.
    if (on) {
        m_hotKeys.suspend();
        setFocus(Qt::OtherFocusReason);
    } else {
        m_hotKeys.resume();
    }
    setChecked(on);
    refreshText();
}

void ShortcutRecorder::refreshText()
{
    if (m_recording)
        setText(tr("Type Shortcut…"));
    else
        setText(m_combo ? m_combo->label() : tr("Record Shortcut"));
}

quint32 ShortcutRecorder::modifiers(Qt::KeyboardModifiers held)
{
    quint32 mods = 0;
    if (held & Qt::ControlModifier)
        mods |= KeyCombo::control;
    if (held & Qt::AltModifier)
        mods |= KeyCombo::option;
    if (held & Qt::ShiftModifier)
        mods |= KeyCombo::shift;
    if (held & Qt::MetaModifier) // the Super key on X11
        mods |= KeyCombo::command;
    return mods;
}

void ShortcutRecorder::keyPressEvent(QKeyEvent *event)
{
    if (!m_recording) {
        QPushButton::keyPressEvent(event);
        return;
    }
    event->accept(); // every key goes to the recording
    const quint32 mods = modifiers(event->modifiers());
    const bool plain = (mods & KeyCombo::allModifiers) == 0;
    if (event->key() == Qt::Key_Escape && plain) {
        setRecording(false);
        return;
    }
    if ((event->key() == Qt::Key_Backspace || event->key() == Qt::Key_Delete) && plain) {
        setRecording(false);
        setCombo(std::nullopt);
        emit changed(std::nullopt);
        return;
    }
    switch (event->key()) {
    case Qt::Key_Control:
    case Qt::Key_Alt:
    case Qt::Key_Shift:
    case Qt::Key_Meta:
    case Qt::Key_Super_L:
    case Qt::Key_Super_R:
    case Qt::Key_AltGr:
        return; // a modifier alone: wait for the key
    default:
        break;
    }
    const auto code = m_keyboard.storedKeyCode(event->nativeScanCode());
    std::optional<KeyCombo> combo;
    if (code)
        combo = KeyCombo::fromPress(*code, mods, m_keyboard.character(quint16(*code)).value_or(QString()));
    if (!combo) {
        QApplication::beep();
        return;
    }
    setRecording(false);
    setCombo(combo);
    emit changed(combo);
}

void ShortcutRecorder::focusOutEvent(QFocusEvent *event)
{
    setRecording(false); // a recording never outlives the focus
    QPushButton::focusOutEvent(event);
}

} // namespace zuv

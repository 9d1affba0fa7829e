#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

class Keyboard;

// A keyboard shortcut as it is recorded, stored and shown. The numbers are the
// stored ones (Carbon key codes and modifier bits), kept as they are so that
// settings carry over; the X11 back end converts them at its edge.
struct KeyCombo {
    quint32 keyCode = 0;
    quint32 modifiers = 0;
    QString key; // the key's shown name: "Space", "F5" or one upper-case character

    static constexpr quint32 command = 256; // the Super key here
    static constexpr quint32 shift = 512;
    static constexpr quint32 option = 2048; // Alt
    static constexpr quint32 control = 4096;
    static constexpr quint32 allModifiers = command | shift | option | control;

    bool operator==(const KeyCombo &) const = default;

    // What the person reads: "Ctrl+Alt+Shift+Super+K".
    QString label() const;

    // Builds a combo from a key press: its stored key code, the modifier bits
    // held, and the character the key gives without modifiers. None when the
    // press makes no shortcut (no modifier but Shift, or no usable name).
    static std::optional<KeyCombo> fromPress(quint32 keyCode, quint32 modifiers, const QString &character);

    // The shown name of a bare key code: the tables first, then the layout.
    static std::optional<QString> name(quint32 keyCode, const Keyboard *keyboard);
    static std::optional<QString> functionKey(quint32 keyCode);
    static std::optional<QString> named(quint32 keyCode);

    static std::optional<KeyCombo> fromJson(const QJsonValue &value);
    QJsonObject toJson() const;
};

} // namespace zuv

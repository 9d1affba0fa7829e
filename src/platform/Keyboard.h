#pragma once

#include <QString>

#include <optional>

namespace zuv {

// Characters of the active keyboard layout, by the stored (Carbon) key codes.
class Keyboard {
public:
    virtual ~Keyboard() = default;
    // The character of a key without modifiers in the current layout.
    virtual std::optional<QString> character(quint16 keyCode) const = 0;
    // The stored key code of a key as the window system numbers it (an X key
    // code, as Qt's native scan code gives it); none for a key without one.
    virtual std::optional<quint32> storedKeyCode(quint32 nativeKey) const
    {
        Q_UNUSED(nativeKey);
        return std::nullopt;
    }
    // The first key code, from 0 to 127, whose character is exactly `text`.
    std::optional<quint16> keyCode(const QString &text) const
    {
        for (quint16 code = 0; code <= 127; ++code) {
            if (character(code) == text)
                return code;
        }
        return std::nullopt;
    }
};

} // namespace zuv

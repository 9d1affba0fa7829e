#include "shortcuts/KeyCombo.h"

#include "base/Json.h"
#include "platform/Keyboard.h"

#include <QCoreApplication>

#include <array>
#include <utility>

namespace zuv {

namespace {

constexpr std::array<std::pair<quint32, const char *>, 20> functionKeys{{
    {122, "F1"},  {120, "F2"},  {99, "F3"},   {118, "F4"},  {96, "F5"},   {97, "F6"},  {98, "F7"},
    {100, "F8"},  {101, "F9"},  {109, "F10"}, {103, "F11"}, {111, "F12"}, {105, "F13"}, {107, "F14"},
    {113, "F15"}, {106, "F16"}, {64, "F17"},  {79, "F18"},  {80, "F19"},  {90, "F20"},
}};

// UTF-8 glyphs, as stored.
constexpr std::array<std::pair<quint32, const char *>, 13> namedKeys{{
    {49, "Space"},
    {36, "\u21a9"},  // ↩
    {48, "\u21e5"},  // ⇥
    {51, "\u232b"},  // ⌫
    {117, "\u2326"}, // ⌦
    {123, "\u2190"}, // ←
    {124, "\u2192"}, // →
    {126, "\u2191"}, // ↑
    {125, "\u2193"}, // ↓
    {115, "\u2196"}, // ↖
    {119, "\u2198"}, // ↘
    {116, "\u21de"}, // ⇞
    {121, "\u21df"}, // ⇟
}};

template<size_t N>
std::optional<QString> lookUp(const std::array<std::pair<quint32, const char *>, N> &table, quint32 code, size_t rows = N)
{
    for (size_t i = 0; i < rows && i < N; ++i) {
        if (table[i].first == code)
            return QString::fromUtf8(table[i].second);
    }
    return std::nullopt;
}

// The words Linux desktops use for the keys that are stored as glyphs.
QString shown(const QString &key)
{
    static const std::array<std::pair<const char *, const char *>, 8> words{{
        {"\u21a9", QT_TRANSLATE_NOOP("KeyCombo", "Return")},
        {"\u21e5", QT_TRANSLATE_NOOP("KeyCombo", "Tab")},
        {"\u232b", QT_TRANSLATE_NOOP("KeyCombo", "Backspace")},
        {"\u2326", QT_TRANSLATE_NOOP("KeyCombo", "Delete")},
        {"\u2196", QT_TRANSLATE_NOOP("KeyCombo", "Home")},
        {"\u2198", QT_TRANSLATE_NOOP("KeyCombo", "End")},
        {"\u21de", QT_TRANSLATE_NOOP("KeyCombo", "Page Up")},
        {"\u21df", QT_TRANSLATE_NOOP("KeyCombo", "Page Down")},
    }};
    for (const auto &[glyph, word] : words) {
        if (key == QString::fromUtf8(glyph))
            return QCoreApplication::translate("KeyCombo", word);
    }
    return key;
}

} // namespace

std::optional<QString> KeyCombo::functionKey(quint32 code) { return lookUp(functionKeys, code); }

std::optional<QString> KeyCombo::named(quint32 code) { return lookUp(namedKeys, code); }

QString KeyCombo::label() const
{
    QStringList parts;
    if (modifiers & control)
        parts << QCoreApplication::translate("KeyCombo", "Ctrl");
    if (modifiers & option)
        parts << QCoreApplication::translate("KeyCombo", "Alt");
    if (modifiers & shift)
        parts << QCoreApplication::translate("KeyCombo", "Shift");
    if (modifiers & command)
        parts << QCoreApplication::translate("KeyCombo", "Super");
    parts << shown(key);
    return parts.join(QLatin1Char('+'));
}

std::optional<KeyCombo> KeyCombo::fromPress(quint32 code, quint32 held, const QString &character)
{
    const quint32 mods = held & allModifiers;
    if (auto f = functionKey(code))
        return KeyCombo{code, mods, *f}; // a bare F-key is a shortcut of its own
    if (!(mods & (command | option | control)))
        return std::nullopt; // Shift alone makes no shortcut
    if (auto n = named(code))
        return KeyCombo{code, mods, *n};
    const QString name = character.trimmed().toUpper();
    // One character, counted as the person sees it (a pair of surrogates is one).
    if (name.isEmpty() || name.toUcs4().size() != 1)
        return std::nullopt;
    return KeyCombo{code, mods, name};
}

std::optional<QString> KeyCombo::name(quint32 code, const Keyboard *keyboard)
{
    // The first nine named keys (Space to ↓) and F1 to F12.
    if (auto n = lookUp(namedKeys, code, 9))
        return n;
    if (auto f = lookUp(functionKeys, code, 12))
        return f;
    if (!keyboard || code > 0xffff)
        return std::nullopt;
    const QString character = keyboard->character(quint16(code)).value_or(QString()).trimmed().toUpper();
    if (character.isEmpty())
        return std::nullopt;
    return character;
}

std::optional<KeyCombo> KeyCombo::fromJson(const QJsonValue &value)
{
    try {
        const QJsonObject o = json::decode<QJsonObject>(value);
        const qint64 code = json::required<qint64>(o, QStringLiteral("keyCode"));
        const qint64 mods = json::required<qint64>(o, QStringLiteral("modifiers"));
        if (code < 0 || code > 0xffffffffLL || mods < 0 || mods > 0xffffffffLL)
            return std::nullopt; // the stored numbers are unsigned 32-bit
        return KeyCombo{quint32(code), quint32(mods), json::required<QString>(o, QStringLiteral("key"))};
    } catch (const DecodingError &) {
        return std::nullopt;
    }
}

QJsonObject KeyCombo::toJson() const
{
    return {{QStringLiteral("keyCode"), double(keyCode)},
            {QStringLiteral("modifiers"), double(modifiers)},
            {QStringLiteral("key"), key}};
}

} // namespace zuv

#include "shortcuts/SystemShortcuts.h"

#include "platform/Keyboard.h"

#include <QHash>

#include <algorithm>

namespace zuv {

namespace {

// Key names of both desktops (X keysym names and KDE's) to stored key codes.
const QHash<QString, quint32> &namedKeys()
{
    static const QHash<QString, quint32> keys = [] {
        QHash<QString, quint32> k{
            {"space", 49},     {"return", 36},    {"enter", 36},    {"tab", 48},      {"backspace", 51},
            {"delete", 117},   {"del", 117},      {"escape", 53},   {"esc", 53},      {"left", 123},
            {"right", 124},    {"up", 126},       {"down", 125},    {"home", 115},    {"end", 119},
            {"page_up", 116},  {"prior", 116},    {"pgup", 116},    {"page_down", 121}, {"next", 121},
            {"pgdown", 121},   {"pgdn", 121},
        };
        const quint32 f[] = {122, 120, 99, 118, 96, 97, 98, 100, 101, 109, 103, 111, 105, 107, 113, 106, 64, 79, 80, 90};
        for (int i = 0; i < 20; ++i)
            k.insert(QStringLiteral("f%1").arg(i + 1), f[i]);
        return k;
    }();
    return keys;
}

// Punctuation keysym names to the characters the layout is asked for.
QString character(const QString &name)
{
    static const QHash<QString, QString> names{
        {"comma", ","},      {"period", "."},       {"slash", "/"},        {"minus", "-"},     {"equal", "="},
        {"semicolon", ";"},  {"apostrophe", "'"},   {"grave", "`"},        {"backslash", "\\"}, {"bracketleft", "["},
        {"bracketright", "]"}, {"less", "<"},
    };
    return names.value(name.toLower(), name.size() == 1 ? name.toLower() : QString());
}

std::optional<quint32> keyCode(const QString &name, const Keyboard &keyboard)
{
    const auto named = namedKeys().constFind(name.toLower());
    if (named != namedKeys().constEnd())
        return *named;
    const QString text = character(name);
    if (text.isEmpty())
        return std::nullopt;
    if (auto code = keyboard.keyCode(text))
        return *code;
    return std::nullopt;
}

std::optional<quint32> modifier(const QString &name)
{
    const QString n = name.toLower();
    if (n == QLatin1String("super") || n == QLatin1String("meta") || n == QLatin1String("mod4")
        || n == QLatin1String("logo") || n == QLatin1String("win"))
        return KeyCombo::command;
    if (n == QLatin1String("control") || n == QLatin1String("ctrl") || n == QLatin1String("primary"))
        return KeyCombo::control;
    if (n == QLatin1String("alt") || n == QLatin1String("mod1"))
        return KeyCombo::option;
    if (n == QLatin1String("shift"))
        return KeyCombo::shift;
    return std::nullopt;
}

} // namespace

std::optional<SystemShortcuts::Combo> SystemShortcuts::parseGnome(const QString &accelerator, const Keyboard &keyboard)
{
    quint32 mods = 0;
    qsizetype at = 0;
    while (at < accelerator.size() && accelerator.at(at) == QLatin1Char('<')) {
        const qsizetype close = accelerator.indexOf(QLatin1Char('>'), at);
        if (close < 0)
            return std::nullopt;
        const auto bit = modifier(accelerator.mid(at + 1, close - at - 1));
        if (!bit)
            return std::nullopt; // Hyper and the like: not ours to compare
        mods |= *bit;
        at = close + 1;
    }
    const auto code = keyCode(accelerator.mid(at), keyboard);
    if (!code)
        return std::nullopt;
    return Combo{*code, mods};
}

std::optional<SystemShortcuts::Combo> SystemShortcuts::parseKde(const QString &shortcut, const Keyboard &keyboard)
{
    // "Ctrl++" names the plus key: the last part is the key, whatever it holds.
    const qsizetype split = shortcut.endsWith(QLatin1String("++")) ? shortcut.size() - 2 : shortcut.lastIndexOf(QLatin1Char('+'));
    const QString key = split < 0 ? shortcut : shortcut.mid(split + 1);
    quint32 mods = 0;
    if (split > 0) {
        for (const QString &part : shortcut.left(split).split(QLatin1Char('+'))) {
            const auto bit = modifier(part);
            if (!bit)
                return std::nullopt;
            mods |= *bit;
        }
    }
    const auto code = keyCode(key, keyboard);
    if (!code)
        return std::nullopt;
    return Combo{*code, mods};
}

void SystemShortcuts::load(const QStringList &gnome, const QStringList &kde, const Keyboard &keyboard)
{
    m_combos.clear();
    for (const QString &a : gnome)
        if (auto c = parseGnome(a, keyboard))
            m_combos.push_back(*c);
    for (const QString &s : kde)
        if (auto c = parseKde(s, keyboard))
            m_combos.push_back(*c);
}

bool SystemShortcuts::contains(const KeyCombo &combo) const
{
    return std::any_of(m_combos.begin(), m_combos.end(), [&combo](const Combo &c) {
        return c.keyCode == combo.keyCode && (c.modifiers & KeyCombo::allModifiers) == (combo.modifiers & KeyCombo::allModifiers);
    });
}

} // namespace zuv

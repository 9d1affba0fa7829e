#pragma once

#include "link/LoginShell.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace zuv {

// What the tools on this computer say about themselves: Claude Code and Codex,
// installed or not, signed in or not.
struct ToolsProbe {
    std::optional<QString> claude;
    bool claudeSignedIn = false;
    std::optional<QString> codex;
    bool codexSignedIn = true;

    using Runner = std::function<std::optional<LoginShell::Result>(const QString &command, const QStringList &arguments,
                                                                   double timeout)>;
    // Blocks for up to four commands of `timeout` seconds each: off the main thread.
    static ToolsProbe run(const Runner &runner, double timeout = 10);

    // "2.1.3 (Claude Code)" → "2.1.3"; "codex-cli 0.4" → "0.4".
    static QString claudeVersion(const QString &text);
    static QString codexVersion(const QString &text);

    bool operator==(const ToolsProbe &) const = default;
};

} // namespace zuv

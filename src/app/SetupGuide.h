#pragma once

#include "link/ToolsProbe.h"

#include <QString>
#include <QStringList>

namespace zuv {

class AppModel;

// The facts the setup guide shows, in words: which steps are done, the code as
// the person types it, and what the tools check found.
struct SetupGuide {
    struct Step {
        int number = 0;
        QString title;
        bool done = false;
    };

    static std::vector<Step> steps(const AppModel &model, bool stayAwakeEnabled);
    // The first four characters, a dash and the last four.
    static QString displayCode(const QString &code);
    static QString pairingText(const AppModel &model);
    static QString pairingButton(const AppModel &model); // empty while a code shows
    // Beside the QR code: where the phone scans it.
    static QString scanHint();
    // Claude Code's installer, from its makers' documentation.
    static QString claudeInstaller();
    static QString claudeStatus(const ToolsProbe &tools);
    static QString codexStatus(const ToolsProbe &tools);
    // The restart hint shows after an "Allow" press while a grant is still missing.
    static bool offersRestart(const AppModel &model);
};

} // namespace zuv

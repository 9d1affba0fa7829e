#include "app/SetupGuide.h"

#include "link/AppModel.h"

#include <QCoreApplication>

namespace zuv {

namespace {
QString tr(const char *text) { return QCoreApplication::translate("SetupGuide", text); }
using State = AppModel::Pairing::State;
} // namespace

std::vector<SetupGuide::Step> SetupGuide::steps(const AppModel &model, bool stayAwakeEnabled)
{
    return {
        {1, tr("Pair with your iPhone"), model.pairing().state == State::paired},
        {2, tr("Allow Screen Recording and Accessibility"), model.screenRecording() && model.accessibility()},
        {3, tr("Claude Code on this computer"), model.tools().claudeSignedIn},
        {4, tr("Stay Awake (optional)"), stayAwakeEnabled},
    };
}

QString SetupGuide::displayCode(const QString &code) { return code.left(4) + u'-' + code.right(4); }

QString SetupGuide::pairingText(const AppModel &model)
{
    switch (model.pairing().state) {
    case State::unpaired:
        return tr("Get the Zuv app on your iPhone and sign in, then:");
    case State::expired:
        return tr("The code expired.");
    case State::paired:
        return tr("Paired. Zuv answers from this computer.");
    case State::showing:
        return scanHint();
    }
    return {};
}

QString SetupGuide::scanHint()
{
    return tr("Scan with your iPhone's Camera, or in Zuv: Settings → Account → Computers → Add Computer.");
}

QString SetupGuide::pairingButton(const AppModel &model)
{
    switch (model.pairing().state) {
    case State::unpaired:
    case State::expired:
        return tr("Show Pairing Code");
    case State::paired:
        return tr("Pair Again");
    case State::showing:
        return {};
    }
    return {};
}

QString SetupGuide::claudeInstaller() { return QStringLiteral("curl -fsSL https://claude.ai/install.sh | bash"); }

QString SetupGuide::claudeStatus(const ToolsProbe &tools)
{
    if (!tools.claude)
        return tr("Zuv runs your requests with Claude Code under your own Claude account. Install it, then sign in once in a terminal:");
    const QString version = ToolsProbe::claudeVersion(*tools.claude);
    if (tools.claudeSignedIn)
        return tr("Signed in (%1).").arg(version);
    return tr("Installed (%1) but not signed in: open a terminal and run claude, then /login.").arg(version);
}

QString SetupGuide::codexStatus(const ToolsProbe &tools)
{
    if (!tools.codex)
        return tr("Codex: not installed (optional)");
    if (tools.codexSignedIn)
        return tr("Codex: %1 (optional, for Codex sessions)").arg(*tools.codex);
    return tr("Codex: %1, not signed in (optional): run codex login in a terminal").arg(*tools.codex);
}

bool SetupGuide::offersRestart(const AppModel &model)
{
    return model.askedForPermissions() && (!model.screenRecording() || !model.accessibility());
}

} // namespace zuv

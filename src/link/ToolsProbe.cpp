#include "link/ToolsProbe.h"

namespace zuv {

ToolsProbe ToolsProbe::run(const Runner &runner, double timeout)
{
    ToolsProbe out;
    const auto ok = [](const std::optional<LoginShell::Result> &r) { return r && r->status == 0; };

    const auto claude = runner(QStringLiteral("claude"), {QStringLiteral("--version")}, timeout);
    if (ok(claude))
        out.claude = claude->output.trimmed();
    const auto auth = runner(QStringLiteral("claude"), {QStringLiteral("auth"), QStringLiteral("status"), QStringLiteral("--json")},
                             timeout);
    // The exact text with one blank: a compact JSON answer does not count.
    out.claudeSignedIn = ok(auth) && auth->output.contains(QLatin1String("\"loggedIn\": true"));

    const auto codex = runner(QStringLiteral("codex"), {QStringLiteral("--version")}, timeout);
    if (ok(codex)) {
        out.codex = codex->output.trimmed();
        const auto login = runner(QStringLiteral("codex"), {QStringLiteral("login"), QStringLiteral("status")}, timeout);
        // A probe that failed to run says nothing about the sign-in.
        if (login && login->status != 0 && login->output.contains(QLatin1String("not logged in"), Qt::CaseInsensitive))
            out.codexSignedIn = false;
    }
    return out;
}

QString ToolsProbe::claudeVersion(const QString &text)
{
    QString v = text;
    return v.remove(QStringLiteral(" (Claude Code)"));
}

QString ToolsProbe::codexVersion(const QString &text)
{
    QString v = text;
    return v.remove(QStringLiteral("codex-cli "));
}

} // namespace zuv

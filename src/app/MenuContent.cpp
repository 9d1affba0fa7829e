#include "app/MenuContent.h"

#include <QCoreApplication>

namespace zuv {

namespace {

QString tr(const char *text) { return QCoreApplication::translate("MenuContent", text); }

QString withCombo(const QString &title, const std::optional<QString> &combo)
{
    return combo && !combo->isEmpty() ? title + QStringLiteral("  (") + *combo + u')' : title;
}

MenuContent::Item action(const QString &title, MenuContent::Action act, const QString &shortcut = {})
{
    return {title, act, false, shortcut};
}

MenuContent::Item divider() { return {{}, MenuContent::Action::none, true, {}}; }

} // namespace

QString MenuContent::status(const State &state)
{
    if (!state.paired)
        return tr("Not paired with an iPhone");
    if (state.connected)
        return state.answers ? tr("Connected: Zuv answers from this computer") : tr("Connected (Zuv doesn't answer here)");
    switch (state.agentState) {
    case Child::State::stopped:
        return tr("Stopped");
    case Child::State::running:
        return tr("Connecting…");
    case Child::State::restarting:
        return tr("Restarting…");
    }
    return {};
}

QStringList MenuContent::wrapped(const QString &text, int width)
{
    QStringList lines;
    if (width <= 0)
        return lines;
    for (const QString &paragraph : text.split(u'\n', Qt::SkipEmptyParts)) {
        QString line;
        for (QString word : paragraph.split(u' ', Qt::SkipEmptyParts)) {
            if (word.size() > width) {
                if (!line.isEmpty())
                    lines << line;
                while (word.size() > width) {
                    lines << word.left(width);
                    word = word.mid(width);
                }
                line = word;
            } else if (line.isEmpty()) {
                line = word;
            } else if (line.size() + 1 + word.size() > width) {
                lines << line;
                line = word;
            } else {
                line += u' ' + word;
            }
        }
        if (!line.isEmpty())
            lines << line;
    }
    return lines;
}

std::vector<MenuContent::Item> MenuContent::items(const State &state)
{
    std::vector<Item> out;
    out.push_back({status(state), Action::none, false, {}});
    if (state.lastError)
        for (const QString &line : wrapped(*state.lastError, 40))
            out.push_back({line, Action::none, false, {}});
    if (state.paired && !state.answers)
        out.push_back(action(tr("Set Up Claude Code…"), Action::setUpClaude));
    if (state.updateRequired)
        out.push_back(action(tr("Update Required: Install Now…"), Action::installUpdate));
    out.push_back(divider());
    out.push_back(action(withCombo(tr("Open Zuv"), state.openZuvCombo), Action::openZuv));
    if (state.clipboardEnabled)
        out.push_back(action(withCombo(tr("Clipboard History"), state.clipboardCombo), Action::clipboardHistory));
    if (state.paired) {
        if (state.quickAskAvailable)
            out.push_back(action(withCombo(tr("Quick Ask"), state.quickAskCombo), Action::quickAsk));
        out.push_back(action(tr("New Chat"), Action::newChat));
        out.push_back({{}, Action::sendClipboardMenu, false, {}});
        out.push_back(divider());
        out.push_back({{}, Action::stayAwakeMenu, false, {}});
    }
    out.push_back(divider());
    if (state.paired)
        out.push_back(action(tr("Settings…"), Action::settings, QStringLiteral("Ctrl+,")));
    else
        out.push_back(action(tr("Pair with iPhone…"), Action::pair));
    out.push_back(action(tr("Open Logs Folder"), Action::openLogs));
    out.push_back(action(tr("Check for Updates…"), Action::checkForUpdates));
    if (state.paired)
        out.push_back(action(tr("Disconnect This Computer…"), Action::disconnect));
    out.push_back(divider());
    out.push_back(action(tr("Quit Zuv"), Action::quit, QStringLiteral("Ctrl+Q")));
    return out;
}

QString MenuContent::disconnectQuestion() { return tr("Disconnect this computer from your Zuv account?"); }

QString MenuContent::disconnectDetail()
{
    return tr("Zuv stops answering from this computer until you pair it again.");
}

} // namespace zuv

#pragma once

#include "link/Child.h"

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace zuv {

// The tray menu, as lines computed from the state each time it opens.
struct MenuContent {
    enum class Action {
        none,
        setUpClaude,
        installUpdate,
        openZuv,
        clipboardHistory,
        quickAsk,
        newChat,
        pair,
        settings,
        openLogs,
        checkForUpdates,
        disconnect,
        quit,
        stayAwakeMenu, // where the stay-awake entries go
        sendClipboardMenu, // where the entries for sending the clipboard go
    };

    struct Item {
        QString title;
        Action action = Action::none;
        bool divider = false;
        QString shortcut; // a QKeySequence in portable text ("Ctrl+Q"), or empty
        bool enabled() const
        {
            return action != Action::none && action != Action::stayAwakeMenu && action != Action::sendClipboardMenu;
        }
        bool operator==(const Item &) const = default;
    };

    struct State {
        bool paired = false;
        bool connected = false;
        bool answers = true;
        Child::State agentState = Child::State::stopped;
        std::optional<QString> lastError;
        bool updateRequired = false;
        bool clipboardEnabled = false;
        bool quickAskAvailable = false; // the Quick Ask panel exists in this build
        std::optional<QString> openZuvCombo;   // labels of the global shortcuts
        std::optional<QString> clipboardCombo;
        std::optional<QString> quickAskCombo;
    };

    static QString status(const State &state);
    // A message cut into lines of at most `width` characters for a menu.
    static QStringList wrapped(const QString &text, int width);
    static std::vector<Item> items(const State &state);

    static QString disconnectQuestion();
    static QString disconnectDetail();
};

} // namespace zuv

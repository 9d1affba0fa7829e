#pragma once

#include "shortcuts/KeyCombo.h"

#include <QUuid>
#include <QWidget>

#include <optional>

class QCheckBox;
class QLabel;
class QVBoxLayout;

namespace zuv {

class AppShortcuts;
class HotKeys;
class Keyboard;
class ShortcutRecorder;
class Workspace;

// The "App Shortcuts" section of the shortcut settings: one row per application
// with its icon, name, recorder and remove button, "Add App…" and the
// press-again-to-hide switch.
class AppShortcutsView : public QWidget {
    Q_OBJECT
public:
    AppShortcutsView(AppShortcuts &shortcuts, HotKeys &hotKeys, const Keyboard &keyboard, Workspace &workspace,
                     QWidget *parent = nullptr);

    // The row of an item, for the recording that follows "Add App…".
    ShortcutRecorder *recorder(const QUuid &id) const;
    // Adds the application of a desktop file and starts recording its shortcut.
    void addApp(const QString &path);

signals:
    void conflictShown(const QString &text);

private:
    void rebuild();
    void chooseApp();
    void combo(const QUuid &id, const std::optional<KeyCombo> &combo);

    AppShortcuts &m_shortcuts;
    HotKeys &m_hotKeys;
    const Keyboard &m_keyboard;
    Workspace &m_workspace;
    QVBoxLayout *m_rows = nullptr;
    QLabel *m_empty = nullptr;
    QCheckBox *m_hide = nullptr;
    std::vector<std::pair<QUuid, ShortcutRecorder *>> m_recorders;
};

} // namespace zuv

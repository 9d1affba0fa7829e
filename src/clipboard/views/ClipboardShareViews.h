#pragma once

#include <QGroupBox>
#include <QWidget>

class QComboBox;
class QLabel;
class QMenu;

namespace zuv {

class ClipboardShare;
class HotKeys;
class Keyboard;
class ShortcutRecorder;

// The tray's entries for sending the clipboard: none without another computer, one
// button for one, a submenu for several (with the offline ones marked).
struct ClipboardShareMenu {
    static void fill(QMenu *menu, ClipboardShare &share);
};

// The short message at the bottom of the screen: not focusable, not clickable. A
// later message replaces an earlier one and has its own full time.
class ToastPanel : public QWidget {
    Q_OBJECT
public:
    explicit ToastPanel(QWidget *parent = nullptr);
    void show(const QString &text, const QString &symbol, bool sticky);
    QString text() const;

    static constexpr int shownMs = 2000;
    static constexpr int aboveBottom = 72;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QLabel *m_icon;
    QLabel *m_text;
    quint64 m_shows = 0;
};

// The settings' section: what sending does, its shortcut, and where it goes.
class ClipboardShareSection : public QGroupBox {
    Q_OBJECT
public:
    ClipboardShareSection(ClipboardShare &share, HotKeys &hotKeys, const Keyboard &keyboard, QWidget *parent = nullptr);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void showComputers();

    ClipboardShare &m_share;
    QLabel *m_about;
    ShortcutRecorder *m_recorder;
    QLabel *m_problem;
    QComboBox *m_target;
};

} // namespace zuv

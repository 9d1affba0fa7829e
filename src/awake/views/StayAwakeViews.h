#pragma once

#include <QWidget>

class QLabel;
class QMenu;
class QPushButton;
class QToolButton;

namespace zuv {

class Clock;
class StayAwake;

// The stay-awake entries of the tray menu: "Keep Awake" with its lengths, or the
// running session with "Extend" and "Allow Sleep". The summary ticks each second
// while the menu is open.
struct StayAwakeMenu {
    static void fill(QMenu *menu, StayAwake &awake, Clock &clock);
    // The lengths to offer: from now, or added to what is left.
    static void addDurations(QMenu *menu, StayAwake &awake);
    static void addExtensions(QMenu *menu, StayAwake &awake);
};

// The same controls for the settings and the setup guide, with the closed-lid
// permission and the last error.
class StayAwakeSection : public QWidget {
    Q_OBJECT
public:
    StayAwakeSection(StayAwake &awake, Clock &clock, QWidget *parent = nullptr);

    void refresh();
    QLabel *stateLine() const { return m_state; }
    QLabel *helperLine() const { return m_helper; }
    QPushButton *allowLid() const { return m_allowLid; }
    QToolButton *keepAwake() const { return m_keep; }
    QToolButton *extend() const { return m_extend; }
    QPushButton *allowSleep() const { return m_sleep; }

private:
    StayAwake &m_awake;
    Clock &m_clock;
    QLabel *m_state = nullptr;
    QToolButton *m_keep = nullptr;
    QToolButton *m_extend = nullptr;
    QPushButton *m_sleep = nullptr;
    QLabel *m_helper = nullptr;
    QPushButton *m_allowLid = nullptr;
    QLabel *m_error = nullptr;
};

} // namespace zuv

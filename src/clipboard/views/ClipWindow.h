#pragma once

#include "clipboard/ClipboardPanel.h"
#include "clipboard/ClipListModel.h"

#include <QWidget>

class QLabel;
class QLineEdit;
class QListView;
class QPushButton;
class QSizeGrip;

namespace zuv {

class ClipPreview;
class ClipRowDelegate;
class Defaults;
class Workspace;

// The clipboard panel on screen: a frameless window above the others, with the
// search field, the rows, the footer and the preview beside it. Built once and
// shown again at each opening.
class ClipWindow : public QWidget, public PanelWindow {
    Q_OBJECT
public:
    ClipWindow(ClipboardPanel &panel, ClipboardHistory &history, Defaults &defaults, Workspace &workspace,
               QWidget *parent = nullptr);
    ~ClipWindow() override;

    bool isVisible() const override { return QWidget::isVisible(); }
    QRect frame() const override { return geometry(); }
    void present(const QRect &frame) override;
    void setFrame(const QRect &frame) override;
    void hide() override;
    void showPreview(const QRect &frame) override;
    void hidePreview() override;
    std::pair<bool, bool> confirm(const QString &message, const QString &information) override;

    QLineEdit *searchField() const { return m_search; }
    QListView *list() const { return m_list; }
    ClipListModel &model() { return m_model; }
    ClipPreview *preview() const { return m_preview; }
    // The context menu of a row, as a right click opens it.
    void openMenu(qint64 clipId, const QPoint &at);
    // The labels of the menu of a clip, for the record.
    QStringList menuLabels(qint64 clipId);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    bool event(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void refresh();
    void updateFooter();
    QString hintPrefix() const;
    std::optional<Clip> clipOf(qint64 id) const;
    void buildMenu(class QMenu &menu, const Clip &clip);

    ClipboardPanel &m_panel;
    ClipboardHistory &m_history;
    Defaults &m_defaults;
    Workspace &m_workspace;
    ClipListModel m_model;
    ClipRowDelegate *m_delegate;
    QLineEdit *m_search;
    QLabel *m_paused;
    QListView *m_list;
    QLabel *m_empty;
    QWidget *m_footer;
    QPushButton *m_clear;
    QPushButton *m_pause;
    QPushButton *m_settings;
    ClipPreview *m_preview;
    QSizeGrip *m_grip;
    QString m_shownQuery;
    bool m_dirty = true;
    bool m_placing = false;
    bool m_composing = false;
    QPoint m_dragFrom;
    int m_generation = -1;
};

} // namespace zuv

#pragma once

#include "clipboard/Clip.h"

#include <QWidget>

class QFormLayout;
class QLabel;
class QPushButton;
class QTextBrowser;

namespace zuv {

class ClipboardHistory;
class ClipboardPanel;
class Workspace;

// The clip in full beside the panel: its text to select and copy, or its
// picture with the text read in it, and where and when it was copied.
class ClipPreview : public QWidget {
    Q_OBJECT
public:
    ClipPreview(ClipboardPanel &panel, ClipboardHistory &history, Workspace &workspace, QWidget *parent = nullptr);

    void showClip(const Clip &clip);
    qint64 clipId() const { return m_clip.id; }

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    void report();

    ClipboardPanel &m_panel;
    ClipboardHistory &m_history;
    Workspace &m_workspace;
    Clip m_clip;
    QLabel *m_picture;
    QLabel *m_pictureHeading;
    QTextBrowser *m_text;
    QPushButton *m_copyText;
    QFormLayout *m_table;
    QLabel *m_hint;
    int m_request = 0;
};

} // namespace zuv

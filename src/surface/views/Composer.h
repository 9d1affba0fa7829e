#pragma once

#include "chat/OutgoingFile.h"

#include <QPlainTextEdit>
#include <QWidget>

#include <vector>

class QHBoxLayout;
class QToolButton;

namespace zuv {

// The text field of the composer: Return sends, Shift+Return breaks the line, and
// pasted files and pictures become attachments.
class ComposerField : public QPlainTextEdit {
    Q_OBJECT
public:
    using QPlainTextEdit::QPlainTextEdit;
signals:
    void submit();
    void filesPasted(const std::vector<zuv::OutgoingFile> &files);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    bool canInsertFromMimeData(const QMimeData *source) const override;
    void insertFromMimeData(const QMimeData *source) override;
};

// The box where a message is written: files waiting to go, the field, and the
// send or stop button.
class Composer : public QWidget {
    Q_OBJECT
public:
    explicit Composer(QWidget *parent = nullptr);

    QString text() const;
    void setText(const QString &text);
    const std::vector<OutgoingFile> &files() const { return m_files; }
    void setFiles(std::vector<OutgoingFile> files);
    void addFiles(const std::vector<OutgoingFile> &files);
    void setPlaceholder(const QString &text);
    void setBusy(bool busy);
    bool empty() const;
    ComposerField *field() const { return m_field; }
    void focusField();

signals:
    void send();
    void stop();

private:
    void updateButtons();
    void rebuildChips();
    void attach();

    ComposerField *m_field = nullptr;
    QWidget *m_chips = nullptr;
    QHBoxLayout *m_chipRow = nullptr;
    QToolButton *m_action = nullptr;
    std::vector<OutgoingFile> m_files;
    bool m_busy = false;
};

} // namespace zuv

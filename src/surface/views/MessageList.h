#pragma once

#include "hub/Entry.h"
#include "surface/views/MarkdownDocument.h"

#include <QAbstractScrollArea>
#include <QCache>
#include <QDateTime>

#include <optional>
#include <vector>

class QToolButton;

namespace zuv {

// The messages of one conversation. Only what is on screen is laid out at first;
// the rest is measured a slice at a time while the app is idle, and laid-out
// messages are cached, so that a long chat opens at once and scrolls smoothly.
class MessageList : public QAbstractScrollArea {
    Q_OBJECT
public:
    explicit MessageList(QWidget *parent = nullptr);
    ~MessageList() override;

    // The conversation's entries as they stand now. A different conversation
    // (`fresh`) starts at its end; the same one keeps its place, or follows the
    // end when it was there.
    void setEntries(const std::vector<Entry> &entries, const QDateTime &now, bool fresh);
    void setShowUsage(bool on);

    bool atBottom() const;
    void scrollToEnd();
    int rows() const { return int(m_rows.size()); }
    // How many messages have been laid out for real (for tests and the benchmark).
    int measured() const;
    // Where row `row` is in the viewport's coordinates (its estimate until laid out).
    QRect rowRect(int row) const;
    // The time line above row `row`, if it has one.
    std::optional<QString> timeLabel(int row) const;
    // Lays out every row now, as the idle work would.
    void measureAll();

signals:
    void atBottomChanged(bool atBottom);
    void resend(const zuv::Entry &entry);
    void readAloud(const QString &text);

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;
    bool event(QEvent *event) override;

private:
    struct Row {
        Entry entry;
        QString key; // id and text: a changed text is laid out again
        std::optional<QString> label;
        int height = 0;
        bool measured = false;
    };
    struct Geometry {
        QRectF doc;   // where the text goes, in row coordinates
        QRectF bubble;
        int labelHeight = 0;
    };

    MarkdownDocument *document(int row);
    Geometry geometry(int row, MarkdownDocument *doc) const;
    int estimate(const Row &row) const;
    // Lays out `row` and stores its height; rows above the view keep the view still.
    void measure(int row, int firstVisible);
    int top(int row) const;
    int rowAt(int y) const; // in content coordinates; -1 past the end
    void updateRange();
    void scheduleIdleWork();
    void idleWork();
    void noteBottom();
    QString footer(const Entry &entry) const;

    std::vector<Row> m_rows;
    std::vector<int> m_tops; // prefix sums of heights, one more than rows
    QCache<QString, MarkdownDocument> m_docs;
    int m_width = 0;
    bool m_showUsage = false;
    bool m_atBottom = true;
    bool m_idleQueued = false;
    int m_copied = -1;
    QToolButton *m_jump = nullptr;
};

} // namespace zuv

#pragma once

#include "clipboard/ClipboardHistory.h"

#include <QAbstractListModel>

#include <vector>

namespace zuv {

class ClipboardPanel;

// The panel's rows as a list model: the visible matches with their title,
// highlights, shortcut hint and place. Refilled at each change of the panel;
// a view paints only the rows it shows.
class ClipListModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        ClipIdRole = Qt::UserRole + 1,
        KindRole,
        RangesRole,   // QVariantList of QPoint(start, end)
        HintRole,     // "B" for a pin, "3" for a numbered row, or empty
        PinnedRole,
        DividerRole,  // a divider goes above this row
        SelectedRole,
        SwatchRole,   // QColor, when the text is a colour and swatches are on
    };

    ClipListModel(ClipboardPanel &panel, ClipboardHistory &history, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

    void refill();
    const std::vector<ClipboardHistory::Match> &rows() const { return m_rows; }
    int rowOf(qint64 id) const;
    // Only the selection moved: rows repaint, nothing is refilled.
    void selectionMoved();

private:
    ClipboardPanel &m_panel;
    ClipboardHistory &m_history;
    std::vector<ClipboardHistory::Match> m_rows;
    std::vector<QString> m_titles;
    qint64 m_current = -1;
};

} // namespace zuv

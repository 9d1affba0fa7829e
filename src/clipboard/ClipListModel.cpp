#include "clipboard/ClipListModel.h"

#include "clipboard/ClipboardPanel.h"
#include "clipboard/Swatch.h"

#include <QColor>
#include <QPoint>

namespace zuv {

ClipListModel::ClipListModel(ClipboardPanel &panel, ClipboardHistory &history, QObject *parent)
    : QAbstractListModel(parent), m_panel(panel), m_history(history)
{
}

int ClipListModel::rowCount(const QModelIndex &parent) const { return parent.isValid() ? 0 : int(m_rows.size()); }

void ClipListModel::refill()
{
    beginResetModel();
    m_rows = m_panel.visible();
    m_titles.clear();
    m_titles.reserve(m_rows.size());
    for (const auto &m : m_rows)
        m_titles.push_back(m_history.title(m.clip));
    const auto current = m_panel.current(m_rows);
    m_current = current ? current->id : -1;
    endResetModel();
}

void ClipListModel::selectionMoved()
{
    const auto current = m_panel.current(m_rows);
    const qint64 now = current ? current->id : -1;
    if (now == m_current)
        return;
    const int before = rowOf(m_current);
    m_current = now;
    const int after = rowOf(now);
    for (int row : {before, after})
        if (row >= 0)
            emit dataChanged(index(row), index(row), {SelectedRole});
}

int ClipListModel::rowOf(qint64 id) const
{
    for (size_t i = 0; i < m_rows.size(); ++i)
        if (m_rows[i].clip.id == id)
            return int(i);
    return -1;
}

QVariant ClipListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= int(m_rows.size()))
        return {};
    const auto &match = m_rows[size_t(index.row())];
    const Clip &clip = match.clip;
    switch (role) {
    case Qt::DisplayRole:
        return m_titles[size_t(index.row())];
    case ClipIdRole:
        return clip.id;
    case KindRole:
        return int(clip.kind);
    case RangesRole: {
        QVariantList ranges;
        for (const auto &[start, end] : match.ranges)
            ranges << QPoint(int(start), int(end));
        return ranges;
    }
    case HintRole:
        if (clip.pin)
            return clip.pin->toUpper();
        if (const auto n = ClipboardPanel::number(clip.id, m_rows))
            return QString::number(*n);
        return QString();
    case PinnedRole:
        return clip.pin.has_value();
    case DividerRole:
        return index.row() > 0 && m_rows[size_t(index.row()) - 1].clip.pin.has_value() != clip.pin.has_value();
    case SelectedRole:
        return clip.id == m_current;
    case SwatchRole:
        if (clip.kind == Clip::Kind::text)
            if (const auto colour = Swatch::color(clip.text))
                return *colour;
        return {};
    default:
        return {};
    }
}

} // namespace zuv

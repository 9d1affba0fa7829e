#pragma once

#include <QCache>
#include <QImage>
#include <QStyledItemDelegate>

#include <functional>

namespace zuv {

class Defaults;
class ClipboardHistory;

// Paints one row of the panel: swatch or thumbnail, the title with its matches
// highlighted, and the shortcut hint at the right, with a divider above the
// first row after the pins. Thumbnails are asked for once and painted when
// they come.
class ClipRowDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    ClipRowDelegate(Defaults &defaults, ClipboardHistory &history, QObject *parent = nullptr);

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // The modifier words of the hints, as the held keys make them: "Ctrl+", "Alt+Shift+".
    std::function<QString()> hintPrefix;
    // The app's icon for a clip's application, when app icons are on.
    std::function<QIcon(qint64 clipId)> appIcon;

signals:
    void thumbnailArrived(qint64 clipId);

private:
    void fetchThumbnail(qint64 clipId) const;

    Defaults &m_defaults;
    ClipboardHistory &m_history;
    mutable QCache<qint64, QImage> m_thumbnails{200};
    mutable QSet<qint64> m_asked;
};

} // namespace zuv

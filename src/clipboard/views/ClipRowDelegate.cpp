#include "clipboard/views/ClipRowDelegate.h"

#include "base/Defaults.h"
#include "base/Job.h"
#include "clipboard/ClipListModel.h"
#include "clipboard/ClipboardHistory.h"

#include <QApplication>
#include <QPainter>
#include <QPointer>
#include <QTextLayout>

namespace zuv {

namespace {

constexpr int rowHeight = 24;
constexpr int margin = 8;

QCoro::Task<void> thumbnailFor(QPointer<ClipRowDelegate> self, ClipboardHistory *history, Clip clip,
                               std::function<void(const QImage &)> done)
{
    const auto image = co_await history->thumbnail(clip);
    if (self && image)
        done(*image);
}

} // namespace

ClipRowDelegate::ClipRowDelegate(Defaults &defaults, ClipboardHistory &history, QObject *parent)
    : QStyledItemDelegate(parent), m_defaults(defaults), m_history(history)
{
}

QSize ClipRowDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    int height = rowHeight;
    if (index.data(ClipListModel::KindRole).toInt() == int(Clip::Kind::image))
        height = std::max(rowHeight, int(m_defaults.number(QStringLiteral("clip-image-height")).valueOr(40)) + 8);
    if (index.data(ClipListModel::DividerRole).toBool())
        height += 13;
    return QSize(option.rect.width(), height);
}

void ClipRowDelegate::fetchThumbnail(qint64 clipId) const
{
    if (m_asked.contains(clipId))
        return;
    m_asked.insert(clipId);
    for (const Clip &clip : m_history.clips()) {
        if (clip.id != clipId)
            continue;
        QPointer<ClipRowDelegate> self(const_cast<ClipRowDelegate *>(this));
        spawn(thumbnailFor(self, &m_history, clip,
                           [self, clipId](const QImage &image) {
                               self->m_thumbnails.insert(clipId, new QImage(image));
                               emit self->thumbnailArrived(clipId);
                           }),
              QStringLiteral("A thumbnail for the clipboard panel"));
        return;
    }
}

void ClipRowDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    painter->save();
    QRect rect = option.rect;
    const QPalette &palette = option.palette;
    if (index.data(ClipListModel::DividerRole).toBool()) {
        painter->setPen(palette.color(QPalette::Mid));
        painter->drawLine(rect.left() + margin, rect.top() + 6, rect.right() - margin, rect.top() + 6);
        rect.setTop(rect.top() + 13);
    }
    const bool selected = index.data(ClipListModel::SelectedRole).toBool();
    if (selected) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(palette.color(QPalette::Highlight));
        painter->drawRoundedRect(rect.adjusted(4, 1, -4, -1), 5, 5);
    }
    const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    QRect content = rect.adjusted(margin + 4, 0, -margin - 4, 0);

    // The hint at the right.
    const QString hint = index.data(ClipListModel::HintRole).toString();
    if (!hint.isEmpty()) {
        const QString label = (hintPrefix ? hintPrefix() : QStringLiteral("Ctrl+")) + hint;
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.85);
        painter->setFont(small);
        painter->setPen(selected ? text : palette.color(QPalette::PlaceholderText));
        const int width = QFontMetrics(small).horizontalAdvance(label);
        painter->drawText(QRect(content.right() - width, content.top(), width, content.height()), Qt::AlignVCenter, label);
        content.setRight(content.right() - width - margin);
    }

    const qint64 id = index.data(ClipListModel::ClipIdRole).toLongLong();
    if (m_defaults.boolean(QStringLiteral("clip-app-icons")).valueOr(false) && appIcon) {
        const QIcon icon = appIcon(id);
        if (!icon.isNull())
            icon.paint(painter, QRect(content.left(), content.center().y() - 7, 15, 15));
        content.setLeft(content.left() + 15 + 6);
    }
    if (index.data(ClipListModel::KindRole).toInt() == int(Clip::Kind::image)) {
        const int height = int(m_defaults.number(QStringLiteral("clip-image-height")).valueOr(40));
        if (QImage *image = m_thumbnails.object(id)) {
            const QSize size = image->size().scaled(int(height * 1.6), height, Qt::KeepAspectRatio);
            const QRect target(content.left(), content.center().y() - size.height() / 2, size.width(), size.height());
            painter->drawImage(target, *image);
            content.setLeft(target.right() + margin);
        } else {
            fetchThumbnail(id);
            content.setLeft(content.left() + int(height * 1.6) + margin);
        }
    } else if (m_defaults.boolean(QStringLiteral("clip-swatches")).valueOr(true)) {
        const QVariant swatch = index.data(ClipListModel::SwatchRole);
        if (swatch.isValid()) {
            painter->setPen(palette.color(QPalette::Mid));
            painter->setBrush(swatch.value<QColor>());
            painter->drawRoundedRect(QRect(content.left(), content.center().y() - 6, 12, 12), 3, 3);
            content.setLeft(content.left() + 12 + 6);
        }
    }

    // The title, one line, with the matches drawn as the setting says.
    const QString title = index.data(Qt::DisplayRole).toString();
    const QFontMetrics metrics(option.font);
    const QString shown = metrics.elidedText(title.left(2000), Qt::ElideRight, content.width());
    QTextLayout layout(shown, option.font);
    QList<QTextLayout::FormatRange> formats;
    const QString style = m_defaults.string(QStringLiteral("clip-highlight")).valueOr(QStringLiteral("bold"));
    for (const QVariant &v : index.data(ClipListModel::RangesRole).toList()) {
        const QPoint r = v.toPoint();
        if (r.x() >= shown.size())
            continue;
        QTextLayout::FormatRange range;
        range.start = r.x();
        range.length = std::min<int>(r.y(), int(shown.size())) - r.x();
        if (style == QLatin1String("bold"))
            range.format.setFontWeight(QFont::Bold);
        else if (style == QLatin1String("italic"))
            range.format.setFontItalic(true);
        else if (style == QLatin1String("underline"))
            range.format.setFontUnderline(true);
        else if (style == QLatin1String("color")) {
            range.format.setForeground(Qt::black);
            range.format.setBackground(QColor(255, 230, 0));
        } else
            continue;
        formats << range;
    }
    layout.setFormats(formats);
    QTextOption textOption;
    textOption.setWrapMode(QTextOption::NoWrap);
    layout.setTextOption(textOption);
    layout.beginLayout();
    QTextLine line = layout.createLine();
    if (line.isValid())
        line.setLineWidth(content.width());
    layout.endLayout();
    painter->setPen(text);
    layout.draw(painter, QPointF(content.left(), content.center().y() - metrics.height() / 2.0));
    painter->restore();
}

} // namespace zuv

#pragma once

#include <QLabel>

namespace zuv {

// A bold title `scale` times the body text, as the empty states and guides use.
inline QLabel *headline(const QString &text, qreal scale, Qt::Alignment alignment = Qt::AlignCenter)
{
    auto *label = new QLabel(text);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * scale);
    font.setBold(true);
    label->setFont(font);
    label->setAlignment(alignment);
    return label;
}

} // namespace zuv

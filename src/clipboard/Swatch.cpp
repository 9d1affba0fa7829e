#include "clipboard/Swatch.h"

#include <QRegularExpression>

namespace zuv::Swatch {

std::optional<QColor> color(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.size() > 9)
        return std::nullopt;
    static const QRegularExpression hex(QStringLiteral("^#?([0-9a-fA-F]{3}|[0-9a-fA-F]{6}|[0-9a-fA-F]{8})$"));
    if (!hex.match(trimmed).hasMatch())
        return std::nullopt;
    QString digits = trimmed.startsWith(QLatin1Char('#')) ? trimmed.mid(1) : trimmed;
    if (digits.size() == trimmed.size() && digits.size() < 6)
        return std::nullopt;
    if (digits.size() == 3) {
        QString doubled;
        for (const QChar c : digits)
            doubled += QString(2, c);
        digits = doubled;
    }
    const uint value = digits.toUInt(nullptr, 16);
    if (digits.size() == 8)
        return QColor::fromRgb(int(value >> 24), int((value >> 16) & 0xff), int((value >> 8) & 0xff), int(value & 0xff));
    return QColor::fromRgb(int(value >> 16), int((value >> 8) & 0xff), int(value & 0xff), 255);
}

} // namespace zuv::Swatch

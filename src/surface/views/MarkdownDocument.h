#pragma once

#include <QFont>
#include <QPalette>
#include <QRectF>
#include <QString>

#include <memory>
#include <vector>

class QPainter;
class QTextDocument;

namespace zuv {

// A reply's Markdown laid out as a QTextDocument: headings, paragraphs, items,
// quotes with their bar, code blocks with a copy button, tables and rules, with
// inline emphasis, code and links.
class MarkdownDocument {
public:
    MarkdownDocument(const QString &text, const QFont &font, const QPalette &palette, bool markdown = true);
    ~MarkdownDocument();

    void setWidth(qreal width);
    qreal width() const { return m_width; }
    qreal height() const;
    void paint(QPainter &painter, const QPointF &at, const QRectF &clip) const;

    // What lies under a point of the document (its own coordinates).
    QString linkAt(const QPointF &point) const;
    // The code of the copy button under the point, or a null string.
    QString copyAt(const QPointF &point) const;
    QRectF copyButton(int code) const;
    int codeBlocks() const { return int(m_codes.size()); }

    QTextDocument &document() const { return *m_doc; }

    static constexpr qreal buttonSize = 24;

private:
    struct Code {
        QString text;
        void *frame = nullptr; // QTextFrame
    };
    void build(const QString &text, bool markdown);

    std::unique_ptr<QTextDocument> m_doc;
    QFont m_font;
    QPalette m_palette;
    qreal m_width = -1;
    std::vector<Code> m_codes;
    std::vector<int> m_quoteBlocks; // block numbers that carry the quote bar
};

} // namespace zuv

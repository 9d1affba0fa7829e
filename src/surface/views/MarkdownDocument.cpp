#include "surface/views/MarkdownDocument.h"

#include "surface/MarkdownView.h"

#include <QAbstractTextDocumentLayout>
#include <QFontDatabase>
#include <QPainter>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextFrame>
#include <QTextTable>

namespace zuv {

namespace {

void insertInline(QTextCursor &cursor, const QString &text, QTextCharFormat base, const QPalette &palette,
                  const QFont &mono)
{
    const InlineText rendered = MarkdownView::inlineText(text);
    for (const InlineRun &run : rendered.runs) {
        QTextCharFormat f = base;
        if (has(run.intents, Intent::strong))
            f.setFontWeight(QFont::Bold);
        if (has(run.intents, Intent::emphasized))
            f.setFontItalic(true);
        if (has(run.intents, Intent::strikethrough))
            f.setFontStrikeOut(true);
        if (has(run.intents, Intent::code)) {
            f.setFontFamilies(mono.families());
            f.setBackground(palette.color(QPalette::AlternateBase));
        }
        if (!run.link.isEmpty()) {
            f.setAnchor(true);
            f.setAnchorHref(run.link);
            f.setForeground(palette.color(QPalette::Link));
            f.setFontUnderline(true);
        }
        // A line break inside a block stays inside it.
        QString runText = run.text;
        runText.replace(u'\n', QChar::LineSeparator);
        cursor.insertText(runText, f);
    }
}

Qt::Alignment alignmentOf(MarkdownView::Alignment a)
{
    switch (a) {
    case MarkdownView::Alignment::center:
        return Qt::AlignHCenter;
    case MarkdownView::Alignment::trailing:
        return Qt::AlignRight;
    case MarkdownView::Alignment::leading:
        break;
    }
    return Qt::AlignLeft;
}

} // namespace

MarkdownDocument::MarkdownDocument(const QString &text, const QFont &font, const QPalette &palette, bool markdown)
    : m_doc(std::make_unique<QTextDocument>()), m_font(font), m_palette(palette)
{
    m_doc->setDefaultFont(font);
    m_doc->setDocumentMargin(0);
    m_doc->setUndoRedoEnabled(false);
    build(text, markdown);
}

MarkdownDocument::~MarkdownDocument() = default;

void MarkdownDocument::build(const QString &text, bool markdown)
{
    QTextCursor cursor(m_doc.get());
    const QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    QTextCharFormat plain;
    plain.setForeground(m_palette.color(QPalette::Text));
    if (!markdown) {
        QString lines = text;
        cursor.insertText(lines.replace(u'\n', QChar::LineSeparator), plain);
        return;
    }
    const auto blocks = MarkdownView::blocks(text);
    bool first = true;
    // Each block begins a paragraph of its own; the first one takes the document's.
    const auto newBlock = [&](QTextBlockFormat format = {}) {
        format.setTopMargin(first ? 0 : 8);
        if (first)
            cursor.setBlockFormat(format);
        else
            cursor.insertBlock(format);
        first = false;
    };
    for (const MarkdownView::Block &block : *blocks) {
        switch (block.kind) {
        case MarkdownView::Block::Kind::heading: {
            QTextBlockFormat f;
            newBlock(f);
            QTextCharFormat h = plain;
            h.setFontWeight(QFont::Bold);
            const qreal scale = block.level == 1 ? 1.35 : block.level == 2 ? 1.18 : 1.0;
            h.setFontPointSize(m_font.pointSizeF() * scale);
            insertInline(cursor, block.text, h, m_palette, mono);
            break;
        }
        case MarkdownView::Block::Kind::paragraph:
            newBlock();
            insertInline(cursor, block.text, plain, m_palette, mono);
            break;
        case MarkdownView::Block::Kind::bullets: {
            bool firstItem = true;
            for (const MarkdownView::Item &item : block.items) {
                QTextBlockFormat f;
                f.setLeftMargin(16.0 * item.indent + 18);
                f.setTextIndent(-18);
                if (firstItem) {
                    newBlock(f);
                } else {
                    f.setTopMargin(3);
                    cursor.insertBlock(f);
                }
                firstItem = false;
                QTextCharFormat marker = plain;
                marker.setForeground(m_palette.color(QPalette::PlaceholderText));
                cursor.insertText(item.marker + QStringLiteral("\u2002"), marker);
                insertInline(cursor, item.text, plain, m_palette, mono);
            }
            break;
        }
        case MarkdownView::Block::Kind::quote: {
            QTextBlockFormat f;
            f.setLeftMargin(12);
            newBlock(f);
            m_quoteBlocks.push_back(cursor.block().blockNumber());
            QTextCharFormat q = plain;
            q.setForeground(m_palette.color(QPalette::PlaceholderText));
            insertInline(cursor, block.text, q, m_palette, mono);
            break;
        }
        case MarkdownView::Block::Kind::code: {
            newBlock();
            QTextFrameFormat frame;
            frame.setPadding(10);
            frame.setRightMargin(0);
            frame.setBackground(m_palette.color(QPalette::AlternateBase));
            frame.setBorder(0);
            QTextFrame *inserted = cursor.insertFrame(frame);
            QTextBlockFormat codeBlock;
            codeBlock.setRightMargin(buttonSize + 4);
            codeBlock.setNonBreakableLines(true);
            cursor.setBlockFormat(codeBlock);
            QTextCharFormat c = plain;
            c.setFontFamilies(mono.families());
            c.setFontPointSize(m_font.pointSizeF() * 0.92);
            cursor.insertText(block.text, c);
            m_codes.push_back({block.text, inserted});
            cursor = inserted->lastCursorPosition();
            cursor.movePosition(QTextCursor::NextBlock);
            break;
        }
        case MarkdownView::Block::Kind::table: {
            newBlock();
            const MarkdownView::Table &table = block.table;
            const int columns = std::max(1, table.columns());
            const int rows = int(table.rows.size()) + (table.header ? 1 : 0);
            if (rows == 0)
                break;
            QTextTableFormat f;
            f.setBorder(1);
            f.setBorderBrush(m_palette.color(QPalette::Midlight).darker(115));
            f.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
            f.setCellSpacing(0);
            f.setCellPadding(5);
            f.setBorderCollapse(true);
            QTextTable *t = cursor.insertTable(rows, columns, f);
            const auto fill = [&](int row, const QStringList &cells, bool bold) {
                for (int col = 0; col < columns; ++col) {
                    QTextTableCell cell = t->cellAt(row, col);
                    QTextCursor at = cell.firstCursorPosition();
                    QTextBlockFormat bf;
                    bf.setAlignment(col < int(table.alignments.size()) ? alignmentOf(table.alignments[col]) : Qt::AlignLeft);
                    at.setBlockFormat(bf);
                    QTextCharFormat cf = plain;
                    if (bold) {
                        cf.setFontWeight(QFont::DemiBold);
                        QTextCharFormat shade;
                        shade.setBackground(m_palette.color(QPalette::AlternateBase));
                        cell.setFormat(shade);
                    }
                    insertInline(at, col < cells.size() ? cells[col] : QString(), cf, m_palette, mono);
                }
            };
            int row = 0;
            if (table.header)
                fill(row++, *table.header, true);
            for (const QStringList &cells : table.rows)
                fill(row++, cells, false);
            cursor = t->lastCursorPosition();
            cursor.movePosition(QTextCursor::NextBlock);
            break;
        }
        case MarkdownView::Block::Kind::rule: {
            QTextBlockFormat f;
            f.setProperty(QTextFormat::BlockTrailingHorizontalRulerWidth, QTextLength(QTextLength::PercentageLength, 100));
            newBlock(f);
            break;
        }
        }
    }
}

void MarkdownDocument::setWidth(qreal width)
{
    if (width == m_width)
        return;
    m_width = width;
    m_doc->setTextWidth(width);
}

qreal MarkdownDocument::height() const { return m_doc->size().height(); }

QRectF MarkdownDocument::copyButton(int code) const
{
    auto *frame = static_cast<QTextFrame *>(m_codes[size_t(code)].frame);
    const QRectF box = m_doc->documentLayout()->frameBoundingRect(frame);
    return {box.right() - buttonSize - 4, box.top() + 4, buttonSize, buttonSize};
}

void MarkdownDocument::paint(QPainter &painter, const QPointF &at, const QRectF &clip) const
{
    painter.save();
    painter.translate(at);
    QAbstractTextDocumentLayout::PaintContext context;
    context.palette = m_palette;
    context.clip = clip.translated(-at);
    m_doc->documentLayout()->draw(&painter, context);
    // The quote bars and the copy buttons sit over the text.
    painter.setPen(Qt::NoPen);
    for (int number : m_quoteBlocks) {
        const QTextBlock block = m_doc->findBlockByNumber(number);
        const QRectF r = m_doc->documentLayout()->blockBoundingRect(block);
        painter.setBrush(m_palette.color(QPalette::Mid));
        painter.drawRoundedRect(QRectF(r.left(), r.top(), 3, r.height()), 1.5, 1.5);
    }
    for (int i = 0; i < codeBlocks(); ++i) {
        const QRectF button = copyButton(i);
        painter.setBrush(m_palette.color(QPalette::Button));
        painter.setPen(m_palette.color(QPalette::Mid));
        painter.drawRoundedRect(button, 5, 5);
        // Two overlapping sheets: the usual picture of a copy.
        painter.setPen(QPen(m_palette.color(QPalette::ButtonText), 1.2));
        painter.setBrush(Qt::NoBrush);
        const QRectF sheet(button.left() + 7, button.top() + 9, 9, 10);
        painter.drawRect(sheet);
        painter.drawRect(sheet.translated(3, -3));
        painter.setPen(Qt::NoPen);
    }
    painter.restore();
}

QString MarkdownDocument::linkAt(const QPointF &point) const { return m_doc->documentLayout()->anchorAt(point); }

QString MarkdownDocument::copyAt(const QPointF &point) const
{
    for (int i = 0; i < codeBlocks(); ++i)
        if (copyButton(i).contains(point))
            return m_codes[size_t(i)].text;
    return {};
}

} // namespace zuv

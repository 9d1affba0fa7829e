#include "surface/views/MessageList.h"

#include "surface/TimeLabel.h"

#include <QClipboard>
#include <QContextMenuEvent>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QMenu>
#include <QPainter>
#include <QScrollBar>
#include <QTextDocument>
#include <QTimer>
#include <QToolButton>
#include <QUrl>

namespace zuv {

namespace {

constexpr int sideMargin = 16;
constexpr int rowPadding = 7;
constexpr int bubblePadding = 10;
constexpr int idleSlice = 24; // rows laid out per idle turn

bool fromUser(const Entry &entry) { return entry.role == QLatin1String("user"); }

QString keyOf(const Entry &entry) { return entry.id + u':' + QString::number(qHash(entry.text), 16); }

} // namespace

MessageList::MessageList(QWidget *parent) : QAbstractScrollArea(parent), m_docs(400)
{
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    viewport()->setMouseTracking(true);
    viewport()->setBackgroundRole(QPalette::Base);
    verticalScrollBar()->setSingleStep(40);
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, &MessageList::noteBottom);

    m_jump = new QToolButton(viewport());
    m_jump->setText(tr("Jump to latest"));
    m_jump->setArrowType(Qt::DownArrow);
    m_jump->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    m_jump->setObjectName(QStringLiteral("jumpToLatest"));
    m_jump->hide();
    connect(m_jump, &QToolButton::clicked, this, &MessageList::scrollToEnd);
}

MessageList::~MessageList() = default;

void MessageList::setShowUsage(bool on)
{
    if (on == m_showUsage)
        return;
    m_showUsage = on;
    for (Row &row : m_rows)
        row.measured = false;
    m_docs.clear();
    viewport()->update();
}

void MessageList::setEntries(const std::vector<Entry> &entries, const QDateTime &now, bool fresh)
{
    const bool follow = fresh || m_atBottom;
    // Heights already measured carry over to rows that did not change.
    QHash<QString, int> known;
    if (!fresh)
        for (const Row &row : m_rows)
            if (row.measured)
                known.insert(row.key + (row.label ? QStringLiteral("|t") : QString()), row.height);
    if (fresh)
        m_docs.clear();

    m_rows.clear();
    m_rows.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        Row row;
        row.entry = entries[i];
        row.key = keyOf(row.entry);
        row.label = TimeLabel::between(i ? &entries[i - 1] : nullptr, entries[i], now);
        // The time line is part of the height: a row that gained or lost one is measured again.
        const auto k = known.constFind(row.key + (row.label ? QStringLiteral("|t") : QString()));
        if (k != known.constEnd()) {
            row.height = *k;
            row.measured = true;
        }
        row.height = row.measured ? row.height : estimate(row);
        m_rows.push_back(std::move(row));
    }
    m_tops.assign(m_rows.size() + 1, 0);
    for (size_t i = 0; i < m_rows.size(); ++i)
        m_tops[i + 1] = m_tops[i] + m_rows[i].height;
    updateRange();
    if (follow)
        scrollToEnd();
    scheduleIdleWork();
    viewport()->update();
}

int MessageList::measured() const
{
    int n = 0;
    for (const Row &row : m_rows)
        n += row.measured;
    return n;
}

int MessageList::estimate(const Row &row) const
{
    const QFontMetrics fm(font());
    const int width = std::max(200, viewport()->width() - 2 * sideMargin - 2 * bubblePadding);
    const int perLine = std::max(20, width / std::max(1, fm.averageCharWidth()));
    const int lines = int(row.entry.text.size() / perLine) + int(row.entry.text.count(u'\n')) + 1;
    return lines * fm.lineSpacing() + 2 * rowPadding + 2 * bubblePadding + (row.label ? fm.height() + 6 : 0);
}

MarkdownDocument *MessageList::document(int index)
{
    const Row &row = m_rows[size_t(index)];
    MarkdownDocument *doc = m_docs.object(row.key);
    if (!doc) {
        doc = new MarkdownDocument(row.entry.text, font(), palette(), !fromUser(row.entry));
        m_docs.insert(row.key, doc);
    }
    const int full = std::max(80, viewport()->width() - 2 * sideMargin - 2 * bubblePadding);
    if (fromUser(row.entry)) {
        // A person's message is a bubble at the end, no wider than it needs.
        doc->setWidth(full * 3 / 4);
        const qreal ideal = doc->document().idealWidth();
        doc->setWidth(std::ceil(std::min<qreal>(ideal + 1, full * 3 / 4)));
    } else {
        doc->setWidth(full);
    }
    return doc;
}

QString MessageList::footer(const Entry &entry) const
{
    QStringList parts;
    if (entry.files && !entry.files->empty()) {
        QStringList names;
        for (const Entry::File &f : *entry.files)
            names << f.name;
        parts << QStringLiteral("📎 ") + names.join(QStringLiteral(", "));
    }
    if (m_showUsage && entry.usage && !fromUser(entry))
        parts << tr("%1 in, %2 out · $%3")
                     .arg(QLocale().toString(entry.usage->input, 'f', 0), QLocale().toString(entry.usage->output, 'f', 0))
                     .arg(entry.usage->usd, 0, 'f', 4);
    return parts.join(QStringLiteral("  ·  "));
}

MessageList::Geometry MessageList::geometry(int index, MarkdownDocument *doc) const
{
    const Row &row = m_rows[size_t(index)];
    const QFontMetrics fm(font());
    Geometry g;
    g.labelHeight = row.label ? fm.height() + 6 : 0;
    const qreal w = doc->width();
    const qreal h = doc->height();
    const qreal footerHeight = footer(row.entry).isEmpty() ? 0 : fm.height() + 4;
    const qreal left = fromUser(row.entry) ? viewport()->width() - sideMargin - w - 2 * bubblePadding : sideMargin;
    g.bubble = QRectF(left, rowPadding + g.labelHeight, w + 2 * bubblePadding, h + 2 * bubblePadding + footerHeight);
    g.doc = QRectF(left + bubblePadding, g.bubble.top() + bubblePadding, w, h);
    return g;
}

void MessageList::measure(int index, int firstVisible)
{
    Row &row = m_rows[size_t(index)];
    if (row.measured)
        return;
    const Geometry g = geometry(index, document(index));
    const int height = int(std::ceil(g.bubble.bottom())) + rowPadding;
    const int delta = height - row.height;
    row.height = height;
    row.measured = true;
    if (delta == 0)
        return;
    for (size_t i = size_t(index) + 1; i < m_tops.size(); ++i)
        m_tops[i] += delta;
    updateRange();
    // A row above the view grew or shrank: the view moves with it and stays still.
    if (firstVisible >= 0 && index < firstVisible && !m_atBottom)
        verticalScrollBar()->setValue(verticalScrollBar()->value() + delta);
}

int MessageList::top(int row) const { return m_tops[size_t(row)]; }

int MessageList::rowAt(int y) const
{
    if (m_rows.empty() || y >= m_tops.back())
        return -1;
    const auto it = std::upper_bound(m_tops.begin(), m_tops.end(), y);
    return std::max(0, int(it - m_tops.begin()) - 1);
}

QRect MessageList::rowRect(int row) const
{
    return QRect(0, top(row) - verticalScrollBar()->value(), viewport()->width(), m_rows[size_t(row)].height);
}

std::optional<QString> MessageList::timeLabel(int row) const { return m_rows[size_t(row)].label; }

void MessageList::updateRange()
{
    const int total = m_tops.empty() ? 0 : m_tops.back();
    verticalScrollBar()->setPageStep(viewport()->height());
    verticalScrollBar()->setRange(0, std::max(0, total - viewport()->height()));
}

bool MessageList::atBottom() const { return m_atBottom; }

void MessageList::noteBottom()
{
    const bool bottom = verticalScrollBar()->value() >= verticalScrollBar()->maximum() - 4;
    if (bottom != m_atBottom) {
        m_atBottom = bottom;
        emit atBottomChanged(bottom);
    }
    m_jump->setVisible(!m_atBottom);
    m_jump->adjustSize();
    m_jump->move(viewport()->width() - m_jump->width() - 16, viewport()->height() - m_jump->height() - 12);
}

void MessageList::scrollToEnd()
{
    // The rows at the end are laid out for real first, so that the end is exact.
    int filled = 0;
    for (int i = int(m_rows.size()) - 1; i >= 0 && filled < viewport()->height() + 200; --i) {
        measure(i, -1);
        filled += m_rows[size_t(i)].height;
    }
    updateRange();
    verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    noteBottom();
}

void MessageList::measureAll()
{
    const int first = rowAt(verticalScrollBar()->value());
    for (int i = 0; i < int(m_rows.size()); ++i)
        measure(i, first);
    if (m_atBottom)
        verticalScrollBar()->setValue(verticalScrollBar()->maximum());
}

void MessageList::scheduleIdleWork()
{
    if (m_idleQueued)
        return;
    m_idleQueued = true;
    QTimer::singleShot(0, this, &MessageList::idleWork);
}

void MessageList::idleWork()
{
    m_idleQueued = false;
    const int first = rowAt(verticalScrollBar()->value());
    int done = 0;
    // From the end backwards: that is where the person reads and scrolls from.
    for (int i = int(m_rows.size()) - 1; i >= 0 && done < idleSlice; --i) {
        if (m_rows[size_t(i)].measured)
            continue;
        measure(i, first);
        ++done;
    }
    if (m_atBottom && done)
        verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    if (done)
        scheduleIdleWork();
}

void MessageList::resizeEvent(QResizeEvent *event)
{
    QAbstractScrollArea::resizeEvent(event);
    if (viewport()->width() != m_width) {
        m_width = viewport()->width();
        for (Row &row : m_rows)
            row.measured = false;
        const bool bottom = m_atBottom;
        updateRange();
        if (bottom)
            scrollToEnd();
        scheduleIdleWork();
    } else {
        updateRange();
    }
    noteBottom();
}

void MessageList::scrollContentsBy(int, int) { viewport()->update(); }

void MessageList::paintEvent(QPaintEvent *event)
{
    QPainter painter(viewport());
    const int offset = verticalScrollBar()->value();
    int first = rowAt(offset);
    if (first < 0)
        return;
    // Lay out what shows; the first row's place holds while rows below it settle.
    for (int i = first; i < int(m_rows.size()) && top(i) < offset + viewport()->height(); ++i)
        measure(i, first);
    const QFontMetrics fm(font());
    const QColor secondary = palette().color(QPalette::PlaceholderText);
    for (int i = first; i < int(m_rows.size()); ++i) {
        const int y = top(i) - verticalScrollBar()->value();
        if (y >= viewport()->height())
            break;
        const Row &row = m_rows[size_t(i)];
        MarkdownDocument *doc = document(i);
        const Geometry g = geometry(i, doc);
        painter.save();
        painter.translate(0, y);
        if (row.label) {
            painter.setPen(secondary);
            QFont small = font();
            small.setPointSizeF(small.pointSizeF() * 0.85);
            painter.setFont(small);
            painter.drawText(QRectF(0, rowPadding, viewport()->width(), g.labelHeight), Qt::AlignCenter, *row.label);
            painter.setFont(font());
        }
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(fromUser(row.entry) ? palette().color(QPalette::AlternateBase).darker(104)
                                             : palette().color(QPalette::Base));
        painter.drawRoundedRect(g.bubble, 12, 12);
        doc->paint(painter, g.doc.topLeft(), QRectF(event->rect()).translated(0, -y));
        const QString foot = footer(row.entry);
        if (!foot.isEmpty()) {
            painter.setPen(secondary);
            painter.drawText(QRectF(g.doc.left(), g.doc.bottom() + 4, g.bubble.width(), fm.height()), Qt::AlignLeft,
                             foot);
        }
        if (i == m_copied) {
            painter.setPen(secondary);
            painter.drawText(QRectF(g.bubble.right() - 90, g.bubble.top() - 2, 80, fm.height()), Qt::AlignRight,
                             tr("Copied"));
        }
        painter.restore();
    }
}

bool MessageList::event(QEvent *event)
{
    if (event->type() == QEvent::FontChange || event->type() == QEvent::PaletteChange) {
        m_docs.clear();
        for (Row &row : m_rows)
            row.measured = false;
        scheduleIdleWork();
    }
    return QAbstractScrollArea::event(event);
}

void MessageList::mousePressEvent(QMouseEvent *event)
{
    const int y = int(event->position().y()) + verticalScrollBar()->value();
    const int index = rowAt(y);
    if (index < 0 || event->button() != Qt::LeftButton)
        return QAbstractScrollArea::mousePressEvent(event);
    MarkdownDocument *doc = document(index);
    const Geometry g = geometry(index, doc);
    const QPointF local = QPointF(event->position().x(), y - top(index)) - g.doc.topLeft();
    const QString code = doc->copyAt(local);
    if (!code.isNull()) {
        QGuiApplication::clipboard()->setText(code);
        m_copied = index;
        viewport()->update();
        QTimer::singleShot(1500, this, [this] {
            m_copied = -1;
            viewport()->update();
        });
        return;
    }
    const QString link = doc->linkAt(local);
    if (!link.isEmpty()) {
        QDesktopServices::openUrl(QUrl(link));
        return;
    }
    QAbstractScrollArea::mousePressEvent(event);
}

void MessageList::mouseMoveEvent(QMouseEvent *event)
{
    const int y = int(event->position().y()) + verticalScrollBar()->value();
    const int index = rowAt(y);
    bool pointing = false;
    if (index >= 0 && m_rows[size_t(index)].measured) {
        MarkdownDocument *doc = document(index);
        const QPointF local = QPointF(event->position().x(), y - top(index)) - geometry(index, doc).doc.topLeft();
        pointing = !doc->linkAt(local).isEmpty() || !doc->copyAt(local).isNull();
    }
    viewport()->setCursor(pointing ? Qt::PointingHandCursor : Qt::ArrowCursor);
}

void MessageList::contextMenuEvent(QContextMenuEvent *event)
{
    const int index = rowAt(event->pos().y() - viewport()->y() + verticalScrollBar()->value());
    if (index < 0)
        return;
    const Entry entry = m_rows[size_t(index)].entry;
    QMenu menu;
    menu.addAction(tr("Copy"), this, [entry] { QGuiApplication::clipboard()->setText(entry.text); });
    if (fromUser(entry))
        menu.addAction(tr("Send Again"), this, [this, entry] { emit resend(entry); });
    else
        menu.addAction(tr("Read Aloud"), this, [this, entry] { emit readAloud(entry.text); });
    menu.exec(event->globalPos());
}

} // namespace zuv

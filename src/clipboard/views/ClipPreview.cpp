#include "clipboard/views/ClipPreview.h"

#include "base/Job.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardPanel.h"
#include "platform/Workspace.h"

#include <QDateTime>
#include <QFormLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace zuv {

namespace {

QCoro::Task<void> pictureFor(QPointer<ClipPreview> self, ClipboardHistory *history, Clip clip,
                             std::function<void(const ClipboardHistory::Preview &)> done)
{
    const auto preview = co_await history->previewImage(clip);
    if (self && preview)
        done(*preview);
}

// As much of a text as a preview can lay out at once: a very long text is cut,
// and says so; the whole of it is still what Copy and Paste use.
QString shown(const QString &text)
{
    constexpr qsizetype characters = 20'000;
    constexpr int lines = 1'000;
    qsizetype end = std::min(text.size(), characters);
    int count = 0;
    for (qsizetype i = 0; i < end; ++i) {
        if (text.at(i) == QLatin1Char('\n') && ++count == lines) {
            end = i;
            break;
        }
    }
    return end < text.size() ? text.left(end) + QStringLiteral("\n…") : text;
}

QString when(double seconds)
{
    return QLocale().toString(QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000)), QLocale::ShortFormat);
}

} // namespace

ClipPreview::ClipPreview(ClipboardPanel &panel, ClipboardHistory &history, Workspace &workspace, QWidget *parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint), m_panel(panel),
      m_history(history), m_workspace(workspace)
{
    setAttribute(Qt::WA_ShowWithoutActivating);
    setObjectName(QStringLiteral("clipPreview"));
    auto *layout = new QVBoxLayout(this);
    m_picture = new QLabel(this);
    m_picture->setAlignment(Qt::AlignCenter);
    m_pictureHeading = new QLabel(tr("Text in the picture"), this);
    QFont bold = m_pictureHeading->font();
    bold.setBold(true);
    m_pictureHeading->setFont(bold);
    m_text = new QTextBrowser(this);
    m_text->setOpenLinks(false);
    m_text->setLineWrapMode(QTextEdit::WidgetWidth);
    m_copyText = new QPushButton(tr("Copy Text in Picture"), this);
    connect(m_copyText, &QPushButton::clicked, this, [this] {
        m_panel.close();
        m_history.copyText(m_clip.text);
    });
    m_table = new QFormLayout;
    m_hint = new QLabel(this);
    m_hint->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(m_picture);
    layout->addWidget(m_pictureHeading);
    layout->addWidget(m_text, 1);
    layout->addWidget(m_copyText, 0, Qt::AlignLeft);
    layout->addLayout(m_table);
    layout->addWidget(m_hint);
}

void ClipPreview::showClip(const Clip &clip)
{
    const bool same = clip.id == m_clip.id && clip.text == m_clip.text;
    m_clip = clip;
    while (m_table->rowCount() > 0)
        m_table->removeRow(0);
    const bool image = clip.kind == Clip::Kind::image;
    if (clip.app) {
        const QString name = *clip.app == QLatin1String("zuv.iphone")
            ? QStringLiteral("iPhone")
            : (m_workspace.application(*clip.app) ? m_workspace.application(*clip.app)->name : *clip.app);
        m_table->addRow(tr("Application"), new QLabel(name));
    }
    auto *dimensions = image ? new QLabel(QStringLiteral("…")) : nullptr;
    if (dimensions)
        m_table->addRow(tr("Dimensions"), dimensions);
    m_table->addRow(tr("First copied"), new QLabel(when(clip.first)));
    m_table->addRow(tr("Last copied"), new QLabel(when(clip.last)));
    m_table->addRow(tr("Copies"), new QLabel(QString::number(clip.copies)));
    m_hint->setText(clip.pin ? tr("Alt+P unpins it · Alt+Backspace deletes it · Ctrl+Space closes this")
                             : tr("Alt+P pins it · Alt+Backspace deletes it · Ctrl+Space closes this"));

    m_picture->setVisible(image);
    m_pictureHeading->setVisible(image && !clip.text.isEmpty());
    m_copyText->setVisible(image && !clip.text.isEmpty());
    m_text->setVisible(!image || !clip.text.isEmpty());
    if (!same) {
        m_text->setPlainText(image ? clip.text : shown(m_history.fullText(clip)));
        m_picture->clear();
    }
    if (image && (!same || m_picture->pixmap().isNull())) {
        const int request = ++m_request;
        QPointer<ClipPreview> self(this);
        spawn(pictureFor(self, &m_history, clip,
                         [self, request, dimensions](const ClipboardHistory::Preview &preview) {
                             if (self->m_request != request)
                                 return; // another clip meanwhile
                             const QPixmap pixmap = QPixmap::fromImage(preview.image.scaled(
                                 380, 300, Qt::KeepAspectRatio, Qt::SmoothTransformation));
                             self->m_picture->setPixmap(pixmap);
                             if (dimensions)
                                 dimensions->setText(QStringLiteral("%1 × %2").arg(preview.pixels.width()).arg(preview.pixels.height()));
                             self->report();
                         }),
              QStringLiteral("A picture for the clip preview"));
    }
    report();
}

void ClipPreview::report()
{
    const QSize wanted = sizeHint();
    m_panel.previewWants(std::max(400, wanted.width()));
    const int textHeight = m_text->isVisible() ? int(m_text->document()->size().height()) + 16 : 0;
    m_panel.previewFits(std::max(80, wanted.height() - m_text->sizeHint().height() + textHeight));
}

void ClipPreview::keyPressEvent(QKeyEvent *event)
{
    // Ctrl+C and Ctrl+A work in the text; the rest goes to the panel.
    if (event->key() == Qt::Key_Escape) {
        m_panel.close();
        return;
    }
    ClipboardPanel::Key key{event->key(), event->modifiers(), event->nativeScanCode(), false};
    if (!m_panel.handle(key))
        QWidget::keyPressEvent(event);
}

} // namespace zuv

#include "surface/views/Composer.h"

#include <QFileDialog>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMimeData>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

namespace zuv {

void ComposerField::keyPressEvent(QKeyEvent *event)
{
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        && !(event->modifiers() & (Qt::ShiftModifier | Qt::AltModifier))) {
        emit submit();
        return;
    }
    QPlainTextEdit::keyPressEvent(event);
}

bool ComposerField::canInsertFromMimeData(const QMimeData *source) const
{
    return source->hasImage() || source->hasUrls() || QPlainTextEdit::canInsertFromMimeData(source);
}

void ComposerField::insertFromMimeData(const QMimeData *source)
{
    // Files and pictures are attached; text is typed in.
    if (source->hasImage() || (source->hasUrls() && !source->urls().isEmpty() && source->urls().first().isLocalFile())) {
        const auto files = OutgoingFile::load(*source);
        if (!files.empty()) {
            emit filesPasted(files);
            return;
        }
    }
    QPlainTextEdit::insertFromMimeData(source);
}

Composer::Composer(QWidget *parent) : QWidget(parent)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(12, 6, 12, 12);
    m_chips = new QWidget;
    m_chipRow = new QHBoxLayout(m_chips);
    m_chipRow->setContentsMargins(0, 0, 0, 0);
    m_chips->hide();
    column->addWidget(m_chips);

    auto *row = new QHBoxLayout;
    auto *attachButton = new QToolButton;
    attachButton->setText(QStringLiteral("+"));
    attachButton->setToolTip(tr("Attach files"));
    attachButton->setObjectName(QStringLiteral("attach"));
    connect(attachButton, &QToolButton::clicked, this, &Composer::attach);
    row->addWidget(attachButton, 0, Qt::AlignBottom);

    m_field = new ComposerField;
    m_field->setObjectName(QStringLiteral("composerField"));
    m_field->setTabChangesFocus(true);
    m_field->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    // As tall as its text, from one line up to about six.
    const auto fit = [this] {
        const QFontMetrics fm(m_field->font());
        const int lines = std::clamp(int(m_field->document()->size().height()), 1, 6);
        m_field->setFixedHeight(lines * fm.lineSpacing() + 2 * int(m_field->document()->documentMargin()) + 6);
    };
    connect(m_field, &QPlainTextEdit::textChanged, this, fit);
    fit();
    connect(m_field, &ComposerField::submit, this, [this] {
        if (!empty())
            emit send();
    });
    connect(m_field, &ComposerField::filesPasted, this, &Composer::addFiles);
    connect(m_field, &QPlainTextEdit::textChanged, this, &Composer::updateButtons);
    row->addWidget(m_field, 1);

    m_action = new QToolButton;
    m_action->setObjectName(QStringLiteral("sendButton"));
    m_action->setMinimumSize(32, 32);
    connect(m_action, &QToolButton::clicked, this, [this] {
        if (m_busy && m_field->toPlainText().trimmed().isEmpty())
            emit stop();
        else if (!empty())
            emit send();
    });
    row->addWidget(m_action, 0, Qt::AlignBottom);
    column->addLayout(row);
    updateButtons();
}

QString Composer::text() const { return m_field->toPlainText(); }
void Composer::setText(const QString &text) { m_field->setPlainText(text); }
void Composer::setPlaceholder(const QString &text) { m_field->setPlaceholderText(text); }
void Composer::focusField() { m_field->setFocus(); }

void Composer::setFiles(std::vector<OutgoingFile> files)
{
    m_files = std::move(files);
    rebuildChips();
    updateButtons();
}

void Composer::addFiles(const std::vector<OutgoingFile> &files)
{
    m_files.insert(m_files.end(), files.begin(), files.end());
    rebuildChips();
    updateButtons();
}

void Composer::setBusy(bool busy)
{
    m_busy = busy;
    updateButtons();
}

bool Composer::empty() const { return m_field->toPlainText().trimmed().isEmpty() && m_files.empty(); }

void Composer::updateButtons()
{
    const bool stopping = m_busy && m_field->toPlainText().trimmed().isEmpty();
    m_action->setIcon(style()->standardIcon(stopping ? QStyle::SP_MediaStop : QStyle::SP_ArrowUp));
    m_action->setToolTip(stopping ? tr("Stop (Ctrl+.)") : tr("Send (Return)"));
    m_action->setEnabled(stopping || !empty());
}

void Composer::rebuildChips()
{
    while (QLayoutItem *item = m_chipRow->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const OutgoingFile &file : m_files) {
        auto *chip = new QToolButton;
        chip->setText(file.name + QStringLiteral("  ✕"));
        chip->setToolTip(tr("Remove"));
        chip->setIcon(style()->standardIcon(QStyle::SP_FileIcon));
        chip->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        const QUuid id = file.id;
        connect(chip, &QToolButton::clicked, this, [this, id] {
            std::erase_if(m_files, [&](const OutgoingFile &f) {
                if (f.id != id)
                    return false;
                f.discard();
                return true;
            });
            // After this turn: the chip that was clicked goes with the rebuild.
            QMetaObject::invokeMethod(this, [this] { rebuildChips(); updateButtons(); }, Qt::QueuedConnection);
        });
        m_chipRow->addWidget(chip);
    }
    m_chipRow->addStretch();
    m_chips->setVisible(!m_files.empty());
}

void Composer::attach()
{
    const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Attach files"));
    std::vector<OutgoingFile> picked;
    for (const QString &path : paths)
        picked.push_back(OutgoingFile::copy(path));
    addFiles(picked);
}

} // namespace zuv

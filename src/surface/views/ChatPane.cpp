#include "surface/views/ChatPane.h"

#include "base/Clock.h"
#include "base/Job.h"
#include "chat/ChatModel.h"
#include "surface/views/Composer.h"
#include "surface/views/Headline.h"
#include "surface/views/MessageList.h"

#include <QDragEnterEvent>
#include <QLabel>
#include <QMimeData>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace zuv {

namespace {

// Loads the conversation and marks it seen, unless the pane moved on meanwhile.
QCoro::Task<void> refreshAndMarkSeen(QPointer<ChatPane> pane, ChatModel *chat, QString id)
{
    co_await chat->refresh(id);
    if (pane && pane->conversation() == id)
        chat->markSeen(id);
}

QCoro::Task<void> sendAndRestore(QPointer<ChatPane> pane, ChatModel *chat, QString text, std::vector<OutgoingFile> files,
                                 std::vector<Entry::File> reusing, QString id)
{
    const bool sent = co_await chat->send(text, files, std::move(reusing), id);
    if (sent || !pane || pane->conversation() != id)
        co_return;
    // What the person typed meanwhile is theirs: only an empty composer takes the draft back.
    Composer *composer = pane->composer();
    if (composer->text().isEmpty())
        composer->setText(text);
    if (composer->files().empty())
        composer->setFiles(std::move(files));
}

} // namespace

ChatPane::ChatPane(ChatModel &chat, Clock &clock, QWidget *parent) : QWidget(parent), m_chat(chat), m_clock(clock)
{
    setAcceptDrops(true);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    m_note = new QLabel;
    m_note->setWordWrap(true);
    m_note->setContentsMargins(16, 8, 16, 8);
    m_note->hide();
    column->addWidget(m_note);

    m_body = new QStackedWidget;
    m_failed = new QWidget;
    {
        auto *box = new QVBoxLayout(m_failed);
        box->addStretch();
        box->addWidget(headline(tr("Couldn't Load This Chat"), 1.0));
        auto *text = new QLabel(tr("Check your connection, then try again."));
        text->setAlignment(Qt::AlignCenter);
        box->addWidget(text);
        auto *retry = new QPushButton(tr("Try Again"));
        retry->setObjectName(QStringLiteral("tryAgain"));
        connect(retry, &QPushButton::clicked, this, [this] {
            if (m_conversation)
                spawn(refreshAndMarkSeen(this, &m_chat, *m_conversation), QStringLiteral("Loading a conversation"));
        });
        box->addWidget(retry, 0, Qt::AlignCenter);
        box->addStretch();
    }
    m_empty = new QWidget;
    {
        auto *box = new QVBoxLayout(m_empty);
        box->addStretch();
        box->addWidget(headline(tr("How can I help?"), 1.4));
        for (const QString &prompt : {tr("What changed in my projects under ~/code this week?"),
                                      tr("Summarise the newest file in ~/Downloads."),
                                      tr("Which processes use the most memory right now?")}) {
            auto *example = new QPushButton(prompt);
            example->setFlat(true);
            connect(example, &QPushButton::clicked, this, [this, prompt] {
                m_composer->setText(prompt);
                m_composer->focusField();
            });
            box->addWidget(example, 0, Qt::AlignCenter);
        }
        box->addStretch();
    }
    m_list = new MessageList;
    m_body->addWidget(m_list);
    m_body->addWidget(m_empty);
    m_body->addWidget(m_failed);
    column->addWidget(m_body, 1);

    m_working = new QLabel;
    m_working->setObjectName(QStringLiteral("workingLine"));
    m_working->setContentsMargins(16, 4, 16, 4);
    m_working->setForegroundRole(QPalette::PlaceholderText);
    m_working->hide();
    column->addWidget(m_working);

    m_composer = new Composer;
    m_composer->setPlaceholder(tr("Message Zuv"));
    column->addWidget(m_composer);
    connect(m_composer, &Composer::send, this, &ChatPane::send);
    connect(m_composer, &Composer::stop, this, [this] {
        if (m_conversation)
            m_chat.cancel(*m_conversation);
    });
    connect(m_list, &MessageList::resend, this, &ChatPane::resend);
    connect(m_list, &MessageList::readAloud, this, [this](const QString &text) {
        if (readAloud)
            readAloud(text);
    });

    m_dropOverlay = new QLabel(tr("Drop to attach"), this);
    m_dropOverlay->setAlignment(Qt::AlignCenter);
    m_dropOverlay->setStyleSheet(QStringLiteral("background: rgba(60, 90, 220, 40); border: 2px dashed palette(highlight);"
                                                " font-size: 16pt; border-radius: 12px"));
    m_dropOverlay->hide();

    connect(&m_chat, &ChatModel::entriesChanged, this, [this](const QString &id) {
        if (id == m_conversation)
            reload(false);
    });
    connect(&m_chat, &ChatModel::loadFailedChanged, this, [this] { reload(false); });
    connect(&m_chat, &ChatModel::waitingChanged, this, &ChatPane::updateWorking);
    connect(&m_chat, &ChatModel::handoffChanged, this, &ChatPane::takeHandoff);
}

ChatPane::~ChatPane()
{
    if (m_conversation && m_chat.visible() == m_conversation)
        m_chat.setVisible(std::nullopt);
}

void ChatPane::setConversation(const std::optional<QString> &id)
{
    if (id == m_conversation)
        return;
    // Leaving: the model forgets us only if no other pane took its place.
    if (m_conversation && m_chat.visible() == m_conversation)
        m_chat.setVisible(std::nullopt);
    m_conversation = id;
    m_composer->setText({});
    m_composer->setFiles({});
    if (!id) {
        reload(true);
        return;
    }
    open(*id);
}

void ChatPane::open(QString id)
{
    m_chat.setVisible(id);
    takeHandoff();
    if (id.startsWith(QLatin1String("tg-")) || id.startsWith(QLatin1String("x-"))) {
        m_note->setText(tr("Your %1 chat with Zuv. What you send here joins it; Zuv answers here.")
                            .arg(id.startsWith(QLatin1String("tg-")) ? QStringLiteral("Telegram") : QStringLiteral("X")));
        m_note->show();
    } else {
        m_note->hide();
    }
    reload(true);
    spawn(refreshAndMarkSeen(this, &m_chat, id), QStringLiteral("Loading a conversation"));
    m_composer->focusField();
}

void ChatPane::takeHandoff()
{
    if (!m_conversation || !m_chat.handoff().count(*m_conversation))
        return;
    if (auto content = m_chat.takeHandoff(*m_conversation)) {
        m_composer->setText(content->text);
        m_composer->setFiles(std::move(content->files));
    }
}

void ChatPane::reload(bool fresh)
{
    const EntryList *entries = m_conversation ? m_chat.entries(*m_conversation) : nullptr;
    const bool any = entries && !entries->empty();
    if (!any && m_conversation && m_chat.loadFailed().contains(*m_conversation))
        m_body->setCurrentWidget(m_failed);
    else if (!any)
        m_body->setCurrentWidget(m_empty);
    else
        m_body->setCurrentWidget(m_list);
    m_list->setEntries(any ? entries->items() : std::vector<Entry>(), m_clock.date(), fresh);
    updateWorking();
}

void ChatPane::updateWorking()
{
    const bool waiting = m_conversation && m_chat.waiting().contains(*m_conversation);
    if (waiting) {
        const QString step = m_chat.steps().value(*m_conversation);
        m_working->setText(step.isEmpty() ? tr("Zuv is thinking…") : step);
    }
    m_working->setVisible(waiting);
    m_composer->setBusy(waiting);
}

void ChatPane::send()
{
    if (!m_conversation)
        return;
    const QString text = m_composer->text().trimmed();
    std::vector<OutgoingFile> files = m_composer->files();
    if (text.isEmpty() && files.empty())
        return;
    m_composer->setText({});
    m_composer->setFiles({});
    m_list->scrollToEnd();
    spawn(sendAndRestore(this, &m_chat, text, std::move(files), {}, *m_conversation), QStringLiteral("Sending a message"));
}

void ChatPane::sendText(const QString &text)
{
    m_composer->setText(text);
    send();
}

void ChatPane::resend(const Entry &entry)
{
    if (!m_conversation)
        return;
    std::vector<Entry::File> reusing;
    for (const Entry::File &f : entry.files.value_or(std::vector<Entry::File>()))
        if (!f.key.isEmpty())
            reusing.push_back(f);
    spawn(sendAndRestore(nullptr, &m_chat, entry.text, {}, std::move(reusing), *m_conversation),
          QStringLiteral("Sending a message again"));
}

void ChatPane::dragEnterEvent(QDragEnterEvent *event)
{
    if (event->mimeData()->hasUrls() || event->mimeData()->hasImage()) {
        event->acceptProposedAction();
        m_dropOverlay->setGeometry(rect().adjusted(8, 8, -8, -8));
        m_dropOverlay->show();
        m_dropOverlay->raise();
    }
}

void ChatPane::dragLeaveEvent(QDragLeaveEvent *) { m_dropOverlay->hide(); }

void ChatPane::dropEvent(QDropEvent *event)
{
    m_dropOverlay->hide();
    const auto files = OutgoingFile::load(*event->mimeData());
    if (files.empty())
        return;
    m_composer->addFiles(files);
    event->acceptProposedAction();
}

void ChatPane::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_dropOverlay->setGeometry(rect().adjusted(8, 8, -8, -8));
}

} // namespace zuv

#include "clipboard/RecognitionQueue.h"

#include "clipboard/ClipRules.h"
#include "clipboard/ClipStore.h"
#include "clipboard/ClipboardHistory.h"
#include "platform/TextRecognizer.h"

#include <QLocale>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>
#include <QCoro/QCoroFuture>

namespace zuv {

namespace {

QString head(const QString &code) { return code.section(QLatin1Char('-'), 0, 0); }

bool cjk(const QString &code)
{
    const QString h = head(code);
    return h == QLatin1String("zh") || h == QLatin1String("ja") || h == QLatin1String("ko") || h == QLatin1String("yue");
}

} // namespace

RecognitionQueue::RecognitionQueue(ClipboardHistory &history, TextRecognizer &recognizer, QObject *parent)
    : QObject(parent), m_history(history), m_recognizer(recognizer)
{
}

RecognitionQueue::~RecognitionQueue() = default;

QStringList RecognitionQueue::textLanguages(const QStringList &supported, const QStringList &preferred)
{
    QStringList picks;
    for (const QString &entry : preferred + QStringList{QStringLiteral("en-US")}) {
        QString pick;
        for (const QString &s : supported)
            if (entry.startsWith(s)) {
                pick = s;
                break;
            }
        if (pick.isEmpty())
            for (const QString &s : supported)
                if (head(s) == head(entry)) {
                    pick = s;
                    break;
                }
        if (!pick.isEmpty() && !picks.contains(pick))
            picks << pick;
    }
    return picks;
}

QStringList RecognitionQueue::systemLanguages()
{
    QStringList out;
    // $LANGUAGE is the person's own list ("de_DE:ja"); the locale's follow.
    for (const QString &entry : qEnvironmentVariable("LANGUAGE").split(QLatin1Char(':'), Qt::SkipEmptyParts))
        out << QString(entry).replace(QLatin1Char('_'), QLatin1Char('-'));
    for (const QString &entry : QLocale().uiLanguages())
        if (!out.contains(entry))
            out << entry;
    return out;
}

bool RecognitionQueue::eastAsian(const QString &text)
{
    for (char32_t c : text.toUcs4()) {
        if ((c >= 0x3040 && c <= 0x30FF) || (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF)
            || (c >= 0xAC00 && c <= 0xD7AF) || (c >= 0xF900 && c <= 0xFAFF))
            return true;
    }
    return false;
}

QCoro::Task<QString> RecognitionQueue::recognize(TextRecognizer &recognizer, QByteArray picture, QStringList languages)
{
    QStringList east;
    for (const QString &l : languages)
        if (cjk(l))
            east << l;
    const QString first = co_await recognizer.recognize(picture, languages);
    if (east.isEmpty() || languages.first() == east.first())
        co_return first;
    QStringList favoured = east;
    for (const QString &l : languages)
        if (!east.contains(l))
            favoured << l;
    const QString second = co_await recognizer.recognize(picture, favoured);
    co_return eastAsian(second) ? second : first;
}

void RecognitionQueue::start()
{
    if (m_job.isRunning())
        return;
    m_job = Job::start([this](CancelToken token) { return run(std::move(token)); },
                       QStringLiteral("Reading the text in pictures"));
}

QCoro::Task<void> RecognitionQueue::run(CancelToken token)
{
    QPointer<RecognitionQueue> self(this);
    const std::shared_ptr<ClipStore> store = m_history.sharedStore();
    if (!store) {
        done();
        co_return;
    }
    // Futures are made in statements of their own: GCC 12 destroys a lambda
    // temporary twice when it is made inside a co_await.
    QFuture<std::vector<qint64>> listed = QtConcurrent::run([store] { return store->unrecognized(); });
    const std::vector<qint64> ids = co_await listed;
    if (!self || token.isCancelled())
        co_return;
    const QStringList supported = co_await m_recognizer.supportedLanguages();
    if (!self || token.isCancelled())
        co_return;
    const QStringList languages = textLanguages(supported, preferred ? preferred() : systemLanguages());

    for (const qint64 id : ids) {
        QFuture<std::optional<QByteArray>> read =
            QtConcurrent::run([store, id] { return store->firstData(id, ClipRules::imageTypes()); });
        const std::optional<QByteArray> picture = co_await read;
        if (!self || token.isCancelled())
            co_return;
        QString text;
        if (picture && !languages.isEmpty())
            text = co_await recognize(m_recognizer, *picture, languages);
        if (!self || token.isCancelled())
            co_return;
        // Marked before the text is used, and whatever came of it.
        QFuture<void> marked = QtConcurrent::run([store, id] { store->markRecognized(id); });
        co_await marked;
        if (!self || token.isCancelled())
            co_return;
        if (!text.isEmpty())
            m_history.setText(id, ClipRules::firstCharacters(text, 1000));
    }
    done();
}

void RecognitionQueue::done()
{
    // On a later turn, when this run has ended, so that a new one can start.
    ClipboardHistory *history = &m_history;
    QMetaObject::invokeMethod(history, [history] { history->recognitionDone(); }, Qt::QueuedConnection);
}

} // namespace zuv

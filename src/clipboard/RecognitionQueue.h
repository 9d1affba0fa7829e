#pragma once

#include "base/Job.h"

#include <QObject>
#include <QStringList>
#include <QCoro/QCoroTask>

#include <functional>

namespace zuv {

class ClipboardHistory;
class TextRecognizer;

// Reads the text in the pictures of the history that have not been read yet,
// one at a time, newest first, off the main thread; each picture is marked as
// read before its text is used, so that it is tried once whatever comes of it.
class RecognitionQueue : public QObject {
    Q_OBJECT
public:
    RecognitionQueue(ClipboardHistory &history, TextRecognizer &recognizer, QObject *parent = nullptr);
    ~RecognitionQueue() override;

    // The person's languages, most wanted first ("de-DE", "ja"); the system's by default.
    std::function<QStringList()> preferred;

    void start();
    bool running() const { return m_job.isRunning(); }

    // The supported languages to read with, in the person's order, English last.
    static QStringList textLanguages(const QStringList &supported, const QStringList &preferred);
    // The locale's languages and $LANGUAGE, as codes.
    static QStringList systemLanguages();
    static bool eastAsian(const QString &text);
    // One picture: a pass in the person's languages, and a second that favours
    // their East Asian languages when the first does not.
    static QCoro::Task<QString> recognize(TextRecognizer &recognizer, QByteArray picture, QStringList languages);

private:
    QCoro::Task<void> run(CancelToken token);
    void done();

    ClipboardHistory &m_history;
    TextRecognizer &m_recognizer;
    Job m_job;
};

} // namespace zuv

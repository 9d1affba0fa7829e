#pragma once

#include <QObject>
#include <QString>
#include <QCoro/QCoroTask>

namespace zuv {

class LanguageDetector;
class Synthesizer;

// Reads replies aloud: Markdown reduced to what a person would say, in the voice of
// the text's language. A new reading interrupts the one before.
class Speaker : public QObject {
    Q_OBJECT
public:
    Speaker(Synthesizer &synthesizer, const LanguageDetector &detector, QObject *parent = nullptr);

    // Returns when speaking has ended, for whatever reason.
    QCoro::Task<void> speak(QString text);
    void finish();
    bool speaking() const { return m_waiting; }

    static QString plain(const QString &text);
    QString language(const QString &text) const;

    static constexpr double rate = 1.05; // of the default speaking rate

signals:
    void finished(quint64 reading);

private:
    Synthesizer &m_synth;
    const LanguageDetector &m_detector;
    bool m_waiting = false;
    quint64 m_reading = 0;
    bool m_told = false;
};

// The one Speaker of the process.
namespace Narrator {
Speaker &shared();
void setShared(Speaker *speaker);
} // namespace Narrator

} // namespace zuv

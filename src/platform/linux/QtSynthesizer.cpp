#include "platform/linux/QtSynthesizer.h"

#include <QLocale>
#include <QTextToSpeech>

namespace zuv {

QtSynthesizer::QtSynthesizer(QObject *parent) : Synthesizer(parent) {}

QtSynthesizer::~QtSynthesizer() = default;

void QtSynthesizer::create()
{
    if (m_speech)
        return;
    const QStringList engines = QTextToSpeech::availableEngines();
    if (engines.isEmpty()) {
        m_problem = QStringLiteral("no speech engine is installed (qt6-speech-speechd-plugin)");
        return;
    }
    m_speech = new QTextToSpeech(engines.contains(QStringLiteral("speechd")) ? QStringLiteral("speechd") : engines.front(), this);
    connect(m_speech, &QTextToSpeech::stateChanged, this, [this](QTextToSpeech::State state) {
        if (state == QTextToSpeech::Speaking) {
            m_speaking = true;
        } else if (m_speaking && (state == QTextToSpeech::Ready || state == QTextToSpeech::Error)) {
            m_speaking = false;
            emit finished();
        }
    });
}

bool QtSynthesizer::available()
{
    create();
    if (!m_speech)
        return false;
    if (m_speech->state() == QTextToSpeech::Error) {
        m_problem = QStringLiteral("the speech service does not answer (speech-dispatcher): ") + m_speech->errorString();
        return false;
    }
    return true;
}

void QtSynthesizer::say(const QString &text, const QString &language, double rate)
{
    if (!available()) {
        emit finished();
        return;
    }
    m_speech->setLocale(QLocale(language));
    // QTextToSpeech's rate runs from -1 to 1 around the default 0, 1 being about
    // twice as fast: a factor f of the default speed is f - 1 on that scale.
    m_speech->setRate(std::clamp(rate - 1.0, -1.0, 1.0));
    m_speaking = false;
    m_speech->say(text);
}

void QtSynthesizer::stop()
{
    if (m_speech)
        m_speech->stop();
}

} // namespace zuv

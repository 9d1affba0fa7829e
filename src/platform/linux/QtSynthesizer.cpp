#include "platform/linux/QtSynthesizer.h"

#include "base/Clock.h"
#include "base/Log.h"

#include <QLocale>
#include <QPointer>
#include <QTextToSpeech>

#include <algorithm>

namespace zuv {

QtSynthesizer::QtSynthesizer(Clock &clock, QObject *parent) : Synthesizer(parent), m_clock(clock) {}

QtSynthesizer::~QtSynthesizer() = default;

void QtSynthesizer::create()
{
    if (m_speech)
        return;
    const QStringList engines = QTextToSpeech::availableEngines();
    if (engines.isEmpty()) {
        m_problem = tr("no speech engine is installed (qt6-speech-speechd-plugin)");
        return;
    }
    m_speech = new QTextToSpeech(engines.contains(QStringLiteral("speechd")) ? QStringLiteral("speechd") : engines.front(), this);
    connect(m_speech, &QTextToSpeech::stateChanged, this, [this](QTextToSpeech::State state) {
        if (!m_pending)
            return;
        if (state == QTextToSpeech::Speaking) {
            m_started = true;
        } else if (state == QTextToSpeech::Error) {
            m_problem = tr("the speech service failed: %1").arg(m_speech->errorString());
            end(false);
        } else if (state == QTextToSpeech::Ready && m_started) {
            end(true);
        }
    });
}

bool QtSynthesizer::available()
{
    create();
    if (!m_speech)
        return false;
    if (m_speech->state() == QTextToSpeech::Error) {
        m_problem = tr("the speech service does not answer (speech-dispatcher): %1").arg(m_speech->errorString());
        return false;
    }
    return true;
}

void QtSynthesizer::end(bool completed)
{
    if (!m_pending)
        return;
    m_pending = false;
    m_started = false;
    m_startWatch.cancel();
    if (completed)
        ++m_completed;
    emit finished();
}

void QtSynthesizer::say(const QString &text, const QString &language, double rate)
{
    if (m_pending)
        stop();
    m_pending = true;
    if (!available()) {
        end(false);
        return;
    }
    m_speech->setLocale(QLocale(language));
    // QTextToSpeech's rate runs from -1 to 1 around the default 0, 1 being about
    // twice as fast: a factor f of the default speed is f - 1 on that scale.
    m_speech->setRate(std::clamp(rate - 1.0, -1.0, 1.0));
    m_started = false;
    m_speech->say(text);
    if (!m_pending)
        return; // it failed at once and has said so
    if (m_speech->state() == QTextToSpeech::Error) {
        m_problem = tr("the speech service failed: %1").arg(m_speech->errorString());
        end(false);
        return;
    }
    m_startWatch = Job::start([this](CancelToken token) { return watchStart(std::move(token)); },
                              QStringLiteral("Waiting for speech to begin"));
}

QCoro::Task<void> QtSynthesizer::watchStart(CancelToken token)
{
    QPointer<QtSynthesizer> self(this);
    const bool waited = co_await m_clock.sleep(startLimit, token);
    if (!waited || !self || token.isCancelled() || !m_pending || m_started)
        co_return;
    // A service that takes the text and never begins must not leave a reader waiting.
    m_problem = tr("the speech service did not begin speaking");
    log(QStringLiteral("Read aloud: %1").arg(m_problem));
    if (m_speech)
        m_speech->stop();
    end(false);
}

void QtSynthesizer::stop()
{
    if (!m_pending)
        return;
    if (m_speech)
        m_speech->stop();
    // Ended here and now: a stop before speech began brings no state change, and
    // the one after it is not worth waiting for.
    end(false);
}

} // namespace zuv

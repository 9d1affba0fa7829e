#pragma once

#include "base/Job.h"
#include "platform/Synthesizer.h"

class QTextToSpeech;

namespace zuv {

class Clock;

// Speech through QTextToSpeech on speech-dispatcher. Every say() ends in exactly
// one `finished`: when the utterance ends, when it is stopped, when the service
// fails, and when speaking has not begun within startLimit seconds.
class QtSynthesizer final : public Synthesizer {
    Q_OBJECT
public:
    explicit QtSynthesizer(Clock &clock, QObject *parent = nullptr);
    ~QtSynthesizer() override;

    bool available() override;
    QString problem() const override { return m_problem; }
    void say(const QString &text, const QString &language, double rate) override;
    void stop() override;

    // Utterances that began and ran to their end (not stopped, not failed).
    int completed() const { return m_completed; }

    static constexpr double startLimit = 10;

private:
    void create();
    void end(bool completed);
    QCoro::Task<void> watchStart(CancelToken token);

    Clock &m_clock;
    QTextToSpeech *m_speech = nullptr;
    QString m_problem;
    bool m_pending = false; // a say() whose `finished` is still owed
    bool m_started = false;
    int m_completed = 0;
    Job m_startWatch;
};

} // namespace zuv

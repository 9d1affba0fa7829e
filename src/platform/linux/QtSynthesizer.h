#pragma once

#include "platform/Synthesizer.h"

class QTextToSpeech;

namespace zuv {

// Speech through QTextToSpeech on speech-dispatcher.
class QtSynthesizer final : public Synthesizer {
    Q_OBJECT
public:
    explicit QtSynthesizer(QObject *parent = nullptr);
    ~QtSynthesizer() override;

    bool available() override;
    QString problem() const override { return m_problem; }
    void say(const QString &text, const QString &language, double rate) override;
    void stop() override;

private:
    void create();

    QTextToSpeech *m_speech = nullptr;
    QString m_problem;
    bool m_speaking = false;
};

} // namespace zuv

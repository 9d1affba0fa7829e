#pragma once

#include "platform/Synthesizer.h"

#include <QStringList>

namespace zuv::test {

// Speaks nothing; finishes when told to, or when stopped.
class FakeSynthesizer final : public Synthesizer {
public:
    bool up = true;
    QStringList said;
    QStringList languages;
    double lastRate = 0;
    int stops = 0;

    bool available() override { return up; }
    QString problem() const override { return "no speech-dispatcher"; }
    void say(const QString &text, const QString &language, double rate) override
    {
        said << text;
        languages << language;
        lastRate = rate;
    }
    void stop() override
    {
        ++stops;
        emit finished();
    }
    void end() { emit finished(); }
};

} // namespace zuv::test

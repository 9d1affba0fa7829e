#pragma once

#include <QObject>
#include <QString>

namespace zuv {

// The desktop's speech synthesiser.
class Synthesizer : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // False when no speech service answers; `problem()` then says why.
    virtual bool available() = 0;
    virtual QString problem() const = 0;
    // Speaks `text` in the voice for the BCP 47 `language`; `rate` is relative to
    // the default, 1.0 being the default speed. Emits `finished` when done or stopped.
    virtual void say(const QString &text, const QString &language, double rate) = 0;
    virtual void stop() = 0;

signals:
    void finished();
};

} // namespace zuv

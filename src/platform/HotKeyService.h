#pragma once

#include <QObject>
#include <QString>

namespace zuv {

// The system's global key grabs. A grab is named by the caller's id and given in
// the stored numbers (Carbon key code and modifier bits); presses come back on
// the main thread, once per press however long the keys are held.
class HotKeyService : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // False when the combination cannot be had (another program holds it, or
    // the key is not on this keyboard); then nothing of it stays grabbed.
    virtual bool grab(quint32 id, quint32 keyCode, quint32 modifiers) = 0;
    virtual void ungrab(quint32 id) = 0;
    // Why global shortcuts do not work, or not everywhere, if so.
    virtual QString problem() const = 0;

signals:
    // `time` is the server's time of the key press, for activation requests.
    void pressed(quint32 id, quint32 time);
};

} // namespace zuv

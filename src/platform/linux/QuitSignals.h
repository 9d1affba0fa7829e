#pragma once

#include <QObject>

class QSocketNotifier;

namespace zuv {

// Turns SIGTERM, SIGINT and SIGHUP into an orderly quit of the event loop, so that
// the quit order runs (children stopped, logs closed) when the session ends.
class QuitSignals : public QObject {
    Q_OBJECT
public:
    explicit QuitSignals(QObject *parent = nullptr);
    ~QuitSignals() override;

signals:
    void received(int signal);

private:
    QSocketNotifier *m_notifier = nullptr;
};

} // namespace zuv

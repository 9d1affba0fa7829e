#pragma once

#include "base/Job.h"

#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QStringDecoder>

#include <deque>
#include <functional>
#include <map>

class QFile;


namespace zuv {

class Clock;

// Keeps one external program running while it is wanted: a fresh argument list
// and environment at each launch, output appended to a log and cut into lines,
// restarts after a growing delay, and the last lines kept for a failure report.
class Child : public QObject {
    Q_OBJECT
public:
    enum class State { stopped, running, restarting };
    using Environment = std::map<QString, QString>;

    Child(Clock &clock, QString name, QString executable, std::function<QStringList()> arguments,
          std::function<Environment()> environment, QString log, bool takesInput, QObject *parent = nullptr);
    ~Child() override;

    std::function<void(const QString &)> onLine;
    std::function<void(State)> onState;
    std::function<void(int status, bool signal, const QString &tail)> onFailure;

    // Starts now. Callers check process() first; there is no other guard.
    void launch();
    // Writes one line to the child's standard input; false when it cannot.
    bool send(const QString &text);
    // Asks a running child to end (SIGTERM). With wanted() still true this is a restart.
    void terminate();

    // The owner's wish: restarts happen only while this is true.
    // Turning it off also cancels a pending restart.
    void setWanted(bool wanted);
    bool wanted() const { return m_wanted; }

    QProcess *process() const { return m_process; }
    const QString &name() const { return m_name; }
    int failures() const { return m_failures; }
    const std::deque<QString> &tail() const { return m_tail; }

    static constexpr int tailLines = 60;

private:
    void readOutput();
    void deliver(const QString &line);
    void exited(int status, bool signal);
    QCoro::Task<void> restartLater(double delay, CancelToken token);

    Clock &m_clock;
    QString m_name;
    QString m_executable;
    std::function<QStringList()> m_arguments;
    std::function<Environment()> m_environment;
    QString m_logPath;
    bool m_takesInput;

    QPointer<QProcess> m_process;
    QFile *m_log = nullptr;
    QString m_pending; // output after the last line feed
    QStringDecoder m_decoder{QStringDecoder::Utf8}; // keeps a character cut between two reads
    Job m_restart;
    bool m_wanted = false;
    int m_failures = 0;
    double m_startedAt;
    double m_lastFailureReport;
    std::deque<QString> m_tail;
};

} // namespace zuv

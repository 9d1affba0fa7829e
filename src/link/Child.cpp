#include "link/Child.h"

#include "base/Clock.h"
#include "base/Paths.h"
#include "platform/linux/ProcessGuard.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStringDecoder>

#include <cmath>
#include <csignal>
#include <limits>


namespace zuv {

namespace {

constexpr double longRun = 60;          // seconds after which a run is no longer short
constexpr double reportInterval = 600;  // at most one failure report per child in this time
constexpr double maxDelay = 30;
constexpr double quickRestart = 0.5;

// Exits that are part of normal life: a clean end, "temporary failure" (EX_TEMPFAIL),
// and the SIGTERM we send ourselves.
bool normalExit(int status, bool signal)
{
    return signal ? status == SIGTERM : (status == 0 || status == 75);
}

} // namespace

Child::Child(Clock &clock, QString name, QString executable, std::function<QStringList()> arguments,
             std::function<Environment()> environment, QString log, bool takesInput, QObject *parent)
    : QObject(parent), m_clock(clock), m_name(std::move(name)), m_executable(std::move(executable)),
      m_arguments(std::move(arguments)), m_environment(std::move(environment)), m_logPath(std::move(log)),
      m_takesInput(takesInput), m_startedAt(-std::numeric_limits<double>::infinity()),
      m_lastFailureReport(-std::numeric_limits<double>::infinity())
{
}

Child::~Child()
{
    m_wanted = false;
    if (m_process) {
        m_process->disconnect(this);
        m_process->terminate();
        if (!m_process->waitForFinished(2000))
            m_process->kill();
        m_process->waitForFinished(1000);
        delete m_process;
    }
    delete m_log;
}

void Child::setWanted(bool wanted)
{
    m_wanted = wanted;
    if (!wanted)
        m_restart.cancel(); // a stop ends a pending restart; a later start begins afresh
}

void Child::launch()
{
    Paths::ensure(QFileInfo(m_logPath).absolutePath());
    delete m_log;
    m_log = new QFile(m_logPath);
    if (!m_log->open(QIODevice::WriteOnly | QIODevice::Append)) {
        delete m_log; // the child runs without a log
        m_log = nullptr;
    }
    m_pending.clear();
    m_decoder = QStringDecoder(QStringDecoder::Utf8); // a fresh stream; a cut character waits for its rest
    m_restart.cancel();
    // Set at each attempt, so that a child that cannot even start backs off like one
    // that dies at once.
    m_startedAt = m_clock.uptime();

    auto *process = new QProcess(this);
    m_process = process;
    process->setProgram(m_executable);
    process->setArguments(m_arguments());
    QProcessEnvironment environment; // exactly what the callback says, nothing inherited
    for (const auto &[key, value] : m_environment())
        environment.insert(key, value);
    process->setProcessEnvironment(environment);
    process->setProcessChannelMode(QProcess::MergedChannels);
    if (!m_takesInput)
        process->setStandardInputFile(QProcess::nullDevice());
    // The child must not outlive us, even when we are killed outright.
    const long parent = ProcessGuard::self();
    process->setChildProcessModifier([parent] { ProcessGuard::endWithParent(parent); });

    connect(process, &QProcess::readyReadStandardOutput, this, &Child::readOutput);
    connect(process, &QProcess::started, this, [this] {
        if (onState)
            onState(State::running);
    });
    connect(process, &QProcess::finished, this, [this, process](int code, QProcess::ExitStatus status) {
        if (process != m_process)
            return;
        readOutput();
        exited(code, status == QProcess::CrashExit);
    });
    connect(process, &QProcess::errorOccurred, this, [this, process](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart || process != m_process)
            return;
        // Our own words, not the child's: they go to the reader, never into the tail
        // that a failure report carries.
        if (onLine)
            onLine(tr("%1 failed to start: %2").arg(m_name, process->errorString()));
        exited(-1, false);
    });
    process->start(QIODevice::ReadWrite);
}

void Child::readOutput()
{
    if (!m_process)
        return;
    const QByteArray data = m_process->readAllStandardOutput();
    if (data.isEmpty())
        return;
    if (m_log) {
        m_log->write(data);
        m_log->flush();
    }
    const qsizetype searchFrom = m_pending.size();
    m_pending += m_decoder.decode(data);
    qsizetype start = 0;
    for (qsizetype end = m_pending.indexOf(QLatin1Char('\n'), searchFrom); end >= 0;
         end = m_pending.indexOf(QLatin1Char('\n'), start)) {
        deliver(m_pending.mid(start, end - start));
        start = end + 1;
    }
    m_pending.remove(0, start);
}

void Child::deliver(const QString &line)
{
    m_tail.push_back(line);
    while (m_tail.size() > size_t(tailLines))
        m_tail.pop_front();
    if (onLine)
        onLine(line);
}

bool Child::send(const QString &text)
{
    if (!m_process || !m_takesInput || m_process->state() != QProcess::Running)
        return false;
    const QByteArray data = text.toUtf8() + '\n';
    return m_process->write(data) == data.size();
}

void Child::terminate()
{
    if (m_process)
        m_process->terminate();
}

void Child::exited(int status, bool signal)
{
    if (m_process) {
        m_process->disconnect(this);
        m_process->deleteLater();
        m_process = nullptr;
    }
    // What never ended in a line feed is dropped with the stream.
    m_pending.clear();
    m_decoder.resetState();
    delete m_log;
    m_log = nullptr;

    if (!m_wanted) {
        if (onState)
            onState(State::stopped);
        return;
    }
    if (!normalExit(status, signal) && m_clock.now() - m_lastFailureReport > reportInterval) {
        m_lastFailureReport = m_clock.now();
        if (onFailure) {
            QStringList lines(m_tail.begin(), m_tail.end());
            onFailure(status, signal, lines.join(QLatin1Char('\n')));
        }
    }
    double delay;
    if (m_clock.uptime() - m_startedAt > longRun) {
        m_failures = 0;
        delay = quickRestart;
    } else {
        ++m_failures;
        delay = std::min(std::pow(2.0, std::min(m_failures, 16)), maxDelay);
    }
    if (onState)
        onState(State::restarting);
    m_restart = Job::start([this, delay](CancelToken token) { return restartLater(delay, std::move(token)); },
                           m_name + QStringLiteral(" restart"));
}

QCoro::Task<void> Child::restartLater(double delay, CancelToken token)
{
    QPointer<Child> self(this);
    const bool waited = co_await m_clock.sleep(delay, token);
    if (!waited || !self || token.isCancelled())
        co_return;
    if (m_wanted && !m_process)
        launch();
}

} // namespace zuv

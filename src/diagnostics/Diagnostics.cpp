#include "diagnostics/Diagnostics.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Job.h"
#include "hub/MacAPI.h"
#include "base/Build.h"
#include "platform/CrashSource.h"
#include "platform/DeviceName.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QPointer>
#include <QRegularExpression>
#include <QSysInfo>
#include <QtConcurrent>
#include <QCoro/QCoroFuture>

#include <algorithm>
#include <limits>

namespace zuv {

namespace {

const QString enabledKey = QStringLiteral("share-diagnostics");
const QString sinceKey = QStringLiteral("diagnostics-since");
const QString sentKey = QStringLiteral("diagnostics-sent");

QString osText() { return QSysInfo::prettyProductName() + QStringLiteral(" (") + QSysInfo::kernelVersion() + QLatin1Char(')'); }

bool reportOfOurs(const QString &name)
{
    return name.startsWith(QLatin1String("Zuv")) || name.startsWith(QLatin1String("zuv-"))
        || name.startsWith(QLatin1String("node"));
}

// Reads the crash reports worth sending and prunes the folder. Runs off the main
// thread and gets only values, so it owes nothing to objects that may go at quit.
std::vector<CrashLog> readReports(std::shared_ptr<CrashSource> crashes, QString folder, double now, double cutoff,
                                  std::function<bool(const QString &)> ours, QString home)
{
    crashes->collect(folder);
    struct Found {
        QString path;
        double time;
        std::optional<CrashLog> log;
    };
    std::vector<Found> found;
    const QDir dir(folder);
    for (const QFileInfo &file : dir.entryInfoList({QStringLiteral("*.ips")}, QDir::Files)) {
        const double modified = double(file.lastModified().toMSecsSinceEpoch()) / 1000.0;
        std::optional<CrashLog> log;
        if (QFile in(file.absoluteFilePath()); reportOfOurs(file.fileName()) && in.open(QIODevice::ReadOnly))
            log = CrashLog::make(in.read(64 << 20), ours, home);
        // The crash's own time decides; a converted record's file is as new as its conversion.
        const double time = log && log->time > 0 ? log->time : modified;
        found.push_back({file.absoluteFilePath(), time, std::move(log)});
    }
    std::sort(found.begin(), found.end(), [](const Found &a, const Found &b) { return a.time > b.time; });

    std::vector<CrashLog> logs;
    for (size_t i = 0; i < found.size(); ++i) {
        // Beyond the newest 200 or the window, a report could slip out of the sent
        // list and go out a second time: it goes from the folder instead.
        if (i >= size_t(Diagnostics::keptLimit) || found[i].time <= now - Diagnostics::window) {
            QFile::remove(found[i].path);
            continue;
        }
        if (found[i].log && found[i].time > cutoff)
            logs.push_back(std::move(*found[i].log));
    }
    std::reverse(logs.begin(), logs.end()); // oldest first, as they happened
    return logs;
}

} // namespace

Diagnostics::Diagnostics(Clock &clock, Defaults &defaults, MacAPI &api, std::function<bool()> paired,
                         std::shared_ptr<CrashSource> crashes, Setup setup, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_api(api), m_paired(std::move(paired)),
      m_crashes(std::move(crashes)), m_setup(std::move(setup))
{
}

Diagnostics::~Diagnostics() = default; // the jobs cancel themselves

void Diagnostics::registerDefaults(Defaults &defaults) { defaults.registerDefaults({{enabledKey, true}}); }

bool Diagnostics::enabled() const { return m_defaults.boolean(enabledKey).valueOr(true); }

void Diagnostics::setEnabled(bool on)
{
    if (on && !enabled())
        m_defaults.set(sinceKey, m_clock.now());
    m_defaults.set(enabledKey, on);
}

void Diagnostics::start()
{
    m_firstScan = Job::start([this](CancelToken token) { return scanAfter(firstScanDelay, std::move(token)); },
                             QStringLiteral("The first crash scan"));
}

bool Diagnostics::idle() const
{
    for (const Job &job : m_sending)
        if (job.isRunning())
            return false;
    return !m_firstScan.isRunning() && !m_laterScan.isRunning() && !m_scan.isRunning();
}

void Diagnostics::stop()
{
    m_firstScan.cancel();
    m_laterScan.cancel();
    m_scan.cancel();
    for (const Job &job : m_sending)
        job.cancel();
    m_sending.clear();
    m_scanning = false;
    m_rescan = false;
}

QCoro::Task<void> Diagnostics::scanAfter(double seconds, CancelToken token)
{
    QPointer<Diagnostics> self(this);
    // A named result: GCC 12 miscompiles some co_await inside a condition.
    const bool waited = co_await m_clock.sleep(seconds, token);
    if (!waited || !self || token.isCancelled())
        co_return;
    if (enabled())
        scanCrashLogs();
}

QJsonObject Diagnostics::body(const QString &source, const QString &kind, const QString &summary, const QString &build,
                              const QString &os, const QString &detail) const
{
    return {{QStringLiteral("source"), source},
            {QStringLiteral("kind"), kind},
            {QStringLiteral("summary"), summary.left(summaryLimit)},
            {QStringLiteral("build"), build},
            {QStringLiteral("os"), os},
            {QStringLiteral("device"), deviceName()},
            {QStringLiteral("detail"), detail.left(CrashLog::textLimit)}};
}

QCoro::Task<void> Diagnostics::post(QJsonObject payload, CancelToken token) { co_await send(std::move(payload), std::move(token)); }

QCoro::Task<bool> Diagnostics::send(QJsonObject payload, CancelToken token)
{
    if (!enabled() || !m_paired || !m_paired())
        co_return false;
    try {
        // MacAPI::call drops a stale access token and repeats the request once.
        co_await m_api.call<MacAPI::Ignored>(QStringLiteral("/app/diagnostics"), QStringLiteral("POST"), payload, 60,
                                             std::move(token));
        co_return true;
    } catch (const std::exception &) {
        co_return false; // never shown; a crash stays unsent for the next scan
    }
}

void Diagnostics::childExited(const QString &name, int status, bool signal, const QString &tail)
{
    const QString summary = name + (signal ? QStringLiteral(" killed by signal ") : QStringLiteral(" exited with status "))
        + QString::number(status);
    const QString source = name == QLatin1String("agent") ? QStringLiteral("agent") : QStringLiteral("mac");
    const QJsonObject payload =
        body(source, QStringLiteral("exit"), summary, Build::number(), osText(), scrubbed(safeTail(tail), m_setup.home));
    // Sends in flight are kept (and cancelled at stop); finished ones are dropped here.
    std::erase_if(m_sending, [](const Job &job) { return !job.isRunning(); });
    m_sending.push_back(Job::start([this, payload](CancelToken token) { return post(payload, std::move(token)); },
                                   QStringLiteral("Reporting a child's exit")));
    if (signal)
        m_laterScan = Job::start([this](CancelToken token) { return scanAfter(scanAfterCrash, std::move(token)); },
                                 QStringLiteral("The crash scan after a child's exit"));
}

QString Diagnostics::scrubbed(const QString &text, const QString &home)
{
    if (home.isEmpty() || home == QLatin1String("/"))
        return text;
    QString out = text;
    out.replace(home, QStringLiteral("~"));
    return out;
}

void Diagnostics::scanCrashLogs()
{
    if (m_scanning) {
        m_rescan = true;
        return;
    }
    m_scanning = true;
    m_scan = Job::start([this](CancelToken token) { return scan(std::move(token)); }, QStringLiteral("The crash scan"));
}

QCoro::Task<void> Diagnostics::scan(CancelToken token)
{
    QPointer<Diagnostics> self(this);
    const double now = m_clock.now();
    const auto since = m_defaults.number(sinceKey);
    const double cutoff = since.present() ? std::max(since.value, now - window) : now - window;
    QStringList sent;
    for (const auto &value : m_defaults.array(sentKey).valueOr({}))
        if (value.isString())
            sent << value.toString();

    auto reading = QtConcurrent::run(readReports, m_crashes, m_setup.reports, now, cutoff, m_setup.ours, m_setup.home);
    const std::vector<CrashLog> logs = co_await reading;
    for (const CrashLog &log : logs) {
        if (!self || token.isCancelled())
            co_return;
        if (sent.contains(log.incident))
            continue;
        const QString source = log.process == QLatin1String("node") ? QStringLiteral("agent") : QStringLiteral("mac");
        const bool ok =
            co_await send(body(source, QStringLiteral("crash"), log.summary, log.build, log.os, log.text), token);
        if (!self || token.isCancelled())
            co_return;
        if (!ok)
            continue;
        sent << log.incident;
        while (sent.size() > sentLimit)
            sent.removeFirst();
        m_defaults.set(sentKey, QJsonArray::fromStringList(sent));
    }
    if (!self || token.isCancelled())
        co_return;
    m_scanning = false;
    emit scanFinished();
    if (m_rescan) {
        m_rescan = false;
        if (enabled())
            scanCrashLogs();
    }
}

QString Diagnostics::shortened(const QString &line)
{
    static const QRegularExpression link(QStringLiteral("https?://\\S+"));
    QString s = line;
    s.replace(link, QStringLiteral("<link>"));
    for (const char *marker : {"→ [", "← [", "[memory_review]"}) {
        const qsizetype at = s.indexOf(QString::fromUtf8(marker));
        if (at < 0)
            continue;
        const qsizetype close = s.indexOf(QLatin1Char(']'), at);
        if (close >= 0)
            return s.left(close + 1) + QStringLiteral(" …");
    }
    const qsizetype colon = s.indexOf(QStringLiteral(": "));
    const qsizetype brace = s.indexOf(QLatin1Char('{'));
    qsizetype at = -1;
    if (colon >= 0 && (brace < 0 || colon < brace))
        at = colon;
    else if (brace >= 0)
        at = brace;
    if (at < 0)
        return s.left(160);
    return s.left(std::min<qsizetype>(at, 160)) + (s[at] == QLatin1Char('{') ? QStringLiteral("{…}") : QStringLiteral(": …"));
}

QString Diagnostics::safeTail(const QString &text)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT[\\d:.]+Z "));
    static const QRegularExpression kept(QStringLiteral("^\\s+at |^\\s*\\^+\\s*$|^Node\\.js v|^(file://)?/\\S+:\\d+$"));
    static const QRegularExpression error(QStringLiteral("^(\\w*Error|Error \\[\\w+\\])(: [^:]*)?"));
    QStringList out;
    int dropped = 0;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        if (const auto m = stamp.match(line); m.hasMatch()) {
            out << m.captured(0) + shortened(line.mid(m.capturedLength()));
        } else if (kept.match(line).hasMatch()) {
            out << line;
        } else if (const auto e = error.match(line); e.hasMatch()) {
            const QString part = e.captured(0).left(200);
            out << (part.size() < line.size() ? part + QStringLiteral(" …") : part);
        } else if (!line.trimmed().isEmpty()) {
            ++dropped;
        }
    }
    if (dropped > 0)
        out << QStringLiteral("(%1 other lines left out)").arg(dropped);
    return out.join(QLatin1Char('\n'));
}

} // namespace zuv

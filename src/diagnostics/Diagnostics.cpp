#include "diagnostics/Diagnostics.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Job.h"
#include "hub/MacAPI.h"
#include "install/Updates.h"
#include "link/AppModel.h"
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

#include <limits>

namespace zuv {

namespace {

const QString enabledKey = QStringLiteral("share-diagnostics");
const QString sinceKey = QStringLiteral("diagnostics-since");
const QString sentKey = QStringLiteral("diagnostics-sent");

constexpr double firstScanDelay = 3;
constexpr double scanAfterCrash = 15;
constexpr double defaultWindow = 604800; // 7 days
constexpr qsizetype summaryLimit = 300;

QString osText() { return QSysInfo::prettyProductName() + QStringLiteral(" (") + QSysInfo::kernelVersion() + QLatin1Char(')'); }

// Reads the crash reports worth sending. Runs off the main thread.
std::vector<CrashLog> readReports(CrashSource *crashes, QString folder, double cutoff,
                                  std::function<bool(const QString &)> ours, QString home)
{
    crashes->collect(folder);
    std::vector<CrashLog> logs;
    const QDir dir(folder);
    for (const QFileInfo &file : dir.entryInfoList({QStringLiteral("*.ips")}, QDir::Files, QDir::Time | QDir::Reversed)) {
        const QString name = file.fileName();
        if (!name.startsWith(QLatin1String("Zuv")) && !name.startsWith(QLatin1String("zuv-"))
            && !name.startsWith(QLatin1String("node")))
            continue;
        if (double(file.lastModified().toMSecsSinceEpoch()) / 1000.0 <= cutoff)
            continue;
        QFile in(file.absoluteFilePath());
        if (!in.open(QIODevice::ReadOnly))
            continue;
        if (auto log = CrashLog::make(in.readAll(), ours, home))
            logs.push_back(std::move(*log));
    }
    return logs;
}

} // namespace

Diagnostics::Diagnostics(Clock &clock, Defaults &defaults, MacAPI &api, AppModel &model, CrashSource &crashes,
                         Setup setup, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_api(api), m_model(model), m_crashes(crashes),
      m_setup(std::move(setup))
{
}


void Diagnostics::registerDefaults(Defaults &defaults) { defaults.registerDefaults({{enabledKey, true}}); }

bool Diagnostics::enabled() const { return m_defaults.boolean(enabledKey).valueOr(true); }

void Diagnostics::setEnabled(bool on)
{
    if (on && !enabled())
        m_defaults.set(sinceKey, m_clock.now());
    m_defaults.set(enabledKey, on);
}

void Diagnostics::start() { spawn(startLater(), QStringLiteral("The first crash scan")); }

QCoro::Task<void> Diagnostics::startLater()
{
    QPointer<Diagnostics> self(this);
    co_await m_clock.sleep(firstScanDelay);
    if (self && enabled())
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

QCoro::Task<bool> Diagnostics::send(QJsonObject payload)
{
    if (!enabled() || m_model.pairing().state != AppModel::Pairing::State::paired)
        co_return false;
    try {
        // MacAPI::call drops a stale access token and repeats the request once.
        co_await m_api.call<MacAPI::Ignored>(QStringLiteral("/app/diagnostics"), QStringLiteral("POST"), payload);
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
    spawn([](QCoro::Task<bool> sending) -> QCoro::Task<void> { co_await std::move(sending); }(
              send(body(source, QStringLiteral("exit"), summary, Updates::build(), osText(), safeTail(tail)))),
          QStringLiteral("Reporting a child's exit"));
    if (signal)
        spawn(scanAfterExit(), QStringLiteral("The crash scan after a child's exit"));
}

QCoro::Task<void> Diagnostics::scanAfterExit()
{
    QPointer<Diagnostics> self(this);
    co_await m_clock.sleep(scanAfterCrash);
    if (self && enabled())
        scanCrashLogs();
}

void Diagnostics::scanCrashLogs()
{
    if (m_scanning) {
        m_rescan = true;
        return;
    }
    m_scanning = true;
    spawn(scan(), QStringLiteral("The crash scan"));
}

QCoro::Task<void> Diagnostics::scan()
{
    QPointer<Diagnostics> self(this);
    const auto since = m_defaults.number(sinceKey);
    const double cutoff = since.present() ? since.value : m_clock.now() - defaultWindow;
    QStringList sent;
    for (const auto &value : m_defaults.array(sentKey).valueOr({}))
        if (value.isString())
            sent << value.toString();

    auto reading = QtConcurrent::run(readReports, &m_crashes, m_setup.reports, cutoff, m_setup.ours, m_setup.home);
    const std::vector<CrashLog> logs = co_await reading;
    for (const CrashLog &log : logs) {
        if (!self)
            co_return;
        if (sent.contains(log.incident))
            continue;
        const QString source = log.process == QLatin1String("node") ? QStringLiteral("agent") : QStringLiteral("mac");
        const bool ok = co_await send(body(source, QStringLiteral("crash"), log.summary, log.build, log.os, log.text));
        if (!self)
            co_return;
        if (!ok)
            continue;
        sent << log.incident;
        while (sent.size() > sentLimit)
            sent.removeFirst();
        m_defaults.set(sentKey, QJsonArray::fromStringList(sent));
    }
    if (!self)
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

#pragma once

#include "base/Shared.h"

#include "base/Job.h"
#include "diagnostics/CrashLog.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QCoro/QCoroTask>

#include <functional>
#include <memory>

namespace zuv {

class Clock;
class CrashSource;
class Defaults;
class MacAPI;

// Sends the hub what went wrong on this computer: crashes of the app and its
// helpers, and unexpected exits of the children. Nothing leaves with sharing off
// or while unpaired; a log line leaves only through the allow-list of safeTail;
// a crash is sent once.
class Diagnostics : public QObject, public Shared<Diagnostics> {
    Q_OBJECT
public:
    struct Setup {
        QString reports;                            // the crash reports folder
        std::function<bool(const QString &)> ours;  // whether a program path is one of ours
        QString home;                               // replaced by "~" in what is sent
    };

    // `paired` tells whether this computer holds its credentials now.
    Diagnostics(Clock &clock, Defaults &defaults, MacAPI &api, std::function<bool()> paired,
                std::shared_ptr<CrashSource> crashes, Setup setup, QObject *parent = nullptr);
    ~Diagnostics() override;

    static void registerDefaults(Defaults &defaults);

    bool enabled() const;
    // The user's switch; turning it on moves "diagnostics-since" to now, so that
    // nothing from while it was off is ever sent.
    void setEnabled(bool on);

    // Schedules the first scan, 3 seconds after launch.
    void start();
    // Ends every wait and scan (at quit); a scan already reading files finishes
    // on its worker with values of its own.
    void stop();
    void childExited(const QString &name, int status, bool signal, const QString &tail);
    void scanCrashLogs();
    bool scanning() const { return m_scanning; }
    // No scan, wait or report under way.
    bool idle() const;

    static QString safeTail(const QString &text);
    static QString shortened(const QString &line);

    static constexpr int sentLimit = 200;
    // The reports folder keeps at most this many reports, none older than `window`.
    static constexpr int keptLimit = 200;
    static constexpr double window = 604800; // 7 days
    static constexpr double firstScanDelay = 3;
    static constexpr double scanAfterCrash = 15;
    static constexpr qsizetype summaryLimit = 300;

    // Replaces the home folder by "~" in every line, so that a user's name does
    // not leave with a path.
    static QString scrubbed(const QString &text, const QString &home);

signals:
    void scanFinished();

private:
    QCoro::Task<void> scanAfter(double seconds, CancelToken token);
    QCoro::Task<void> scan(CancelToken token);
    QCoro::Task<bool> send(QJsonObject body, CancelToken token);
    QCoro::Task<void> post(QJsonObject body, CancelToken token);
    QJsonObject body(const QString &source, const QString &kind, const QString &summary, const QString &build,
                     const QString &os, const QString &detail) const;

    Clock &m_clock;
    Defaults &m_defaults;
    MacAPI &m_api;
    std::function<bool()> m_paired;
    std::shared_ptr<CrashSource> m_crashes;
    Setup m_setup;
    Job m_firstScan;
    Job m_laterScan;
    Job m_scan;
    std::vector<Job> m_sending;
    bool m_scanning = false;
    bool m_rescan = false;
};

} // namespace zuv

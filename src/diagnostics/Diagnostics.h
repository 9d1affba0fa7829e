#pragma once

#include "base/Shared.h"

#include "diagnostics/CrashLog.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QCoro/QCoroTask>

#include <functional>

namespace zuv {

class AppModel;
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

    Diagnostics(Clock &clock, Defaults &defaults, MacAPI &api, AppModel &model, CrashSource &crashes, Setup setup,
                QObject *parent = nullptr);

    static void registerDefaults(Defaults &defaults);

    bool enabled() const;
    // The user's switch; turning it on moves "diagnostics-since" to now, so that
    // nothing from while it was off is ever sent.
    void setEnabled(bool on);

    // Schedules the first scan, 3 seconds after launch.
    void start();
    void childExited(const QString &name, int status, bool signal, const QString &tail);
    void scanCrashLogs();
    bool scanning() const { return m_scanning; }

    static QString safeTail(const QString &text);
    static QString shortened(const QString &line);

    static constexpr int sentLimit = 200;

signals:
    void scanFinished();

private:
    QCoro::Task<void> startLater();
    QCoro::Task<void> scanAfterExit();
    QCoro::Task<void> scan();
    QCoro::Task<bool> send(QJsonObject body);
    QJsonObject body(const QString &source, const QString &kind, const QString &summary, const QString &build,
                     const QString &os, const QString &detail) const;

    Clock &m_clock;
    Defaults &m_defaults;
    MacAPI &m_api;
    AppModel &m_model;
    CrashSource &m_crashes;
    Setup m_setup;
    bool m_scanning = false;
    bool m_rescan = false;
};

} // namespace zuv

#pragma once

#include "base/Job.h"
#include "link/Child.h"

#include <QObject>
#include <QString>
#include <QUrl>
#include <QCoro/QCoroTask>

#include <functional>

namespace zuv {

class Clock;
class Defaults;
class Keychain;

// The two supervised children, the agent and the screen helper: what they are
// started with, and when. Made on first use and kept for the process's life.
class ChildSupervisor : public QObject {
    Q_OBJECT
public:
    // Where the children and their files are.
    struct Locations {
        QString helpers;   // node and zuv-screen
        QString agentRoot; // the agent shipped with the app
        QString support;   // data folder: work folder, screen socket
        QString logs;
        static Locations installed();
    };

    // `agentLines` reads each line the agent prints.
    ChildSupervisor(Clock &clock, Defaults &defaults, Keychain &keychain, QUrl server, Locations locations,
                    std::function<void(const QString &)> agentLines, QObject *parent = nullptr);
    ~ChildSupervisor() override;

    const Locations &locations() const { return m_locations; }

    Child &agent();
    Child &screen();

    // The screen helper always; the agent too when `withAgent`, once the login
    // shell's PATH is known (asked off the main thread).
    void start(bool withAgent);
    void stopAgent();
    void stopAll();

    // What the agent is started with; nothing else of ours reaches it.
    Child::Environment agentEnvironment() const;
    // The agent folder: "agentSource" when it holds src/main.mjs, else the shipped one.
    QString agentSource() const;
    QString screenSocket() const;
    QString workFolder() const;
    // Only the owner's computer may let the agent read its private env file.
    bool ownerEnvFile() const;

signals:
    void agentStateChanged(zuv::Child::State state);
    void screenStateChanged(zuv::Child::State state);
    // A child failed in a way worth reporting.
    void childFailed(const QString &name, int status, bool signal, const QString &tail);

private:
    QCoro::Task<void> launchAgentWhenReady(CancelToken token);

    Clock &m_clock;
    Defaults &m_defaults;
    Keychain &m_keychain;
    QUrl m_server;
    Locations m_locations;
    std::function<void(const QString &)> m_agentLines;
    Child *m_agent = nullptr;
    Child *m_screen = nullptr;
    Job m_agentLaunch; // waits for the login shell's PATH before the agent starts
};

} // namespace zuv

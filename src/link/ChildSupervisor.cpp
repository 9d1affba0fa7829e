#include "link/ChildSupervisor.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Paths.h"
#include "base/Build.h"
#include "base/Keychain.h"
#include "link/LoginShell.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QProcessEnvironment>
#include <QCoro/QCoroFuture>

namespace zuv {

ChildSupervisor::Locations ChildSupervisor::Locations::installed()
{
    return {Paths::helpers(), Paths::agentRoot(), Paths::support(), Paths::logs()};
}

ChildSupervisor::ChildSupervisor(Clock &clock, Defaults &defaults, Keychain &keychain, QUrl server, Locations locations,
                                 std::function<void(const QString &)> agentLines, QObject *parent)
    : QObject(parent), m_clock(clock), m_defaults(defaults), m_keychain(keychain), m_server(std::move(server)),
      m_locations(std::move(locations)), m_agentLines(std::move(agentLines))
{
}

ChildSupervisor::~ChildSupervisor() = default; // the children are ours as QObject children

QString ChildSupervisor::screenSocket() const { return m_locations.support + QStringLiteral("/screen.sock"); }
QString ChildSupervisor::workFolder() const { return m_locations.support + QStringLiteral("/work"); }

QString ChildSupervisor::agentSource() const
{
    QString folder = m_defaults.string(QStringLiteral("agentSource")).valueOr(QString());
    if (folder == QLatin1String("~") || folder.startsWith(QLatin1String("~/")))
        folder = QDir::homePath() + folder.mid(1);
    if (!folder.isEmpty() && QFileInfo(folder + QStringLiteral("/src/main.mjs")).isFile())
        return folder;
    return m_locations.agentRoot;
}

bool ChildSupervisor::ownerEnvFile() const
{
    return m_defaults.boolean(QStringLiteral("pairedOwner")).valueOr(false)
        && QFileInfo::exists(QDir::homePath() + QStringLiteral("/.config/zuv-agent/agent.env"));
}

Child::Environment ChildSupervisor::agentEnvironment() const
{
    Child::Environment env;
    // The system bus's address where the desktop moved it: logind is reached through
    // it. The desktop's folders and display: received files go to the Downloads
    // folder it names, and a session continued in a terminal opens on this screen.
    for (const char *name : {"HOME", "USER", "LOGNAME", "LANG", "TMPDIR", "SHELL", "DBUS_SYSTEM_BUS_ADDRESS",
                             "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"}) {
        if (qEnvironmentVariableIsSet(name))
            env[QString::fromLatin1(name)] = qEnvironmentVariable(name);
    }
    const QString server = m_server.toString(QUrl::FullyEncoded);
    QString hub = server;
    hub.replace(QStringLiteral("https://"), QStringLiteral("wss://"));
    env[QStringLiteral("PATH")] = LoginShell::path();
    env[QStringLiteral("ZUV_SITE")] = QStringLiteral("mac");
    env[QStringLiteral("ZUV_HUB_URL")] = hub + QStringLiteral("/agent/ws");
    env[QStringLiteral("ZUV_API_URL")] = server;
    env[QStringLiteral("ZUV_AGENT_TOKEN")] = m_keychain.token().value_or(QString());
    if (!ownerEnvFile())
        env[QStringLiteral("ZUV_NO_ENV_FILE")] = QStringLiteral("1");
    env[QStringLiteral("ZUV_PREBUILT")] = QStringLiteral("1");
    env[QStringLiteral("ZUV_BIN_DIR")] = m_locations.helpers;
    env[QStringLiteral("ZUV_WORK_DIR")] = workFolder();
    env[QStringLiteral("ZUV_SCREEN_SOCKET")] = screenSocket();
    env[QStringLiteral("ZUV_BUILD")] = Build::number();
    env[QStringLiteral("ZUV_VERSION")] = Build::version();
    env[QStringLiteral("ZUV_APP_CONTROL")] = QStringLiteral("1");
    env[QStringLiteral("ZUV_AWAKE_STATUS")] = m_locations.support + QStringLiteral("/awake-helper.json");
    return env;
}

Child &ChildSupervisor::agent()
{
    if (!m_agent) {
        m_agent = new Child(
            m_clock, QStringLiteral("agent"), m_locations.helpers + QStringLiteral("/node"),
            [this] { return QStringList{agentSource() + QStringLiteral("/src/main.mjs")}; },
            [this] { return agentEnvironment(); }, m_locations.logs + QStringLiteral("/agent.log"), true, this);
        m_agent->onLine = m_agentLines;
        m_agent->onState = [this](Child::State state) { emit agentStateChanged(state); };
        m_agent->onFailure = [this](int status, bool signal, const QString &tail) {
            emit childFailed(QStringLiteral("agent"), status, signal, tail);
        };
    }
    return *m_agent;
}

Child &ChildSupervisor::screen()
{
    if (!m_screen) {
        m_screen = new Child(
            m_clock, QStringLiteral("screen"), m_locations.helpers + QStringLiteral("/zuv-screen"),
            [this] { return QStringList{QStringLiteral("--socket"), screenSocket(), QStringLiteral("--managed")}; },
            [] {
                Child::Environment env;
                const auto own = QProcessEnvironment::systemEnvironment();
                for (const QString &key : own.keys())
                    env[key] = own.value(key);
                return env;
            },
            m_locations.logs + QStringLiteral("/screen.log"), false, this);
        m_screen->onState = [this](Child::State state) { emit screenStateChanged(state); };
        m_screen->onFailure = [this](int status, bool signal, const QString &tail) {
            emit childFailed(QStringLiteral("zuv-screen"), status, signal, tail);
        };
    }
    return *m_screen;
}

void ChildSupervisor::start(bool withAgent)
{
    Paths::ensure(workFolder());
    Child &helper = screen();
    helper.setWanted(true);
    if (!helper.process())
        helper.launch();
    if (withAgent) {
        Child &link = agent();
        link.setWanted(true);
        if (!link.process() && !m_agentLaunch.isRunning())
            m_agentLaunch = Job::start([this](CancelToken token) { return launchAgentWhenReady(std::move(token)); },
                                       QStringLiteral("Starting the agent"));
    }
}

QCoro::Task<void> ChildSupervisor::launchAgentWhenReady(CancelToken token)
{
    QPointer<ChildSupervisor> self(this);
    // The agent's PATH is the login shell's, asked on a worker thread once per
    // process; the main thread goes on meanwhile.
    auto future = LoginShell::resolve();
    if (!future.isFinished())
        co_await future;
    if (!self || token.isCancelled())
        co_return;
    Child &link = agent();
    if (link.wanted() && !link.process())
        link.launch();
}

void ChildSupervisor::stopAgent()
{
    m_agentLaunch.cancel();
    Child &link = agent();
    link.setWanted(false);
    link.terminate();
}

void ChildSupervisor::stopAll()
{
    stopAgent();
    Child &helper = screen();
    helper.setWanted(false);
    helper.terminate();
}

} // namespace zuv

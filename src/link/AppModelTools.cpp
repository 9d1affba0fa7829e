// The tools and permissions check of AppModel: what Claude Code and Codex say of
// themselves, the screen grants, open at login, and the relaunch.
#include "link/AppModel.h"

#include "base/Log.h"
#include "platform/LoginItems.h"

#include <QCoreApplication>
#include <QPointer>
#include <QtConcurrent>
#include <QCoro/QCoroFuture>

namespace zuv {

void AppModel::setDesktop(Desktop desktop)
{
    m_desktop = std::move(desktop);
    if (m_desktop.access) {
        m_screenRecording = m_desktop.access->screenRecording();
        m_accessibility = m_desktop.access->accessibility();
    }
    if (m_desktop.loginItems)
        m_launchAtLogin = m_desktop.loginItems->status() == LoginItems::Status::enabled;
    emit permissionsChanged();
}

QString AppModel::accessReason() const { return m_desktop.access ? m_desktop.access->reason() : QString(); }

QCoro::Task<void> AppModel::checkTools()
{
    QPointer<AppModel> self(this);
    const int round = ++m_toolsRound;
    m_checkingTools = true;
    emit toolsChanged();
    ToolsProbe::Runner runner = m_desktop.runner ? m_desktop.runner : ToolsProbe::Runner(&LoginShell::run);
    // Made before the co_await: GCC 12 mishandles a temporary future inside it.
    QFuture<ToolsProbe> probing = QtConcurrent::run([runner] { return ToolsProbe::run(runner); });
    const ToolsProbe found = co_await probing;
    if (!self || round != m_toolsRound)
        co_return; // a later check wins
    m_tools = found;
    m_checkingTools = false;
    emit toolsChanged();
}

void AppModel::startCheckingTools()
{
    m_toolsCheck = Job::start([this](CancelToken) { return checkTools(); }, QStringLiteral("Checking the tools"));
}

void AppModel::refreshPermissions()
{
    const bool screen = m_desktop.access && m_desktop.access->screenRecording();
    const bool keys = m_desktop.access && m_desktop.access->accessibility();
    if (screen != m_screenRecording || keys != m_accessibility) {
        m_screenRecording = screen;
        m_accessibility = keys;
        emit permissionsChanged();
        // The screen helper starts again, so that it works with the new grants.
        Child &helper = m_children.screen();
        if (!helper.wanted()) {
            helper.setWanted(true);
            if (!helper.process())
                helper.launch();
        } else if (helper.process()) {
            helper.terminate();
        }
    }
    if (m_hooks.permissionsLooked)
        m_hooks.permissionsLooked();
}

void AppModel::requestPermission(bool (ScreenAccess::*request)())
{
    // Asked in this run: the guide may offer to start again.
    m_askedForPermissions = true;
    if (m_desktop.access)
        (m_desktop.access->*request)();
    emit permissionsChanged();
    refreshPermissions();
}

void AppModel::requestScreenRecording() { requestPermission(&ScreenAccess::requestScreenRecording); }
void AppModel::requestAccessibility() { requestPermission(&ScreenAccess::requestAccessibility); }

void AppModel::setLaunchAtLogin(bool on)
{
    LoginItems *items = m_desktop.loginItems;
    if (!items) {
        setLastError(tr("Open at login: %1").arg(tr("this desktop has no autostart folder.")));
        emit permissionsChanged();
        return;
    }
    const bool current = items->status() == LoginItems::Status::enabled;
    if (on != current) {
        std::optional<QString> failure;
        if (on) {
            items->unregisterApp();
            failure = items->registerApp();
        } else {
            failure = items->unregisterApp();
        }
        if (failure)
            setLastError(tr("Open at login: %1").arg(*failure));
        if (items->status() == LoginItems::Status::requiresApproval) {
            setLastError(tr("Allow Zuv in your desktop's settings under Startup Applications."));
            items->openSettings();
        }
    }
    // The switch shows what is true, whatever was asked.
    m_launchAtLogin = items->status() == LoginItems::Status::enabled;
    emit permissionsChanged();
}

void AppModel::relaunch()
{
    log(QStringLiteral("relaunching"));
    if (m_desktop.relaunch)
        m_desktop.relaunch();
}

} // namespace zuv

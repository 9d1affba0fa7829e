#include "app/views/AppShell.h"

#include "app/WindowOpener.h"
#include "app/views/SetupWindow.h"
#include "app/views/Tray.h"
#include "awake/StayAwake.h"
#include "awake/views/StayAwakeViews.h"
#include "base/Defaults.h"
#include "base/Log.h"
#include "chat/ChatModel.h"
#include "clipboard/views/ClipboardShareViews.h"
#include "link/AppModel.h"
#include "surface/views/MainWindow.h"

#include <QApplication>
#include <QVBoxLayout>
#include <QMessageBox>
#include <QPushButton>

namespace zuv {

namespace {

void raise(QWidget *window)
{
    window->show();
    window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
    window->raise();
    window->activateWindow();
}

} // namespace

AppShell::AppShell(Parts parts, QObject *parent) : QObject(parent), m_parts(std::move(parts))
{
    m_tray = std::make_unique<Tray>(m_parts.menuState);
    if (StayAwake *awake = m_parts.stayAwake)
        m_tray->fillStayAwake = [awake, this](QMenu *menu) { StayAwakeMenu::fill(menu, *awake, m_parts.clock); };
    if (ClipboardShare *share = m_parts.share)
        m_tray->fillSendClipboard = [share](QMenu *menu) { ClipboardShareMenu::fill(menu, *share); };
    connect(m_tray.get(), &Tray::triggered, this, &AppShell::perform);
    connect(m_tray.get(), &Tray::activated, this, &AppShell::openMain);
    const auto connected = [this] { m_tray->setConnected(m_parts.app.connected()); };
    connect(&m_parts.app, &AppModel::connectedChanged, this, connected);
    connected();
    const auto count = [this] { m_tray->setNeedsYou(m_parts.chat.needsYouCount()); };
    connect(&m_parts.chat, &ChatModel::sessionsChanged, this, count);

    m_parts.opener.open = [this] { openMain(); };
    connect(&m_parts.opener, &WindowOpener::showItem, this,
            [this](const std::optional<QString> &conversation, const std::optional<QString> &session) {
                ensureMain().showItem(conversation, session);
            });

    confirmDisconnect = [] {
        QMessageBox box(QMessageBox::Warning, QStringLiteral("Zuv"), MenuContent::disconnectQuestion());
        box.setInformativeText(MenuContent::disconnectDetail());
        QPushButton *disconnect = box.addButton(QObject::tr("Disconnect"), QMessageBox::DestructiveRole);
        box.addButton(QMessageBox::Cancel);
        box.exec();
        return box.clickedButton() == disconnect;
    };
}

AppShell::~AppShell() = default;

void AppShell::start()
{
    if (!m_tray->show()) {
        // Never invisible: without a tray the window is the way in.
        log(QStringLiteral("this desktop shows no tray icons; Zuv opens its window instead"));
        openMain();
    }
}

void AppShell::showSetup()
{
    if (!m_setup) {
        m_setup = std::make_unique<SetupWindow>(m_parts.app);
        if (StayAwake *awake = m_parts.stayAwake) {
            m_setup->stayAwakeEnabled = [awake] { return awake->helper() == StayAwake::Status::enabled; };
            m_setup->stayAwakeSlot()->addWidget(new StayAwakeSection(*awake, m_parts.clock));
            connect(awake, &StayAwake::changed, m_setup.get(), &SetupWindow::refresh);
        }
        m_setup->refresh();
    }
    raise(m_setup.get());
}

MainWindow &AppShell::ensureMain()
{
    if (!m_main) {
        m_main = std::make_unique<MainWindow>(m_parts.app, m_parts.chat, m_parts.settings, m_parts.api, m_parts.clock,
                                              m_parts.defaults);
        m_main->readAloud = m_parts.readAloud;
    }
    return *m_main;
}

void AppShell::openMain() { raise(&ensureMain()); }

void AppShell::runFlags(const QStringList &arguments)
{
    if (arguments.contains(QStringLiteral("--open-chat")) && arguments.contains(QStringLiteral("--send-test"))) {
        openMain();
        m_main->runTestFlags(arguments);
    }
}

void AppShell::perform(MenuContent::Action action)
{
    using A = MenuContent::Action;
    switch (action) {
    case A::none:
        break;
    case A::setUpClaude:
    case A::settings:
        m_parts.defaults.set(QStringLiteral("settings-tab"), QStringLiteral("general"));
        if (m_parts.opener.settings)
            m_parts.opener.settings();
        break;
    case A::installUpdate:
    case A::checkForUpdates:
        if (m_parts.checkForUpdates)
            m_parts.checkForUpdates();
        break;
    case A::openZuv:
        openMain();
        break;
    case A::clipboardHistory:
        if (m_parts.openClipboard)
            m_parts.openClipboard();
        break;
    case A::quickAsk:
    case A::stayAwakeMenu:
    case A::sendClipboardMenu:
        break;
    case A::newChat:
        openMain();
        m_main->newChat();
        break;
    case A::pair:
        showSetup();
        break;
    case A::openLogs:
        if (m_parts.openLogs)
            m_parts.openLogs();
        break;
    case A::disconnect:
        if (confirmDisconnect && confirmDisconnect())
            m_parts.app.unpair();
        break;
    case A::quit:
        if (m_parts.quit)
            m_parts.quit();
        break;
    }
}

} // namespace zuv

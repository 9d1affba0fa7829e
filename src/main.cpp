// The composition root: builds the process-wide objects with their real services.
#include "app/AppActivity.h"
#include "app/AppDelegate.h"
#include "app/Handoff.h"
#include "app/views/AppShell.h"
#include "clipboard/ClipboardShare.h"
#include "clipboard/views/ClipboardShareViews.h"
#include "awake/StayAwake.h"
#include "awake/views/StayAwakeViews.h"
#include "app/WindowOpener.h"
#include "app/SingleInstance.h"
#include "base/AppLog.h"
#include "base/Build.h"
#include "base/Clock.h"
#include "base/Defaults.h"
#include "base/Keychain.h"
#include "base/Log.h"
#include "base/Paths.h"
#include "chat/ChatModel.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardPanel.h"
#include "clipboard/ClipboardRemote.h"
#include "clipboard/RecognitionQueue.h"
#include "clipboard/views/ClipWindow.h"
#include "chat/OutgoingFile.h"
#include "diagnostics/Diagnostics.h"
#include "install/Updates.h"
#include "hub/MacAPI.h"
#include "link/AppModel.h"
#include "notify/Notifier.h"
#include "platform/linux/AutostartEntry.h"
#include "platform/linux/Cld2LanguageDetector.h"
#include "platform/linux/CrashHandler.h"
#include "platform/linux/DBusNotificationCenter.h"
#include "platform/linux/DesktopShortcuts.h"
#include "platform/linux/LauncherBadge.h"
#include "platform/linux/LinuxWorkspace.h"
#include "platform/linux/PolkitPower.h"
#include "platform/linux/X11HotKeyService.h"
#include "platform/linux/TesseractRecognizer.h"
#include "platform/linux/X11Pasteboard.h"
#include "platform/linux/X11PastePoster.h"
#include "platform/linux/LinuxCrashSource.h"
#include "platform/linux/LinuxSecretStore.h"
#include "platform/linux/SourceUpdater.h"
#include "platform/linux/QtSynthesizer.h"
#include "platform/linux/QuitSignals.h"
#include "platform/linux/RealClock.h"
#include "settings/Models.h"
#include "shortcuts/AppShortcuts.h"
#include "shortcuts/HotKeys.h"
#include "shortcuts/SystemShortcuts.h"
#include "shortcuts/views/AppShortcutsView.h"
#include "settings/SettingsModel.h"
#include "voice/Speaker.h"

#include <QApplication>
#include <QCursor>
#include <QScreen>
#include <QDesktopServices>
#include <QDir>
#include <QProcess>
#include <QUrl>
#include <QFile>
#include <QNetworkAccessManager>
#include <QStandardPaths>
#include <QVBoxLayout>
#include <QWidget>
#include <QCoro/QCoroTask>

#include <cstdio>

#include "zuv_version.h"

using namespace zuv;

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Zuv"));
    QApplication::setOrganizationDomain(QStringLiteral("kelmor.com"));
    QApplication::setDesktopFileName(QStringLiteral("com.kelmor.zuv.mac"));
    QApplication::setQuitOnLastWindowClosed(false); // it lives in the tray with every window closed

    SingleInstance instance(Paths::runtime());
    switch (instance.claim(Handoff::resolved(QApplication::arguments()))) {
    case SingleInstance::Role::forwarded:
        return 0;
    case SingleInstance::Role::failed:
        std::fprintf(stderr, "zuv: %s\n", qPrintable(instance.error()));
        return 1;
    case SingleInstance::Role::primary:
        break;
    }

    const QByteArray reports = QFile::encodeName(Paths::diagnosticReports());
    Paths::ensure(Paths::diagnosticReports());
    CrashHandler::install(reports.constData(), "Zuv", ZUV_VERSION, ZUV_BUILD);

    RealClock clock;
    Clock::setShared(&clock);
    AppLog appLog(clock, Paths::logs());
    appLog.install();
    log(QStringLiteral("Zuv %1 (%2) started, pid %3").arg(QStringLiteral(ZUV_VERSION), QStringLiteral(ZUV_BUILD))
            .arg(QApplication::applicationPid()));

    Defaults defaults(Paths::defaultsFile());
    Defaults::setShared(&defaults);
    Diagnostics::registerDefaults(defaults);

    // ZUV_PROFILE_SECRETS=file: a profile of its own (scripts/run's) keeps its token in its data folder.
    LinuxSecretStore secrets(Paths::support(), qgetenv("ZUV_PROFILE_SECRETS") == "file");
    Keychain keychain(secrets);
    // The token decides whether we are paired, so it is read before anything else runs.
    QCoro::waitFor(keychain.load());

    QNetworkAccessManager network;
    const QUrl server = AppModel::serverAddress(defaults);
    Models models(clock, defaults);
    Models::setShared(&models);
    MacAPI api(clock, keychain, network, server);
    MacAPI::setShared(&api);
    AppModel model(clock, defaults, keychain, api, network, server);
    AppModel::setShared(&model);
    // The tools check: the screen grants of this session, open at login through
    // the autostart folder, and a relaunch that waits for this copy to go.
    DesktopScreenAccess screenAccess(QGuiApplication::platformName());
    AutostartEntry autostart(AutostartEntry::defaultFolder(), QCoreApplication::applicationFilePath());
    model.setDesktop({&screenAccess, &autostart, {}, [] {
                          QProcess::startDetached(QStringLiteral("/bin/sh"),
                                                  {QStringLiteral("-c"), QStringLiteral("sleep 1; exec \"$0\""),
                                                   QCoreApplication::applicationFilePath()});
                          QApplication::quit();
                      }});
    SettingsModel settings(api, models);
    SettingsModel::setShared(&settings);

    QtSynthesizer synthesizer(clock);
    Cld2LanguageDetector languages;
    Speaker speaker(synthesizer, languages);
    Narrator::setShared(&speaker);

    const QString prefix = Paths::prefix() + QLatin1Char('/');
    Diagnostics diagnostics(clock, defaults, api,
                            [&model] { return model.pairing().state == AppModel::Pairing::State::paired; },
                            std::make_shared<LinuxCrashSource>(),
                            {Paths::diagnosticReports(), [prefix](const QString &path) { return path.startsWith(prefix); },
                             QDir::homePath()});
    Diagnostics::setShared(&diagnostics);

    AppActivity activity;
    activity.followApplication();
    DBusNotificationCenter notifications;
    Notifier notifier(clock, defaults, notifications);
    Notifier::setShared(&notifier);
    LauncherBadge badge;
    OutgoingFile::sweep(); // what an earlier run left unsent
    ChatModel chat(clock, defaults, keychain, api, notifier, badge, activity);
    ChatModel::setShared(&chat);
    WindowOpener opener;
    WindowOpener::setShared(&opener);

    // Global shortcuts: X11 grabs; the desktop's own bindings are read against the
    // current layout, and again when it changes.
    X11HotKeyService keys(clock);
    if (!keys.problem().isEmpty())
        log(keys.problem());
    SystemShortcuts system;
    const auto readSystem = [&system, &keys] {
        system.load(DesktopShortcuts::gnome(), DesktopShortcuts::kde(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)), keys);
    };
    readSystem();
    QObject::connect(&keys, &X11HotKeyService::keymapChanged, readSystem);
    HotKeys hotKeys(keys, [&system](const KeyCombo &combo) { return system.contains(combo); });
    HotKeys::setShared(&hotKeys);
    LinuxWorkspace workspace;

    // Clipboard history: the X clipboard read on a thread of its own, the paste
    // keys through XTest.
    X11Pasteboard pasteboard;
    if (!pasteboard.problem().isEmpty())
        log(pasteboard.problem());
    X11PastePoster poster;
    ClipboardHistory clipboard(clock, defaults, pasteboard, workspace, &hotKeys, Paths::support());
    ClipboardHistory::setShared(&clipboard);
    clipboard.poster = &poster;
    // Text in pictures: Tesseract in its helper, one picture at a time.
    TesseractRecognizer recognizer(Paths::helpers() + QStringLiteral("/zuv-ocr"));
    RecognitionQueue recognition(clipboard, recognizer);
    clipboard.recognize = [&recognition] { recognition.start(); };
    clipboard.beep = [] { QApplication::beep(); };
    ClipboardPanel clipboardPanel(clock, defaults, clipboard);
    ClipboardPanel::setShared(&clipboardPanel);
    ClipWindow clipWindow(clipboardPanel, clipboard, defaults, workspace);
    clipboardPanel.window = &clipWindow;
    clipboardPanel.desktop = [&workspace] {
        PanelDesktop desktop;
        desktop.cursor = QCursor::pos();
        if (QScreen *primary = QGuiApplication::primaryScreen())
            desktop.screens.push_back(primary->availableGeometry());
        for (QScreen *screen : QGuiApplication::screens())
            if (screen != QGuiApplication::primaryScreen())
                desktop.screens.push_back(screen->availableGeometry());
        if (const auto front = workspace.activeWindow())
            desktop.frontWindow = workspace.windowFrame(*front);
        return desktop;
    };
    std::optional<quint32> frontWindow;
    clipboardPanel.rememberFront = [&workspace, &frontWindow] { frontWindow = workspace.activeWindow(); };
    clipboardPanel.restoreFront = [&workspace, &frontWindow, &hotKeys] {
        if (frontWindow)
            workspace.activateWindow(*frontWindow, hotKeys.lastPressTime());
    };
    clipboardPanel.message = [](const QString &text) { log(QStringLiteral("clipboard panel: ") + text); };
    clipboard.togglePanel = [&clipboardPanel] { clipboardPanel.toggle(); };
    // The phone's clipboard requests come as the agent's lines; answers go back on its input.
    ClipboardRemote clipboardRemote(clipboard, workspace, ClipboardRemote::defaultOutbox(),
                                    [&model](const QString &line) { return model.agent().send(line); });
    // Staying awake: the agent holds logind's inhibitors; the app asks, and keeps
    // the agent told whether polkit lets this session hold the lid switch too.
    PolkitPower power;
    StayAwake stayAwake(clock, power, Paths::support() + QStringLiteral("/awake-helper.json"),
                        [&model](const QString &line) { return model.agent().send(line); });
    StayAwake::setShared(&stayAwake);
    QObject::connect(&model, &AppModel::agentStarted, &stayAwake, [&stayAwake] { stayAwake.agentStarted(); });
    QObject::connect(&model, &AppModel::agentEnded, &stayAwake, [&stayAwake] { stayAwake.agentEnded(); });

    AppModel::Hooks hooks = model.hooks();
    hooks.stayAwake = [&stayAwake](const QJsonObject &payload) { stayAwake.handleLine(payload); };
    hooks.permissionsLooked = [&stayAwake] { stayAwake.refresh(); };
    hooks.clipboardAsk = [&clipboardRemote](const QString &line) { clipboardRemote.handle(line); };
    // The agent put what another device sent on the clipboard (or in Downloads): say so.
    hooks.clipboardReceived = [&notifier, &clipboard](const QJsonObject &info) {
        notifier.clipboard(info.value(QStringLiteral("from")).toString(), info.value(QStringLiteral("kind")).toString(),
                           info.value(QStringLiteral("count")).toInt(), clipboard.receivedText());
    };
    model.setHooks(hooks);

    AppShortcuts appShortcuts(defaults, hotKeys, workspace, [&clipboard] {
        std::vector<std::pair<QString, KeyCombo>> owners;
        if (clipboard.enabled() && clipboard.combo())
            owners.emplace_back(QObject::tr("Clipboard History"), *clipboard.combo());
        return owners;
    });
    AppShortcuts::setShared(&appShortcuts);
    clipboard.conflict = [&appShortcuts, &hotKeys](const KeyCombo &combo) -> std::optional<QString> {
        for (const AppShortcuts::Item &item : appShortcuts.items())
            if (item.combo == combo)
                return item.name;
        if (hotKeys.isSystemShortcut(combo))
            return QObject::tr("The desktop");
        return std::nullopt;
    };

    // Sending this clipboard to another computer of the account: a shortcut, the
    // tray's entries, a toast for how it went, and the list kept fresh.
    ClipboardShare share(clock, defaults, api, pasteboard, &hotKeys,
                         [&model] { return model.pairing().state == AppModel::Pairing::State::paired; });
    ToastPanel toast;
    share.toast = [&toast](const QString &text, const QString &symbol, bool sticky) { toast.show(text, symbol, sticky); };
    share.conflict = [&clipboard](const KeyCombo &combo) -> std::optional<QString> {
        if (clipboard.combo() && *clipboard.combo() == combo)
            return QObject::tr("Clipboard History");
        return clipboard.conflict ? clipboard.conflict(combo) : std::nullopt;
    };

    SourceUpdater updater;
    Updates updates(clock, api, updater, [&model, &chat] { return chat.busy() || model.agentBusy(); },
                    QApplication::arguments(), Build::number());
    Updates::setShared(&updates);

    // Until the settings window comes, "--settings" opens the part of it that exists.
    std::unique_ptr<QWidget> settingsWindow;
    opener.settings = [&] {
        if (!settingsWindow) {
            settingsWindow = std::make_unique<QWidget>();
            settingsWindow->setWindowTitle(QObject::tr("Zuv Settings"));
            auto *layout = new QVBoxLayout(settingsWindow.get());
            layout->addWidget(new StayAwakeSection(stayAwake, clock));
            layout->addWidget(new ClipboardShareSection(share, hotKeys, keys));
            layout->addWidget(new AppShortcutsView(appShortcuts, hotKeys, keys, workspace));
            settingsWindow->resize(560, 480);
        }
        settingsWindow->show();
        settingsWindow->raise();
        settingsWindow->activateWindow();
    };

    AppDelegate delegate(clock, model, chat, notifier, opener, appShortcuts, diagnostics, updates);
    delegate.clipboard = &clipboard;
    delegate.stayAwake = &stayAwake;
    delegate.clipboardPanel = &clipboardPanel;
    clipboardPanel.settings = [&opener] {
        if (opener.settings)
            opener.settings();
    };
    QObject::connect(&model, &AppModel::setupWanted, &delegate, &AppDelegate::showSetup);

    // The faces: the tray, the setup guide and the main window.
    AppShell shell({model, chat, settings, api, clock, defaults, opener,
                    [&] {
                        MenuContent::State state;
                        state.paired = model.pairing().state == AppModel::Pairing::State::paired;
                        state.connected = model.connected();
                        state.answers = model.answers();
                        state.agentState = model.agentState();
                        state.lastError = model.lastError();
                        state.updateRequired = updates.required();
                        state.clipboardEnabled = clipboard.enabled();
                        if (clipboard.combo())
                            state.clipboardCombo = clipboard.combo()->label();
                        for (const AppShortcuts::Item &item : appShortcuts.items())
                            if (item.bundleID == QLatin1String("com.kelmor.zuv.mac") && item.combo)
                                state.openZuvCombo = item.combo->label();
                        return state;
                    },
                    [&clipboardPanel] { clipboardPanel.show(); }, [&updater] { updater.checkForUpdates(); },
                    [] { QDesktopServices::openUrl(QUrl::fromLocalFile(Paths::logs())); }, [] { QApplication::quit(); },
                    [&speaker](const QString &text) { spawn(speaker.speak(text), QStringLiteral("Reading aloud")); },
                    &stayAwake, &share});
    delegate.showSetupWindow = [&shell] { shell.showSetup(); };
    delegate.windowFlags = [&shell](const QStringList &arguments) { shell.runFlags(arguments); };
    clipboard.handoff = [&](const QString &text, const std::vector<OutgoingFile> &files) {
        Handoff::start(model, chat, opener, [&delegate] { delegate.showSetup(); }, text, files);
    };
    shell.start();
    QObject::connect(&model, &AppModel::childFailed, &diagnostics,
                     [&diagnostics](const QString &name, int status, bool signal, const QString &tail) {
                         log(QStringLiteral("%1 ended with %2 %3")
                                 .arg(name, signal ? QStringLiteral("signal") : QStringLiteral("status"))
                                 .arg(status));
                         diagnostics.childExited(name, status, signal, tail);
                     });
    QObject::connect(&instance, &SingleInstance::received, &delegate, &AppDelegate::open);

    QuitSignals quitSignals;
    QObject::connect(&quitSignals, &QuitSignals::received, [](int signal) {
        log(QStringLiteral("quitting on signal %1").arg(signal));
    });
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);

    delegate.applicationDidFinishLaunching(QApplication::arguments());
    share.startRefreshing();
    instance.startDelivering(); // what a second launch handed over meanwhile acts now
    const int status = QApplication::exec();
    log(QStringLiteral("Zuv quit"));
    setLogSink({});
    return status;
}

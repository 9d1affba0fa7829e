// The rules behind the visible app: the tray menu's lines, the tools check, open
// at login, hand-offs from outside, and the setup guide's texts.
#include "app/Handoff.h"
#include "app/MenuContent.h"
#include "app/SetupGuide.h"
#include "app/WindowOpener.h"
#include "chat/ChatModel.h"
#include "link/AppModel.h"
#include "platform/LoginItems.h"
#include "platform/linux/AutostartEntry.h"

#include "../chat/ChatFixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace zuv;
using namespace zuv::test;
using A = MenuContent::Action;

namespace {

QStringList titles(const MenuContent::State &state)
{
    QStringList out;
    for (const auto &item : MenuContent::items(state))
        out << (item.divider                              ? QStringLiteral("—")
                : item.action == A::stayAwakeMenu       ? QStringLiteral("⟨awake⟩")
                : item.action == A::sendClipboardMenu   ? QStringLiteral("⟨send⟩")
                                                         : item.title);
    return out;
}

class FakeLoginItems final : public LoginItems {
public:
    Status now = Status::notRegistered;
    Status afterRegister = Status::enabled;
    std::optional<QString> failure;
    int settingsOpened = 0;
    Status status() const override { return now; }
    std::optional<QString> registerApp() override
    {
        if (!failure)
            now = afterRegister;
        return failure;
    }
    std::optional<QString> unregisterApp() override
    {
        now = Status::notRegistered;
        return std::nullopt;
    }
    void openSettings() override { ++settingsOpened; }
};

class FakeAccess final : public ScreenAccess {
public:
    bool screen = false, keys = false;
    bool screenRecording() const override { return screen; }
    bool accessibility() const override { return keys; }
    bool requestScreenRecording() override { return screen; }
    bool requestAccessibility() override { return keys; }
    QString reason() const override { return QStringLiteral("because"); }
};

} // namespace

TEST(MenuContent, statusLinesErrorsAndItemsFollowTheState)
{
    MenuContent::State s;
    EXPECT_EQ(MenuContent::status(s), "Not paired with an iPhone");
    s.paired = true;
    EXPECT_EQ(MenuContent::status(s), "Stopped");
    s.agentState = Child::State::running;
    EXPECT_EQ(MenuContent::status(s), "Connecting…");
    s.agentState = Child::State::restarting;
    EXPECT_EQ(MenuContent::status(s), "Restarting…");
    s.connected = true;
    EXPECT_EQ(MenuContent::status(s), "Connected: Zuv answers from this computer");
    s.answers = false;
    EXPECT_EQ(MenuContent::status(s), "Connected (Zuv doesn't answer here)");

    // Paired without answers: the setup line stands under the status, and goes.
    EXPECT_EQ(titles(s).mid(0, 2), QStringList({"Connected (Zuv doesn't answer here)", "Set Up Claude Code…"}));
    s.answers = true;
    EXPECT_FALSE(titles(s).contains("Set Up Claude Code…"));
    EXPECT_EQ(titles(s), QStringList({"Connected: Zuv answers from this computer", "—", "Open Zuv", "New Chat", "⟨send⟩", "—", "⟨awake⟩", "—",
                                      "Settings…", "Open Logs Folder", "Check for Updates…", "Disconnect This Computer…",
                                      "—", "Quit Zuv"}));
    const auto items = MenuContent::items(s);
    EXPECT_FALSE(items[0].enabled());
    EXPECT_FALSE(items[4].enabled()) << "the place of the entries for sending the clipboard";
    EXPECT_EQ(items[8].shortcut, "Ctrl+,");
    EXPECT_EQ(items.back().shortcut, "Ctrl+Q");

    MenuContent::State unpaired;
    unpaired.clipboardEnabled = true;
    unpaired.clipboardCombo = "Super+Shift+C";
    unpaired.updateRequired = true;
    unpaired.lastError = QString(90, 'x') + " short";
    EXPECT_EQ(titles(unpaired),
              QStringList({"Not paired with an iPhone", QString(40, 'x'), QString(40, 'x'), "xxxxxxxxxx short",
                           "Update Required: Install Now…", "—", "Open Zuv", "Clipboard History  (Super+Shift+C)", "—",
                           "Pair with iPhone…", "Open Logs Folder", "Check for Updates…", "—", "Quit Zuv"}));
    unpaired.lastError = QString();
    EXPECT_EQ(MenuContent::items(unpaired)[1].title, "Update Required: Install Now…") << "an empty error gives no line";
    unpaired.openZuvCombo = "Super+Z";
    EXPECT_TRUE(titles(unpaired).contains("Open Zuv  (Super+Z)"));
}

TEST(MenuContent, wrappingKeepsWordsAndCutsOnlyWhatIsTooLong)
{
    EXPECT_EQ(MenuContent::wrapped("one two three", 7), QStringList({"one two", "three"}));
    EXPECT_EQ(MenuContent::wrapped("\n\nfirst\n\n  second  ", 40), QStringList({"first", "second"}));
    EXPECT_EQ(MenuContent::wrapped("ab " + QString(9, 'z'), 4), QStringList({"ab", "zzzz", "zzzz", "z"}));
    EXPECT_TRUE(MenuContent::wrapped("", 40).isEmpty());
    EXPECT_EQ(MenuContent::wrapped(QString(100000, 'y'), 40).size(), 2500) << "linear on a huge word";
}

TEST(ToolsProbe, readsVersionsAndSignInsByTheExactRules)
{
    struct Answer {
        int status;
        QString output;
    };
    std::map<QString, std::optional<Answer>> answers;
    QStringList ran;
    const ToolsProbe::Runner runner = [&](const QString &command, const QStringList &args, double timeout)
        -> std::optional<LoginShell::Result> {
        EXPECT_EQ(timeout, 10);
        const QString key = command + u' ' + args.join(u' ');
        ran << key;
        const auto it = answers.find(key);
        if (it == answers.end() || !it->second)
            return std::nullopt;
        return LoginShell::Result{it->second->status, it->second->output};
    };

    // Nothing installed: codex counts as signed in, and its login is never asked.
    ToolsProbe none = ToolsProbe::run(runner);
    EXPECT_EQ(none, ToolsProbe{});
    EXPECT_EQ(ran, QStringList({"claude --version", "claude auth status --json", "codex --version"}));

    answers["claude --version"] = Answer{0, "  2.1.3 (Claude Code)\n"};
    answers["claude auth status --json"] = Answer{0, "{\"loggedIn\":true}"};
    answers["codex --version"] = Answer{0, "codex-cli 0.4.1\n"};
    answers["codex login status"] = Answer{1, "Error: something else"};
    ToolsProbe found = ToolsProbe::run(runner);
    EXPECT_EQ(found.claude, "2.1.3 (Claude Code)");
    EXPECT_FALSE(found.claudeSignedIn) << "the key without a blank after the colon does not count";
    EXPECT_EQ(found.codex, "codex-cli 0.4.1");
    EXPECT_TRUE(found.codexSignedIn) << "a failure without the words keeps codex signed in";
    EXPECT_EQ(ToolsProbe::claudeVersion(*found.claude), "2.1.3");
    EXPECT_EQ(ToolsProbe::codexVersion(*found.codex), "0.4.1");
    EXPECT_EQ(SetupGuide::claudeStatus(found),
              "Installed (2.1.3) but not signed in: open a terminal and run claude, then /login.");

    answers["claude auth status --json"] = Answer{0, "{\n  \"loggedIn\": true\n}"};
    answers["codex login status"] = Answer{1, "Not Logged In"};
    found = ToolsProbe::run(runner);
    EXPECT_TRUE(found.claudeSignedIn);
    EXPECT_FALSE(found.codexSignedIn);
    EXPECT_EQ(SetupGuide::claudeStatus(found), "Signed in (2.1.3).");
    EXPECT_EQ(SetupGuide::codexStatus(found), "Codex: codex-cli 0.4.1, not signed in (optional): run codex login in a terminal");

    // A login probe that cannot run says nothing; a version that fails is no install.
    answers["codex login status"] = std::nullopt;
    EXPECT_TRUE(ToolsProbe::run(runner).codexSignedIn);
    answers["claude --version"] = Answer{127, "claude: not found"};
    EXPECT_EQ(ToolsProbe::run(runner).claude, std::nullopt);
}

TEST(ToolsProbe, theRealRunnerFindsScriptsOnTheLoginPath)
{
    TempHome home;
    QDir().mkpath(home.file("bin"));
    writeText(home.file("bin/claude"), "#!/bin/sh\nif [ \"$1\" = --version ]; then echo '9.9.9 (Claude Code)'; else echo '{\"loggedIn\": true}'; fi\n");
    QFile::setPermissions(home.file("bin/claude"), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    const ToolsProbe found = ToolsProbe::run([&](const QString &command, const QStringList &args, double timeout) {
        return LoginShell::run(home.file("bin/") + command, args, timeout);
    });
    EXPECT_EQ(found.claude, "9.9.9 (Claude Code)");
    EXPECT_TRUE(found.claudeSignedIn);
    EXPECT_EQ(found.codex, std::nullopt);
}

TEST(AutostartEntry, writesReadsAndRemovesTheDesktopFile)
{
    TempHome home;
    AutostartEntry entry(home.file("config/autostart"), "/opt/my apps/zuv");
    EXPECT_EQ(entry.status(), LoginItems::Status::notRegistered);
    EXPECT_EQ(entry.registerApp(), std::nullopt);
    EXPECT_EQ(entry.status(), LoginItems::Status::enabled);
    const QString text = readText(entry.file());
    EXPECT_TRUE(text.contains("Exec=\"/opt/my apps/zuv\"\n")) << qPrintable(text);
    EXPECT_TRUE(text.startsWith("[Desktop Entry]\n"));
    EXPECT_TRUE(entry.file().endsWith("/autostart/com.kelmor.zuv.mac.desktop"));

    // Switched off by the desktop's own keys, also in another group's disguise.
    writeText(entry.file(), "[Desktop Entry]\nExec=zuv\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(entry.status(), LoginItems::Status::notRegistered);
    writeText(entry.file(), "[Other]\nHidden=true\n[Desktop Entry]\nExec=zuv\n");
    EXPECT_EQ(entry.status(), LoginItems::Status::enabled);
    writeText(entry.file(), "[Desktop Entry]\nHidden = True\n");
    EXPECT_EQ(entry.status(), LoginItems::Status::notRegistered);
    EXPECT_EQ(entry.unregisterApp(), std::nullopt);
    EXPECT_FALSE(QFileInfo::exists(entry.file()));
    EXPECT_EQ(entry.unregisterApp(), std::nullopt) << "nothing to remove is no failure";

    // A folder that cannot be made is a failure in words.
    writeText(home.file("blocked"), "a file, not a folder");
    AutostartEntry blocked(home.file("blocked/autostart"), "zuv");
    const auto failure = blocked.registerApp();
    ASSERT_TRUE(failure);
    EXPECT_TRUE(failure->contains("blocked/autostart")) << qPrintable(*failure);
}

struct ToolsOfTheModel : HubFixture, ::testing::Test {
    FakeLoginItems items;
    FakeAccess access;
    std::unique_ptr<AppModel> model = makeModel();
    int relaunches = 0;
    int looked = 0;
    ToolsOfTheModel()
    {
        model->setDesktop({&access, &items, {}, [this] { ++relaunches; }});
        AppModel::Hooks hooks;
        hooks.permissionsLooked = [this] { ++looked; };
        model->setHooks(hooks);
    }
};

TEST_F(ToolsOfTheModel, openAtLoginShowsTheTruthAndSaysWhy)
{
    EXPECT_FALSE(model->launchAtLogin());
    model->setLaunchAtLogin(true);
    EXPECT_TRUE(model->launchAtLogin());
    EXPECT_EQ(model->lastError(), std::nullopt);
    model->setLaunchAtLogin(false);
    EXPECT_FALSE(model->launchAtLogin());

    items.failure = "Permission denied";
    model->setLaunchAtLogin(true);
    EXPECT_FALSE(model->launchAtLogin());
    EXPECT_EQ(model->lastError(), "Open at login: Permission denied");

    items.failure.reset();
    items.afterRegister = LoginItems::Status::requiresApproval;
    model->setLaunchAtLogin(true);
    EXPECT_FALSE(model->launchAtLogin()) << "the switch falls back to off";
    EXPECT_EQ(items.settingsOpened, 1);
    EXPECT_TRUE(model->lastError()->startsWith("Allow Zuv in your desktop's settings"));
}

TEST_F(ToolsOfTheModel, grantsAreReadEveryLookAndAsksAreRemembered)
{
    EXPECT_FALSE(model->screenRecording());
    EXPECT_FALSE(SetupGuide::offersRestart(*model)) << "no restart hint before an Allow press";
    model->requestScreenRecording();
    EXPECT_TRUE(model->askedForPermissions());
    EXPECT_TRUE(SetupGuide::offersRestart(*model));
    access.screen = access.keys = true;
    const int before = looked;
    model->refreshPermissions();
    EXPECT_TRUE(model->screenRecording());
    EXPECT_TRUE(model->accessibility());
    EXPECT_FALSE(SetupGuide::offersRestart(*model));
    EXPECT_EQ(looked, before + 1) << "every look ends with the awake refresh";
    EXPECT_TRUE(model->screen().wanted()) << "a changed grant restarts the screen helper";
    model->refreshPermissions();
    EXPECT_EQ(looked, before + 2);
    model->relaunch();
    EXPECT_EQ(relaunches, 1);
    EXPECT_EQ(model->accessReason(), "because");
    model->stopChildren();
}

TEST_F(ToolsOfTheModel, aLaterToolsCheckWinsOverAnEarlierOne)
{
    std::atomic<int> calls{0};
    model->setDesktop({&access, &items,
                       [&](const QString &command, const QStringList &args, double) -> std::optional<LoginShell::Result> {
                           if (command == "claude" && args == QStringList{"--version"})
                               return LoginShell::Result{0, QString::number(++calls)};
                           return std::nullopt;
                       },
                       {}});
    auto first = model->checkTools();
    auto second = model->checkTools();
    EXPECT_TRUE(model->checkingTools());
    await(std::move(second));
    await(std::move(first));
    EXPECT_FALSE(model->checkingTools());
    ASSERT_TRUE(model->tools().claude);
    EXPECT_EQ(calls.load(), 2);
}

struct Handoffs : ChatFixture, ::testing::Test {
    WindowOpener opener;
    std::unique_ptr<AppModel> model;
    Handoffs()
    {
        keychain.setToken(std::nullopt);
        model = makeModel();
    }
};

TEST_F(Handoffs, filesFromOutsideStartAFreshChatOnlyWhenPaired)
{
    writeText(home.file("a.txt"), "a");
    writeText(home.file("b.png"), "b");
    const QStringList args{"zuv", home.file("a.txt"), "--open-chat", home.file("b.png"), "https://example.com/x",
                           QUrl::fromLocalFile(home.file("b.png")).toString(), home.file("missing")};
    const auto files = Handoff::files(args);
    ASSERT_TRUE(files);
    ASSERT_EQ(files->size(), 2u) << "flag values, other schemes and missing files are not files";
    EXPECT_EQ((*files)[0].name, "a.txt");
    EXPECT_EQ((*files)[1].mime, "image/png");
    EXPECT_EQ(Handoff::files({"zuv", "--settings"}), std::nullopt);
    EXPECT_EQ(Handoff::files({"zuv", "https://example.com"})->size(), 0u) << "meant as a file, none kept";
    EXPECT_EQ(Handoff::value({"zuv", "--send-test"}, "--send-test"), std::nullopt);
    EXPECT_EQ(Handoff::value({"zuv", "--open-chat", "c1"}, "--open-chat"), "c1");

    int setups = 0;
    Handoff::start(*model, *chat, opener, [&] { ++setups; }, "hello", *files);
    EXPECT_EQ(setups, 1);
    EXPECT_TRUE(chat->handoff().empty()) << "unpaired: the content is dropped";

    keychain.setToken("t");
    model = makeModel();
    ASSERT_EQ(model->pairing().state, AppModel::Pairing::State::paired);
    std::optional<QString> opened;
    QObject::connect(&opener, &WindowOpener::showItem,
                     [&](const std::optional<QString> &conversation, const std::optional<QString> &) { opened = conversation; });
    Handoff::start(*model, *chat, opener, [&] { ++setups; }, "hello", *files);
    ASSERT_EQ(chat->handoff().size(), 1u);
    const QString id = chat->handoff().begin()->first;
    EXPECT_EQ(id.size(), 16);
    EXPECT_TRUE(id.startsWith('c'));
    ASSERT_TRUE(waitUntil([&] { return opened.has_value(); }));
    EXPECT_EQ(*opened, id);
    EXPECT_EQ(chat->handoff().at(id).text, "hello");
}

TEST(SetupGuide, theCodeShowsInTwoGroupsOfFour)
{
    EXPECT_EQ(SetupGuide::displayCode("ABCD1234"), "ABCD-1234");
    EXPECT_EQ(SetupGuide::displayCode("ABC"), "ABC-ABC");
    EXPECT_EQ(SetupGuide::displayCode("ABCDxx1234"), "ABCD-1234");
    EXPECT_TRUE(AppModel::qr(AppModel::pairingLink("ABCD1234")).width() > 0);
    EXPECT_TRUE(AppModel::qr(QString(8000, 'x')).isNull()) << "too long for a QR code: no picture";
}

// zuv-hub as a process of its own, used by the app's own models over real HTTP and
// WebSocket: pairing from the phone's side, the chat with its stand-in, a tool
// request answered, the agent's close codes, bad requests and a restart.
#include "clipboard/ClipRules.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardRemote.h"
#include "clipboard/ClipboardShare.h"
#include "install/Updates.h"
#include "link/AppModel.h"
#include "settings/Models.h"
#include "settings/SettingsModel.h"

#include "FakePasteboard.h"
#include "FakeUpdater.h"
#include "FakeWorkspace.h"

#include "../chat/ChatFixture.h"

#include <QNetworkReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QLocalServer>
#include <QProcess>
#include <QWebSocket>

#include <csignal>
#include <sys/prctl.h>

using namespace zuv;
using namespace zuv::test;

namespace {

// One zuv-hub process on a free port, with its data in a folder of the test's own.
struct HubProcess {
    TempHome data;
    QProcess process;
    QUrl url;
    QStringList extra; // more of zuv-hub's options, for the next start

    HubProcess() { start(); }
    ~HubProcess() { stop(); }
    void start()
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        // The hub ends with the test, even one that crashed.
        process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
        process.start(QStringLiteral(ZUV_HUB),
                      QStringList{"--listen", "127.0.0.1:0", "--data", data.file("hub"), "--turn-delay", "0.05"} + extra);
        if (!process.waitForStarted(5000) || !waitUntil([&] { return process.canReadLine(); }, 15000))
            return;
        const QString line = QString::fromUtf8(process.readLine());
        const QRegularExpression address(QStringLiteral("http://127\\.0\\.0\\.1:\\d+"));
        url = QUrl(address.match(line).captured(0));
    }
    void stop()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(2000);
    }
};

struct HubTool : HubProcess, ChatFixture, ::testing::Test {
    HubTool() : ChatFixture(HubProcess::url) { keychain.setToken(std::nullopt); }

    QJsonObject call(const QByteArray &method, const QString &path, const QByteArray &body = {}, const QString &token = {},
                     int *status = nullptr)
    {
        QNetworkRequest request(QUrl(HubProcess::url.toString() + path));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        if (!token.isEmpty())
            request.setRawHeader("authorization", "Bearer " + token.toUtf8());
        QNetworkReply *reply = network.sendCustomRequest(request, method, body);
        waitUntil([&] { return reply->isFinished(); }, 10000);
        if (status)
            *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const QJsonObject out = QJsonDocument::fromJson(reply->readAll()).object();
        reply->deleteLater();
        return out;
    }

    // Pairs a computer by hand, as its app would, the phone claiming the code.
    // Gives the computer's agent token and the phone's token.
    std::pair<QString, QString> pairByHand(const QString &name)
    {
        const QJsonObject start = call("POST", "/pair/start", QJsonDocument(QJsonObject{{"name", name}}).toJson());
        const QString phone = call("POST", "/phone/pair", QJsonDocument(QJsonObject{{"code", start["code"]}}).toJson())
                                  .value("token").toString();
        const QString agent = call("POST", "/pair/poll", QJsonDocument(QJsonObject{{"code", start["code"]}, {"secret", start["secret"]}}).toJson())
                                  .value("token").toString();
        return {agent, phone};
    }

    // Pairs the app's model through the hub, the phone claiming the code. Gives the phone's token.
    QString pair(AppModel &model)
    {
        model.startPairing();
        if (!waitUntil([&] { return model.pairing().state == AppModel::Pairing::State::showing; }))
            return {};
        const QString code = model.pairing().code;
        const QString phone = call("POST", "/phone/pair",
                                   QJsonDocument(QJsonObject{{"code", code.left(4) + "-" + code.mid(4).toLower()}}).toJson())
                                  .value("token").toString();
        for (int i = 0; i < 20 && model.pairing().state != AppModel::Pairing::State::paired; ++i) {
            waitUntil([&] { return clock.sleepers() > 0; }, 2000);
            clock.advance(2);
            waitUntil([&] { return model.pairing().state == AppModel::Pairing::State::paired; }, 500);
        }
        return phone;
    }
};

} // namespace

TEST_F(HubTool, pairingChatAndAToolRequestWorkThroughTheRealHub)
{
    ASSERT_TRUE(HubProcess::url.isValid()) << "zuv-hub did not start";
    auto model = makeModel();
    const QString phone = pair(*model);
    ASSERT_EQ(model->pairing().state, AppModel::Pairing::State::paired);
    ASSERT_FALSE(phone.isEmpty());
    ASSERT_TRUE(keychain.token());

    // The app's chat: the socket goes live, a message is answered by the stand-in.
    chat->start();
    ASSERT_TRUE(waitUntil([&] { return chat->live(); }, 10000));
    const auto sending = chat->send("What is on my disk?", {}, {}, "c1");
    ASSERT_TRUE(waitUntil([&] {
        const EntryList *list = chat->entries("c1");
        return list && list->size() == 2 && (*list)[1].role == "assistant";
    }, 10000));
    EXPECT_TRUE((*chat->entries("c1"))[1].text.contains("| Step | Where | State |"));
    EXPECT_FALSE((*chat->entries("c1"))[0].id.startsWith('m')) << "the echo was replaced by the hub's entry";
    EXPECT_FALSE(chat->waiting().contains("c1"));
    ASSERT_TRUE(waitUntil([&] { return listed("c1") != nullptr; }, 5000));
    EXPECT_EQ(listed("c1")->title, "What is on my disk?");

    // What the phone sent shows on the computer too.
    call("POST", "/app/send", R"({"text":"from the phone","conversation":"c1"})", phone);
    ASSERT_TRUE(waitUntil([&] { return chat->entries("c1")->size() == 4; }, 10000));

    // A tool request: the app sees it, answers it, and the turn ends with the answer.
    call("POST", "/app/send", R"({"text":"/tool Bash: ls -la ~","conversation":"c1"})", phone);
    ASSERT_TRUE(waitUntil([&] { return chat->permissions().size() == 1; }, 10000));
    EXPECT_EQ(chat->permissions()[0].tool, "Bash");
    EXPECT_EQ(chat->permissions()[0].detail, "ls -la ~");
    await(chat->answer(chat->permissions()[0].id, true));
    ASSERT_TRUE(waitUntil([&] { return chat->entries("c1")->items().back().text.startsWith("**Allowed.**"); }, 10000));
    EXPECT_EQ(call("GET", "/app/cc/permissions", {}, phone).value("permissions").toArray().size(), 0);

    // Rename and delete travel as frames.
    await(chat->rename("c1", "Disk"));
    ASSERT_TRUE(waitUntil([&] { return listed("c1") && listed("c1")->title == "Disk"; }, 5000));
    await(chat->deleteConversation("c1"));
    ASSERT_TRUE(waitUntil([&] { return chat->deleted().contains("c1"); }, 5000));
    EXPECT_TRUE(call("GET", "/app/conversations", {}, phone).value("conversations").toArray().isEmpty());
    chat->stop();
    model->stopChildren();
}

TEST_F(HubTool, badRequestsAreRefusedInTheErrorShapeAndDataSurvivesARestart)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    int status = 0;
    const auto code = [&](const QJsonObject &reply) { return reply.value("error").toObject().value("code").toString(); };
    EXPECT_EQ(code(call("GET", "/app/conversations", {}, {}, &status)), "UNAUTHORIZED");
    EXPECT_EQ(status, 401);
    EXPECT_EQ(code(call("POST", "/phone/pair", R"({"code":"NOPE"})", {}, &status)), "BAD_CODE");
    EXPECT_EQ(code(call("POST", "/pair/poll", R"({"code":"X","secret":""})", {}, &status)), "NOT_FOUND");

    auto model = makeModel();
    const QString phone = pair(*model);
    ASSERT_FALSE(phone.isEmpty());
    EXPECT_EQ(code(call("POST", "/agent/app-token", {}, phone, &status)), "UNAUTHORIZED") << "a phone is no computer";
    EXPECT_EQ(code(call("POST", "/app/send", "[1,2]", phone, &status)), "BAD_JSON");
    EXPECT_EQ(status, 400);
    EXPECT_EQ(code(call("POST", "/app/send", R"({"text":"x","conversation":"../etc"})", phone)), "BAD_ID");
    EXPECT_EQ(code(call("POST", "/app/send", R"({"text":7})", phone)), "BAD_TEXT");
    EXPECT_EQ(code(call("POST", "/app/send", R"({"text":"  "})", phone)), "EMPTY");
    EXPECT_EQ(code(call("POST", "/app/send", R"({"text":"x","files":[{"key":1}]})", phone)), "BAD_FILE");
    const QByteArray huge = QJsonDocument(QJsonObject{{"text", QString(100001, 'x')}}).toJson();
    EXPECT_EQ(code(call("POST", "/app/send", huge, phone, &status)), "TOO_LONG");
    EXPECT_EQ(status, 413);
    EXPECT_EQ(code(call("PATCH", "/app/conversations/none", R"({"title":"t"})", phone, &status)), "NOT_FOUND");
    EXPECT_EQ(code(call("POST", "/app/cc/permission", R"({"id":"p1","allow":"yes"})", phone)), "BAD_ANSWER");
    EXPECT_EQ(code(call("GET", "/nowhere.html", {}, {}, &status)), "");
    EXPECT_EQ(status, 404);
    EXPECT_EQ(code(call("POST", "/app/cc/new", "{}", phone, &status)), "BAD_CWD");
    EXPECT_EQ(code(call("POST", "/app/cc/new", R"({"cwd":"/tmp","prompt":"x","model":7})", phone)), "BAD_REQUEST");
    EXPECT_EQ(code(call("POST", "/app/cc/reply", R"({"id":"none","text":"x"})", phone, &status)), "NOT_FOUND");
    EXPECT_EQ(code(call("GET", "/app/cc/projects?device=..%2F", {}, phone, &status)), "BAD_ID");
    EXPECT_EQ(code(call("POST", "/app/mac/clipboard", R"({"device":"nope","text":"x"})", phone, &status)), "NOT_FOUND");
    const QString device = call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("id").toString();
    EXPECT_EQ(code(call("POST", "/app/mac/clipboard", QJsonDocument(QJsonObject{{"device", device}}).toJson(), phone)), "EMPTY");
    EXPECT_EQ(code(call("POST", "/app/mac/clipboard",
                        QJsonDocument(QJsonObject{{"device", device}, {"files", QJsonArray{QJsonObject{{"key", "forged"}}}}}).toJson(),
                        phone)), "BAD_FILE") << "only files uploaded here";
    EXPECT_EQ(call("GET", "/app/search?q=%25", {}, phone).value("results").toArray().size(), 0) << "% is a plain character";

    // The agent's socket: an unknown token is refused with 4401; a second agent replaces the first with 4409.
    const auto agentSocket = [&](const QString &token) {
        auto socket = std::make_unique<QWebSocket>();
        QNetworkRequest request(QUrl(HubProcess::url.toString().replace("http://", "ws://") + "/agent/ws"));
        request.setRawHeader("authorization", "Bearer " + token.toUtf8());
        socket->open(request);
        return socket;
    };
    auto stranger = agentSocket("wrong");
    ASSERT_TRUE(waitUntil([&] { return stranger->closeCode() == QWebSocketProtocol::CloseCode(4401); }, 10000));
    auto first = agentSocket(*keychain.token());
    ASSERT_TRUE(waitUntil([&] { return first->state() == QAbstractSocket::ConnectedState; }, 10000));
    auto second = agentSocket(*keychain.token());
    ASSERT_TRUE(waitUntil([&] { return first->closeCode() == QWebSocketProtocol::CloseCode(4409); }, 10000));
    EXPECT_TRUE(waitUntil([&] { return second->state() == QAbstractSocket::ConnectedState; }, 10000));
    EXPECT_TRUE(call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("online").toBool());

    // A restart keeps the store: the conversation and the tokens are still good.
    call("POST", "/app/send", R"({"text":"remember me","conversation":"kept"})", phone);
    second.reset();
    first.reset();
    HubProcess::stop();
    HubProcess::start();
    ASSERT_TRUE(HubProcess::url.isValid());
    const QJsonArray conversations = call("GET", "/app/conversations", {}, phone, &status).value("conversations").toArray();
    EXPECT_EQ(status, 200);
    ASSERT_EQ(conversations.size(), 1);
    EXPECT_EQ(conversations[0].toObject().value("id").toString(), "kept");
    model->stopChildren();
}

TEST_F(HubTool, thePhoneReachesTheComputersClipboardAndStayAwakeThroughTheRealAgent)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    qputenv("HOME", home.path().toUtf8());
    FakePasteboard pasteboard;
    FakeWorkspace workspace;
    ClipboardHistory history(clock, defaults, pasteboard, workspace, nullptr, home.file("data"));
    history.setEnabled(true);
    history.record({{ClipRules::plainText, "an address on the desktop"}}, std::nullopt, clock.now());
    auto model = makeModel(AppModel::Locations{QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv",
                                               QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent", home.file("data"),
                                               home.file("logs")});
    ClipboardRemote remote(history, workspace, home.file("data/work/clipboard"),
                           [&](const QString &line) { return model->agent().send(line); });
    AppModel::Hooks hooks;
    hooks.clipboardAsk = [&](const QString &line) { remote.handle(line); };
    model->setHooks(hooks);
    const QString phone = pair(*model);
    ASSERT_EQ(model->pairing().state, AppModel::Pairing::State::paired);

    // Before the agent is online the hub says so.
    int status = 0;
    const QJsonObject offline = call("POST", "/app/clipboard", R"({"op":"list"})", phone, &status);
    if (!model->connected()) {
        EXPECT_EQ(status, 503);
        EXPECT_EQ(offline.value("error").toObject().value("code").toString(), "COMPUTER_OFFLINE");
    }
    ASSERT_TRUE(waitUntil([&] { return model->connected(); }, 20000)) << qPrintable(readText(home.file("logs/agent.log")));
    ASSERT_TRUE(waitUntil([&] {
        return call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("online").toBool();
    }, 10000));

    const QJsonObject list = call("POST", "/app/clipboard", R"({"op":"list","q":"address","limit":10})", phone, &status);
    EXPECT_EQ(status, 200);
    const QJsonArray items = list.value("result").toObject().value("items").toArray();
    ASSERT_EQ(items.size(), 1);
    EXPECT_EQ(items[0].toObject().value("text").toString(), "an address on the desktop");
    const QByteArray fetch = QJsonDocument(QJsonObject{{"op", "item"}, {"clip", items[0].toObject().value("id")}}).toJson();
    EXPECT_EQ(call("POST", "/app/clipboard", fetch, phone).value("result").toObject().value("text").toString(),
              "an address on the desktop");

    const QByteArray add = QJsonDocument(QJsonObject{{"op", "add"}, {"image", false},
                                                     {"file", QJsonObject{{"name", "note.txt"},
                                                                          {"data", QString::fromLatin1(QByteArray("from the page").toBase64())}}}})
                               .toJson();
    EXPECT_TRUE(call("POST", "/app/clipboard", add, phone).value("result").toObject().value("ok").toBool());
    ASSERT_TRUE(waitUntil([&] { return history.clips().size() == 2; }));
    EXPECT_EQ(history.clips()[0].text, "from the page");
    EXPECT_EQ(call("POST", "/app/clipboard", R"({"op":"pin"})", phone, &status).value("error").toObject().value("code"),
              "BAD_REQUEST");
    EXPECT_EQ(call("POST", "/app/clipboard", R"({"op":"delete","clip":999999})", phone, &status)
                  .value("error").toObject().value("code"), "COMPUTER_ERROR");
    EXPECT_EQ(status, 502);

    // Staying awake: the agent acknowledges, and its state reaches the hub.
    EXPECT_TRUE(call("POST", "/app/power", R"({"power":"status"})", phone).value("result").toObject().value("ok").toBool());
    ASSERT_TRUE(waitUntil([&] { return call("GET", "/app/power", {}, phone).value("session").toObject().contains("active"); },
                          10000));
    EXPECT_FALSE(call("GET", "/app/power", {}, phone).value("session").toObject().value("active").toBool());
    EXPECT_EQ(call("POST", "/app/power", R"({"power":"keepAwake","minutes":-1})", phone).value("error").toObject().value("code"),
              "BAD_REQUEST");
    model->stopChildren();
}

namespace {

// The real agent on node, started as the app starts it, with fake tools on its PATH.
struct AgentProcess {
    QProcess process;
    QStringList lines;
    AgentProcess(const QUrl &hub, const QString &token, const TempHome &home, const QString &tools)
    {
        QProcessEnvironment env;
        env.insert("PATH", tools + ":" + qEnvironmentVariable("PATH"));
        env.insert("HOME", home.path());
        env.insert("ZUV_HUB_URL", hub.toString().replace("http://", "ws://") + "/agent/ws");
        env.insert("ZUV_AGENT_TOKEN", token);
        env.insert("ZUV_WORK_DIR", home.file("work"));
        env.insert("ZUV_TURN_TIMEOUT_MS", "1500");
        env.insert("ZUV_SCREEN_SOCKET", home.file("screen/screen.sock"));
        process.setProcessEnvironment(env);
        QObject::connect(&process, &QProcess::readyReadStandardOutput, [this] {
            while (process.canReadLine())
                lines << QString::fromUtf8(process.readLine()).trimmed();
        });
        process.start("node", {QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent/src/main.mjs"});
    }
    ~AgentProcess()
    {
        process.closeWriteChannel();
        if (!process.waitForFinished(5000))
            process.kill();
    }
    bool said(const QString &text) { return waitUntil([&] { return lines.join('\n').contains(text); }, 10000); }
};

} // namespace

TEST_F(HubTool, turnsGoToTheComputersClaudeCodeWithStepsAndSurviveHangsAndGarbage)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    const auto [agentToken, phone] = pairByHand("Desk");
    ASSERT_FALSE(agentToken.isEmpty());

    // A fake Claude Code: garbage, a tool use, text, then the result; what it does
    // depends on the message, so that one script plays every part.
    QDir().mkpath(home.file("tools"));
    writeText(home.file("tools/claude"),
              "#!/bin/sh\n"
              "for last; do :; done\n"
              "case \"$last\" in\n"
              "  *hang*) sleep 30 ;;\n"
              "  *crash*) echo 'not json at all'; exit 3 ;;\n"
              "esac\n"
              "echo 'Loading…'\n"
              "echo '{\"type\":\"assistant\",\"message\":{\"content\":[{\"type\":\"tool_use\",\"name\":\"Bash\"}]}}'\n"
              "echo '{\"type\":\"assistant\",\"message\":{\"content\":[{\"type\":\"text\",\"text\":\"x\"}]}}'\n"
              "echo '{broken'\n"
              "printf '{\"type\":\"result\",\"is_error\":false,\"result\":\"# Done\\\\n\\\\nYou said: %s\"}\\n' \"$last\"\n");
    QFile::setPermissions(home.file("tools/claude"), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    QWebSocket app;
    QStringList frames;
    QObject::connect(&app, &QWebSocket::textMessageReceived, [&](const QString &f) { frames << f; });
    app.open(QUrl(HubProcess::url.toString().replace("http://", "ws://") + "/app/ws?token=" + phone));
    ASSERT_TRUE(waitUntil([&] { return app.state() == QAbstractSocket::ConnectedState; }));

    AgentProcess agent(HubProcess::url, agentToken, home, home.file("tools"));
    ASSERT_TRUE(agent.said("hub connected")) << qPrintable(agent.lines.join('\n'));
    ASSERT_TRUE(waitUntil([&] {
        return call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("turns").toBool();
    }, 10000)) << "the agent offered to run turns";
    const auto lastReply = [&](const QString &conversation) {
        const QJsonArray entries = call("GET", "/app/history?conversation=" + conversation, {}, phone).value("entries").toArray();
        return entries.isEmpty() || entries.last().toObject().value("role") == "user" ? QString()
                                                                                       : entries.last().toObject().value("text").toString();
    };
    const auto sendAndWait = [&](const QString &conversation, const QString &text) {
        call("POST", "/app/send", QJsonDocument(QJsonObject{{"text", text}, {"conversation", conversation}}).toJson(), phone);
        waitUntil([&] { return !lastReply(conversation).isEmpty(); }, 15000);
        return lastReply(conversation);
    };

    EXPECT_EQ(sendAndWait("c1", "list my files"), "# Done\n\nYou said: list my files");
    EXPECT_TRUE(frames.join('\n').contains("Using Bash…")) << qPrintable(frames.join('\n'));
    EXPECT_TRUE(frames.join('\n').contains("Asking your computer…"));
    EXPECT_EQ(sendAndWait("c2", "please hang"), "**The computer couldn't answer:** The turn took too long and was stopped.");
    EXPECT_EQ(sendAndWait("c3", "crash now"), "**The computer couldn't answer:** Claude Code ended without an answer (exit 3).");
    EXPECT_FALSE(agent.lines.join('\n').contains("not json")) << "the tool's words stay out of the agent's lines";

    // The agent goes away in the middle of a turn: the hub says so.
    call("POST", "/app/send", R"({"text":"please hang again","conversation":"c4"})", phone);
    ASSERT_TRUE(agent.said("session claude started"));
    agent.process.kill();
    ASSERT_TRUE(waitUntil([&] { return !lastReply("c4").isEmpty(); }, 10000));
    EXPECT_TRUE(lastReply("c4").startsWith("**The computer went offline during the turn.**"));

    // With no computer that runs turns, the stand-in answers.
    EXPECT_TRUE(sendAndWait("c5", "hello").startsWith("## Here is what I would do"));
}

TEST_F(HubTool, theAccountsSchedulesMemoryAndSettingsGoThroughTheSettingsModel)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    auto model = makeModel();
    const QString phone = pair(*model);
    ASSERT_TRUE(keychain.token());
    Models models(clock, defaults);
    SettingsModel settings(api, models);

    ScheduleEdit edit;
    edit.prompt = QStringLiteral("Summarise what changed in ~/code");
    edit.spec = ScheduleSpec{QStringLiteral("daily"), QStringLiteral("08:00"), std::nullopt, std::nullopt, std::nullopt};
    edit.target.kind = ScheduleEdit::TargetChange::Kind::set;
    edit.target.target.cwd = QStringLiteral("/home/me/code");
    edit.target.target.agent = QStringLiteral("claude");
    await(settings.saveSchedule(std::nullopt, edit));
    ASSERT_TRUE(settings.overview()) << qPrintable(settings.error().value_or(""));
    ASSERT_EQ(settings.overview()->schedules.size(), 1u);
    const auto schedule = settings.overview()->schedules[0]; // a copy: the list is replaced at each reload
    EXPECT_EQ(schedule.prompt, "Summarise what changed in ~/code");
    ASSERT_TRUE(schedule.nextAt);
    EXPECT_GT(*schedule.nextAt, double(QDateTime::currentMSecsSinceEpoch()));
    EXPECT_LE(*schedule.nextAt, double(QDateTime::currentMSecsSinceEpoch()) + 86400000.0);
    ASSERT_TRUE(schedule.target);
    EXPECT_EQ(schedule.target->cwd, "/home/me/code");

    ScheduleEdit off;
    off.enabled = false;
    off.target.kind = ScheduleEdit::TargetChange::Kind::clear;
    await(settings.saveSchedule(schedule.id, off));
    EXPECT_FALSE(settings.overview()->schedules[0].enabled);
    EXPECT_FALSE(settings.overview()->schedules[0].target) << "null clears the target";

    await(settings.saveMemory(std::nullopt, QStringLiteral("Prefers short answers"), QStringLiteral("preference")));
    ASSERT_EQ(settings.overview()->memory.size(), 1u);
    EXPECT_EQ(settings.overview()->memory[0].text, "Prefers short answers");
    await(settings.setLearning(true));
    ASSERT_TRUE(settings.overview()->memorySettings);
    EXPECT_TRUE(settings.overview()->memorySettings->review);
    await(settings.setModel(QStringLiteral("sonnet"), QStringLiteral("high")));
    ASSERT_TRUE(settings.me());
    EXPECT_EQ(settings.me()->model, "sonnet");

    await(settings.connectTelegram(QStringLiteral("not a token")));
    EXPECT_EQ(settings.error(), "That is not a bot token from @BotFather.");
    await(settings.deleteMemory(settings.overview()->memory[0].id));
    EXPECT_TRUE(settings.overview()->memory.empty());
    await(settings.deleteSchedule(schedule.id));
    EXPECT_TRUE(settings.overview()->schedules.empty());

    // Reports are taken, in their shape only; a minimum build reaches the update rules.
    int status = 0;
    call("POST", "/app/diagnostics", R"({"source":"zuv","kind":"crash","summary":"x","build":"1","os":"Debian 12"})", phone, &status);
    EXPECT_EQ(status, 200);
    EXPECT_EQ(call("POST", "/app/diagnostics", R"({"source":"zuv"})", phone, &status).value("error").toObject().value("code"),
              "BAD_REPORT");
    test::FakeUpdater updater;
    Updates updates(clock, api, updater, [] { return false; }, {}, QStringLiteral("7"));
    await(updates.checkMinimum());
    EXPECT_FALSE(updates.required());
    HubProcess::stop();
    extra = {"--min-build", "8", "--listen", "127.0.0.1:" + QString::number(HubProcess::url.port())}; // the app's address
    HubProcess::start();
    await(updates.checkMinimum());
    EXPECT_TRUE(updates.required()) << "build 7 is below the hub's 8";

    // Deleting the account signs everyone out.
    EXPECT_TRUE(await(settings.deleteAccount()));
    call("GET", "/app/conversations", {}, phone, &status);
    EXPECT_EQ(status, 401);
    model->stopChildren();
}

TEST_F(HubTool, sessionsRunClaudeCodeOnTheComputerAndAskBeforeEachTool)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    const auto [agentToken, phone] = pairByHand("Desk");
    ASSERT_FALSE(agentToken.isEmpty());
    keychain.setToken(agentToken); // the app's own calls, as a paired app makes them

    // A Git tree with one changed and one new file.
    const QString project = home.file("code/proj");
    QDir().mkpath(project);
    const auto git = [&](const QStringList &args) {
        return QProcess::execute("git", QStringList{"-C", project, "-c", "user.email=t@t", "-c", "user.name=t"} + args);
    };
    writeText(project + "/a.txt", "a\n");
    ASSERT_EQ(git({"init", "-q", "-b", "main"}), 0);
    git({"add", "."});
    git({"commit", "-qm", "first"});
    writeText(project + "/a.txt", "a\nb\n");
    writeText(project + "/new.txt", "new\n");

    AgentProcess agent(HubProcess::url, agentToken, home, QStringLiteral(ZUV_FAKES));
    ASSERT_TRUE(agent.said("hub connected")) << qPrintable(agent.lines.join('\n'));
    ASSERT_TRUE(waitUntil([&] {
        return call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("turns").toBool();
    }, 10000));
    chat->start();
    ASSERT_TRUE(waitUntil([&] { return chat->live(); }, 10000));
    const auto session = [&](const QString &id) -> std::optional<CcSession> {
        for (const CcSession &s : chat->sessions())
            if (s.id == id)
                return s;
        return std::nullopt;
    };
    const auto settled = [&](const QString &id) {
        waitUntil([&] { return session(id) && session(id)->status != "running"; }, 15000);
        return session(id).value_or(CcSession{});
    };

    // A new session runs in its folder and can be resumed.
    const auto id = await(chat->newSession(project, "hello there", "claude", "", "", std::nullopt));
    ASSERT_TRUE(id) << qPrintable(chat->error().value_or(""));
    CcSession done = settled(*id);
    EXPECT_EQ(done.status, "idle");
    EXPECT_EQ(done.lastReply, "Done: hello there");
    EXPECT_EQ(done.project, "proj");
    EXPECT_EQ(done.deviceName, "Desk");
    ASSERT_TRUE(done.usage);
    EXPECT_EQ(done.usage->input, 10);
    ASSERT_TRUE(done.resumeCommand);
    EXPECT_TRUE(done.resumeCommand->contains("claude --resume fake-")) << qPrintable(*done.resumeCommand);
    ASSERT_TRUE(await(chat->reply("and again", {}, *id)));
    EXPECT_TRUE(settled(*id).lastReply->startsWith("Done: and again (resumed fake-"));

    // A tool request waits for the person; allowed, the tool runs.
    ASSERT_TRUE(await(chat->reply("run: ls -la", {}, *id)));
    ASSERT_TRUE(waitUntil([&] { return !chat->permissions().empty(); }, 10000));
    const CcPermission asked = chat->permissions()[0];
    EXPECT_EQ(asked.sessionId, *id);
    EXPECT_EQ(asked.tool, "Bash");
    EXPECT_EQ(asked.summary, "Bash: ls -la");
    EXPECT_TRUE(asked.detail.contains("\"command\": \"ls -la\""));
    EXPECT_EQ(session(*id)->status, "running") << "it waits for the answer";
    await(chat->answer(asked.id, true));
    EXPECT_EQ(settled(*id).lastReply, "Ran ls -la in " + project);
    const ChatModel::Detail detail = await(chat->sessionDetail(*id));
    ASSERT_EQ(detail.kind, ChatModel::Detail::Kind::loaded);
    QStringList roles;
    for (const CcItem &item : detail.items)
        roles << item.role;
    EXPECT_EQ(roles.join(','), "user,assistant,user,assistant,user,tool,assistant");
    // Denied, it does not.
    ASSERT_TRUE(await(chat->reply("run: rm -rf ~", {}, *id)));
    ASSERT_TRUE(waitUntil([&] { return !chat->permissions().empty(); }, 10000));
    await(chat->answer(chat->permissions()[0].id, false));
    EXPECT_EQ(settled(*id).lastReply, "Not allowed: Denied from Zuv.");

    // The folder's state, and the folders to start in.
    const CcChanges changes = await(chat->changes(*id));
    EXPECT_TRUE(changes.git);
    EXPECT_EQ(changes.branch, "main");
    ASSERT_EQ(changes.files.size(), 2u);
    EXPECT_EQ(changes.files[0].path, "a.txt");
    EXPECT_EQ(changes.files[0].status, "M");
    EXPECT_EQ(changes.files[0].added, 1);
    EXPECT_TRUE(changes.files[0].diff.contains("+b"));
    EXPECT_EQ(changes.files[1].path, "new.txt");
    EXPECT_EQ(changes.files[1].status, "?");
    const auto projects = await(chat->projects(std::nullopt));
    ASSERT_FALSE(projects.empty());
    EXPECT_EQ(projects[0].cwd, project);

    // Continued in a terminal on the computer, in its folder, resuming it.
    EXPECT_EQ(await(chat->openInTerminal(*id)), "x-terminal-emulator");
    ASSERT_TRUE(waitUntil([&] { return QFileInfo::exists(home.file("terminal.txt")); }, 10000));
    const QStringList terminal = readText(home.file("terminal.txt")).split('\n');
    EXPECT_EQ(terminal.value(0), project);
    EXPECT_TRUE(terminal.join(' ').contains("claude --resume fake-")) << qPrintable(terminal.join(' '));
    EXPECT_EQ(session(*id)->terminal, true);

    // Codex too, resumed by its thread.
    const auto codex = await(chat->newSession(project, "tidy up", "codex", "", "", std::nullopt));
    ASSERT_TRUE(codex);
    EXPECT_EQ(settled(*codex).lastReply, "Codex did: tidy up");
    ASSERT_TRUE(await(chat->reply("more", {}, *codex)));
    EXPECT_TRUE(settled(*codex).lastReply->startsWith("Codex did: more (resumed thread-"));
    EXPECT_TRUE(session(*codex)->resumeCommand->contains("codex resume thread-"));
    await(chat->removeSession(*codex));

    // The chat's turns run as sessions too: they ask before tools, and the
    // conversation's next turn resumes where the last ended.
    const auto chatReply = [&](const QString &text) {
        call("POST", "/app/send", QJsonDocument(QJsonObject{{"text", text}, {"conversation", "cchat"}}).toJson(), phone);
        waitUntil([&] {
            const QJsonArray entries = call("GET", "/app/history?conversation=cchat", {}, phone).value("entries").toArray();
            return entries.last().toObject().value("role") == "assistant" || !chat->permissions().empty();
        }, 15000);
        return call("GET", "/app/history?conversation=cchat", {}, phone).value("entries").toArray().last().toObject().value("text").toString();
    };
    chatReply("run: whoami");
    ASSERT_EQ(chat->permissions().size(), 1u);
    EXPECT_EQ(chat->permissions()[0].project, "Chat");
    await(chat->answer(chat->permissions()[0].id, true));
    ASSERT_TRUE(waitUntil([&] {
        return call("GET", "/app/history?conversation=cchat", {}, phone).value("entries").toArray().last().toObject().value("role") == "assistant";
    }, 10000));
    EXPECT_EQ(call("GET", "/app/history?conversation=cchat", {}, phone).value("entries").toArray().last().toObject().value("text"),
              "Ran whoami in " + home.path());
    EXPECT_TRUE(chatReply("and now?").startsWith("Done: and now? (resumed fake-"));

    // A hanging turn is stopped; a busy session takes no reply; garbage fails the turn.
    ASSERT_TRUE(await(chat->reply("please hang", {}, *id)));
    ASSERT_TRUE(waitUntil([&] { return agent.lines.join('\n').count("session claude started") == 7; }, 10000));
    int status = 0;
    call("POST", "/app/cc/reply", QJsonDocument(QJsonObject{{"id", *id}, {"text", "more"}}).toJson(), phone, &status);
    EXPECT_EQ(status, 409);
    chat->stopSession(*id);
    EXPECT_EQ(settled(*id).lastReply, "Stopped.");
    ASSERT_TRUE(await(chat->reply("print garbage", {}, *id)));
    done = settled(*id);
    EXPECT_EQ(done.status, "failed");
    EXPECT_EQ(done.lastReply, "Claude Code ended without an answer (exit 0).");

    // Bad requests get the documented error shape.
    const QJsonObject relative = call("POST", "/app/cc/new", R"({"cwd":"code","prompt":"x"})", phone, &status);
    EXPECT_EQ(status, 400);
    EXPECT_EQ(relative.value("error").toObject().value("code"), "BAD_CWD");
    call("GET", "/app/cc/session?id=nope", {}, phone, &status);
    EXPECT_EQ(status, 404);
    const auto missing = await(chat->newSession(home.file("nowhere"), "x", "claude", "", "", std::nullopt));
    ASSERT_TRUE(missing);
    EXPECT_EQ(settled(*missing).lastReply, "There is no folder " + home.file("nowhere") + " on this computer.");

    // The agent goes while a question is open: the question expires, and the
    // sessions it ran are failed when a new agent says what it runs.
    ASSERT_TRUE(await(chat->reply("run: make", {}, *id)));
    ASSERT_TRUE(waitUntil([&] { return !chat->permissions().empty(); }, 10000));
    agent.process.kill();
    ASSERT_TRUE(waitUntil([&] { return chat->permissions().empty(); }, 10000)) << "an expired request is no longer pending";
    AgentProcess again(HubProcess::url, agentToken, home, QStringLiteral(ZUV_FAKES));
    ASSERT_TRUE(again.said("hub connected"));
    EXPECT_EQ(settled(*id).lastReply, "The computer's agent restarted and lost this turn.");

    // Removed, it is gone with its transcript.
    ASSERT_TRUE(await(chat->removeSession(*id)));
    EXPECT_FALSE(session(*id));
    call("GET", "/app/cc/session?id=" + *id, {}, phone, &status);
    EXPECT_EQ(status, 404);
}

TEST_F(HubTool, thePhoneSeesTheScreenThroughTheAgentAndTheScreenHelper)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    const auto [agentToken, phone] = pairByHand("Desk");
    AgentProcess agent(HubProcess::url, agentToken, home, home.file("tools"));
    ASSERT_TRUE(agent.said("hub connected"));

    // No helper yet: the phone hears why, and the agent carries on.
    int status = 0;
    QJsonObject answer = call("GET", "/app/screen", {}, phone, &status);
    EXPECT_EQ(status, 502);
    EXPECT_EQ(answer.value("error").toObject().value("message"), "The screen helper is not running.");

    // The real helper on the tests' X display.
    QDir().mkpath(home.file("screen"));
    QProcess helper;
    helper.start(QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv/zuv-screen", {"--socket", home.file("screen/screen.sock")});
    ASSERT_TRUE(waitUntil([&] { return QFileInfo::exists(home.file("screen/screen.sock")); }, 10000));
    answer = call("GET", "/app/screen", {}, phone, &status);
    ASSERT_EQ(status, 200) << qPrintable(QJsonDocument(answer).toJson());
    const QJsonObject picture = answer.value("result").toObject();
    const QImage image = QImage::fromData(QByteArray::fromBase64(picture.value("data").toString().toLatin1()), "PNG");
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.width(), picture.value("width").toInt());
    EXPECT_GT(image.width(), 0);
    EXPECT_TRUE(QDir(home.file("screen/captures")).isEmpty()) << "the agent removed the file it sent";
    EXPECT_TRUE(agent.process.state() == QProcess::Running);
    helper.terminate();
    helper.waitForFinished(5000);

    // A helper that never answers, and the agent going away meanwhile: the phone
    // hears at once that the computer went offline.
    QLocalServer silent;
    QLocalServer::removeServer(home.file("screen/screen.sock"));
    ASSERT_TRUE(silent.listen(home.file("screen/screen.sock")));
    QNetworkRequest request(QUrl(HubProcess::url.toString() + "/app/screen"));
    request.setRawHeader("authorization", "Bearer " + phone.toUtf8());
    QNetworkReply *pending = network.get(request);
    ASSERT_TRUE(waitUntil([&] { return silent.hasPendingConnections(); }, 10000)) << "the agent asked the helper";
    agent.process.kill();
    ASSERT_TRUE(waitUntil([&] { return pending->isFinished(); }, 10000));
    EXPECT_EQ(pending->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 503);
    pending->deleteLater();
}

TEST_F(HubTool, aClipboardSentFromThisComputerLandsOnTheOtherComputersAgent)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    // Two computers of one account: this one (the app's own calls), and a laptop
    // whose real agent runs here with a home of its own.
    const QString desk = pairByHand("Desk").first;
    const QString laptopToken = pairByHand("Laptop").first;
    ASSERT_FALSE(desk.isEmpty());
    ASSERT_FALSE(laptopToken.isEmpty());
    keychain.setToken(desk);

    TempHome laptopHome;
    AgentProcess laptop(HubProcess::url, laptopToken, laptopHome, laptopHome.file("tools"));
    ASSERT_TRUE(laptop.said("hub connected"));
    // The laptop's app: what the agent asks to put on its clipboard is answered as done.
    QStringList put;
    QObject::connect(&laptop.process, &QProcess::readyReadStandardOutput, [&] {
        for (const QString &line : laptop.lines)
            if (const qsizetype at = line.indexOf("clipboard-ask {"); at >= 0) {
                const QJsonObject ask = QJsonDocument::fromJson(line.mid(at + 14).toUtf8()).object();
                const QString key = QString::number(ask.value("id").toInt());
                if (put.contains(key))
                    continue;
                put << key << readText(ask.value("path").toString());
                laptop.process.write(QJsonDocument(QJsonObject{{"clipboard", ask.value("id")}, {"result", QJsonObject{{"ok", true}}}})
                                         .toJson(QJsonDocument::Compact) + "\n");
            }
    });

    test::FakePasteboard pasteboard;
    ClipboardShare share(clock, defaults, api, pasteboard, nullptr, [] { return true; });
    QStringList toasts;
    share.toast = [&](const QString &text, const QString &, bool) { toasts << text; };
    await(share.refresh());
    ASSERT_EQ(share.macs().size(), 1u);
    EXPECT_EQ(share.macs()[0].name, "Laptop");
    EXPECT_EQ(share.thisName(), "Desk");

    pasteboard.copy({{PasteboardContent{"text/plain;charset=utf-8", "from the desk"}}});
    await(share.sendToTarget());
    EXPECT_EQ(toasts.last(), "Text sent to Laptop");
    EXPECT_TRUE(put.contains("from the desk")) << qPrintable(laptop.lines.join('\n'));
    EXPECT_TRUE(laptop.lines.join('\n').contains(R"(clipboard-received {"from":"Desk","kind":"text"})"));

    // A file is uploaded, and saved in the laptop's Downloads folder.
    writeText(home.file("report.txt"), "numbers");
    pasteboard.copy({{}, {PasteboardContent{"text/uri-list", QUrl::fromLocalFile(home.file("report.txt")).toEncoded()}}});
    await(share.sendToTarget());
    EXPECT_EQ(toasts.last(), "report.txt sent to Laptop");
    EXPECT_EQ(readText(laptopHome.file("Downloads/report.txt")), "numbers");

    // The laptop goes offline: the hub's 409 in the person's words.
    laptop.process.kill();
    laptop.process.waitForFinished(5000);
    pasteboard.copy({{PasteboardContent{"text/plain;charset=utf-8", "again"}}});
    // The hub notices the closed socket a moment later; until then it may still relay.
    ASSERT_TRUE(waitUntil([&] {
        await(share.send(share.macs()[0]));
        return toasts.last() == "Laptop is offline";
    }, 10000)) << qPrintable(toasts.last());
}

TEST_F(HubTool, aComputerTakenOffTheAccountAndAPhoneSigningOutLoseTheirTokens)
{
    ASSERT_TRUE(HubProcess::url.isValid());
    const auto [agentToken, phone] = pairByHand("Desk");
    QWebSocket agent;
    QNetworkRequest request(QUrl(HubProcess::url.toString().replace("http://", "ws://") + "/agent/ws"));
    request.setRawHeader("authorization", "Bearer " + agentToken.toUtf8());
    agent.open(request);
    ASSERT_TRUE(waitUntil([&] { return agent.state() == QAbstractSocket::ConnectedState; }, 10000));
    const QString device = call("GET", "/app/me", {}, phone).value("macs").toArray().at(0).toObject().value("id").toString();
    int status = 0;
    call("POST", "/agent/app-token", {}, agentToken, &status);
    EXPECT_EQ(status, 200);

    // Removed from the phone: its link ends with 4401 and its token is good for nothing.
    call("DELETE", "/app/devices/" + device, {}, phone, &status);
    EXPECT_EQ(status, 200);
    ASSERT_TRUE(waitUntil([&] { return agent.closeCode() == QWebSocketProtocol::CloseCode(4401); }, 10000));
    call("POST", "/agent/app-token", {}, agentToken, &status);
    EXPECT_EQ(status, 401);
    call("DELETE", "/app/devices/" + device, {}, phone, &status);
    EXPECT_EQ(status, 404);
    EXPECT_TRUE(call("GET", "/app/me", {}, phone).value("macs").toArray().isEmpty());

    // The phone signs out: its token goes.
    call("POST", "/app/phone/forget", {}, phone, &status);
    EXPECT_EQ(status, 200);
    call("GET", "/app/conversations", {}, phone, &status);
    EXPECT_EQ(status, 401);
}

// The stay-awake permission against a stand-in polkit, and the real agent taking
// and giving back logind's inhibitors through systemd-inhibit, with dbusmock's
// logind on a private system bus.
#include "awake/StayAwake.h"
#include "link/AppModel.h"
#include "platform/linux/PolkitPower.h"

#include "Fixture.h"
#include "PrivateSystemBus.h"

#include <gtest/gtest.h>

#include <QDBusArgument>
#include <QJsonDocument>
#include <QProcess>

#include <csignal>

using namespace zuv;
using namespace zuv::test;

namespace {

const QString polkit = QStringLiteral("org.freedesktop.PolicyKit1");
const QString authority = QStringLiteral("/org/freedesktop/PolicyKit1/Authority");
const QString authorityInterface = QStringLiteral("org.freedesktop.PolicyKit1.Authority");
const QString logind = QStringLiteral("org.freedesktop.login1");
const QString logindPath = QStringLiteral("/org/freedesktop/login1");

struct Inhibitor {
    QString what, who, why, mode;
};

std::vector<Inhibitor> inhibitors(PrivateSystemBus &bus)
{
    const QDBusMessage reply = bus.call(logind, logindPath, logind + ".Manager", "ListInhibitors");
    std::vector<Inhibitor> out;
    if (reply.type() != QDBusMessage::ReplyMessage)
        return out;
    const QDBusArgument list = reply.arguments().at(0).value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        Inhibitor i;
        quint32 uid = 0, pid = 0;
        list.beginStructure();
        list >> i.what >> i.who >> i.why >> i.mode >> uid >> pid;
        list.endStructure();
        out.push_back(i);
    }
    list.endArray();
    return out;
}

// polkit answers each action by `code`, python over `args` (subject, action, details, flags, id).
bool polkitAnswers(PrivateSystemBus &bus, const QString &code)
{
    return bus.addMethod(polkit, authority, authorityInterface, "CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})",
                         code);
}

} // namespace

TEST(PolkitPower, eachAnswerOfPolkitAndLogindGivesItsState)
{
    PrivateSystemBus bus;
    ASSERT_TRUE(bus.up());
    PolkitPower power(bus.bus());

    // Neither logind nor polkit: nobody can hold an inhibitor.
    EXPECT_EQ(await(power.check(false)), PowerService::Status::notFound);
    EXPECT_EQ(power.problem(), "logind isn't running on this system");

    ASSERT_TRUE(bus.mock({"--template", "logind"}, logind));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::notFound);
    EXPECT_EQ(power.problem(), "polkit isn't running on this system");

    ASSERT_TRUE(bus.mock({polkit, authority, authorityInterface}, polkit));
    ASSERT_TRUE(polkitAnswers(bus, "ret = (True, False, {})"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::enabled);

    // The lid switch alone would ask: approval is wanted.
    ASSERT_TRUE(polkitAnswers(bus, "ret = (args[1] != 'org.freedesktop.login1.inhibit-handle-lid-switch', "
                                   "args[1] == 'org.freedesktop.login1.inhibit-handle-lid-switch', {})"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::requiresApproval);

    // Asked with interaction allowed, the person said yes.
    ASSERT_TRUE(polkitAnswers(bus, "ret = (args[3] == 1, args[3] == 0, {})"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::requiresApproval);
    EXPECT_EQ(await(power.check(true)), PowerService::Status::enabled);

    // Refused outright, refused with an error, or answered in a wrong shape.
    ASSERT_TRUE(polkitAnswers(bus, "ret = (False, False, {})"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::notRegistered);
    ASSERT_TRUE(polkitAnswers(bus, "raise dbus.exceptions.DBusException('no', name='org.freedesktop.PolicyKit1.Error.Failed')"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::notRegistered);
    EXPECT_EQ(power.problem(), "no");
    ASSERT_TRUE(bus.addMethod(polkit, authority, authorityInterface, "CheckAuthorization", "(sa{sv})sa{ss}us", "s",
                              "ret = 'yes'"));
    EXPECT_EQ(await(power.check(false)), PowerService::Status::notRegistered);

    // What was asked: this process, for each of the three actions.
    const QDBusMessage calls = bus.call(polkit, authority, "org.freedesktop.DBus.Mock", "GetMethodCalls", {"CheckAuthorization"});
    ASSERT_EQ(calls.type(), QDBusMessage::ReplyMessage) << qPrintable(calls.errorMessage());
    QStringList actions;
    const QDBusArgument list = calls.arguments().at(0).value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        quint64 when = 0;
        QVariantList args;
        list.beginStructure();
        list >> when >> args;
        list.endStructure();
        if (args.size() == 5)
            actions << args[1].toString();
    }
    list.endArray();
    actions.removeDuplicates();
    actions.sort();
    EXPECT_EQ(actions, QStringList({"org.freedesktop.login1.inhibit-block-idle", "org.freedesktop.login1.inhibit-block-sleep",
                                    "org.freedesktop.login1.inhibit-handle-lid-switch"}));
}

namespace {

// The real agent under a paired AppModel, with the awake session wired as in the app.
struct AgentPower : ::testing::Test, HubFixture {
    PrivateSystemBus bus;
    std::unique_ptr<AppModel> model;
    std::unique_ptr<StayAwake> awake;
    class Allowed final : public PowerService {
    public:
        Status answer = Status::enabled;
        QCoro::Task<Status> check(bool) override { co_return answer; }
        QString problem() const override { return {}; }
    } power;

    AgentPower()
    {
        keychain.setToken(QStringLiteral("agent-token"));
        model = makeModel(AppModel::Locations{QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv",
                                              QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent", home.file("data"),
                                              home.file("logs")});
        awake = std::make_unique<StayAwake>(clock, power, home.file("data/awake-helper.json"),
                                            [this](const QString &line) { return model->agent().send(line); });
        AppModel::Hooks hooks;
        hooks.stayAwake = [this](const QJsonObject &payload) { awake->handleLine(payload); };
        model->setHooks(hooks);
        QObject::connect(model.get(), &AppModel::agentStarted, awake.get(), [this] { awake->agentStarted(); });
        QObject::connect(model.get(), &AppModel::agentEnded, awake.get(), [this] { awake->agentEnded(); });
    }
    ~AgentPower() override
    {
        model->stopChildren();
    }
    QString agentLog() { return readText(home.file("logs/agent.log")); }
    bool held(const QString &what)
    {
        return waitUntil([&] {
            const auto list = inhibitors(bus);
            return list.size() == 1 && list[0].what == what && list[0].who == "Zuv" && list[0].mode == "block";
        }, 10000);
    }
    bool released() { return waitUntil([&] { return inhibitors(bus).empty(); }, 10000); }
};

} // namespace

TEST_F(AgentPower, keepAwakeHoldsLogindsInhibitorUntilSleepIsAllowedOrTheTimeIsUp)
{
    ASSERT_TRUE(bus.mock({"--template", "logind"}, logind));
    model->startChildren();
    ASSERT_TRUE(waitUntil([&] { return model->agentState() == Child::State::running; }, 20000)) << qPrintable(agentLog());
    ASSERT_TRUE(waitUntil([&] { return agentLog().contains("stay-awake {"); }, 10000)) << "the start asks for the state";

    awake->keepAwake(0);
    ASSERT_TRUE(waitUntil([&] { return awake->session().active; }, 10000)) << qPrintable(agentLog());
    EXPECT_TRUE(held("sleep:idle"));
    EXPECT_EQ(awake->summary(QDateTime::currentDateTime()), "Staying awake until you stop it");
    EXPECT_EQ(awake->session().lid, "sleeps");
    awake->allowSleep();
    ASSERT_TRUE(waitUntil([&] { return !awake->session().active; }, 10000));
    EXPECT_TRUE(released());

    // With the closed-lid permission written for the agent, the lid switch is held too.
    awake->refresh();
    ASSERT_TRUE(waitUntil([&] { return awake->written() == StayAwake::Status::enabled; }));
    const double asked = double(QDateTime::currentMSecsSinceEpoch());
    awake->keepAwake(30);
    ASSERT_TRUE(waitUntil([&] { return awake->session().active; }, 10000));
    EXPECT_TRUE(held("sleep:idle:handle-lid-switch"));
    EXPECT_EQ(awake->session().lid, "allowed");
    ASSERT_TRUE(awake->session().endsAt);
    EXPECT_NEAR(*awake->session().endsAt, asked + 30 * 60000, 10000);
    awake->keepAwake(0); // the same hold, now without an end
    ASSERT_TRUE(waitUntil([&] { return !awake->session().endsAt; }, 10000));
    EXPECT_TRUE(held("sleep:idle:handle-lid-switch"));
    awake->allowSleep();
    ASSERT_TRUE(waitUntil([&] { return !awake->session().active; }, 10000));
    EXPECT_TRUE(released());

    // Out of range: refused in words, nothing held.
    model->agent().send(R"({"power":"keepAwake","minutes":-5,"display":true})");
    ASSERT_TRUE(waitUntil([&] { return awake->lastError().has_value(); }, 10000));
    EXPECT_EQ(awake->lastError(), "The length asked for is out of range.");
    model->agent().send(R"({"power":"keepAwake","minutes":"soon","display":true})");
    model->agent().send(R"({"power":"keepAwake","minutes":1e12,"display":true})");
    awake->askAgent();
    drain();
    EXPECT_FALSE(awake->session().active);
    EXPECT_TRUE(inhibitors(bus).empty());

    // The agent dies while holding: the hold goes with it, and the app stops believing.
    awake->keepAwake(0);
    ASSERT_TRUE(waitUntil([&] { return awake->session().active; }, 10000));
    ASSERT_TRUE(held("sleep:idle:handle-lid-switch"));
    ::kill(pid_t(model->agent().process()->processId()), SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return !awake->session().active; }, 10000));
    EXPECT_TRUE(released()) << "logind lets go of a closed descriptor";
}

TEST_F(AgentPower, aRefusalOfLogindReachesTheLastError)
{
    ASSERT_TRUE(bus.mock({"--template", "logind"}, logind));
    ASSERT_TRUE(bus.addMethod(logind, logindPath, logind + ".Manager", "Inhibit", "ssss", "h",
                              "raise dbus.exceptions.DBusException('Access denied', "
                              "name='org.freedesktop.DBus.Error.AccessDenied')"));
    model->startChildren();
    ASSERT_TRUE(waitUntil([&] { return model->agentState() == Child::State::running; }, 20000));
    awake->keepAwake(30);
    ASSERT_TRUE(waitUntil([&] { return awake->lastError().has_value(); }, 10000)) << qPrintable(agentLog());
    EXPECT_EQ(awake->lastError(), "logind refused to keep this computer awake.");
    EXPECT_FALSE(awake->session().active);
    EXPECT_FALSE(agentLog().contains("Access denied")) << "the tool's own words stay out of the lines";
}

TEST(AgentPowerAlone, aTimedHoldEndsOnItsOwnAndSaysSo)
{
    PrivateSystemBus bus;
    ASSERT_TRUE(bus.mock({"--template", "logind"}, logind));
    TempHome home;
    TestHub hub;
    QProcess agent;
    QProcessEnvironment env;
    env.insert("PATH", qEnvironmentVariable("PATH"));
    env.insert("HOME", home.path());
    env.insert("ZUV_HUB_URL", "ws://127.0.0.1:" + QString::number(hub.port()) + "/agent/ws");
    env.insert("ZUV_AGENT_TOKEN", "t");
    env.insert("ZUV_WORK_DIR", home.file("work"));
    env.insert("ZUV_AWAKE_STATUS", home.file("missing.json"));
    env.insert("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
    env.insert("ZUV_AWAKE_MINUTE_MS", "300"); // a minute lasts 0.3 s here
    agent.setProcessEnvironment(env);
    agent.start("node", {QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent/src/main.mjs"});
    ASSERT_TRUE(agent.waitForStarted(5000));
    QStringList lines;
    QObject::connect(&agent, &QProcess::readyReadStandardOutput, [&] {
        while (agent.canReadLine())
            lines << QString::fromUtf8(agent.readLine()).trimmed();
    });
    const auto said = [&](const QString &text) {
        return waitUntil([&] { return lines.join('\n').contains(text); }, 10000);
    };
    agent.write("{\"power\":\"keepAwake\",\"minutes\":2,\"display\":true}\n");
    ASSERT_TRUE(said("stay-awake {\"active\":true")) << qPrintable(lines.join('\n'));
    EXPECT_TRUE(said("\"lid\":\"sleeps\"")) << "no permission file: the lid is not held";
    EXPECT_EQ(inhibitors(bus).size(), 1u);
    ASSERT_TRUE(said("stay-awake {\"active\":false")) << "two minutes of 0.3 s are up";
    EXPECT_TRUE(waitUntil([&] { return inhibitors(bus).empty(); }, 10000));
    agent.closeWriteChannel();
    EXPECT_TRUE(agent.waitForFinished(10000));
}

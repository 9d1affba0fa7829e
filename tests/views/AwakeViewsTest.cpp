// The stay-awake controls in the tray menu and in the settings, on real widgets.
#include "app/views/Tray.h"
#include "awake/StayAwake.h"
#include "awake/views/StayAwakeViews.h"
#include "base/Clock.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>

using namespace zuv;
using namespace zuv::test;

namespace {

class Power final : public PowerService {
public:
    Status answer = Status::notRegistered;
    QCoro::Task<Status> check(bool) override { co_return answer; }
    QString problem() const override { return {}; }
};

QStringList texts(QMenu *menu)
{
    QStringList out;
    for (QAction *a : menu->actions())
        out << (a->isSeparator() ? QStringLiteral("—") : a->text());
    return out;
}

QAction *find(QMenu *menu, const QString &text)
{
    for (QAction *a : menu->actions())
        if (a->text() == text)
            return a;
    return nullptr;
}

struct AwakeViews : ::testing::Test {
    TempHome home;
    TestClock clock{1.7e9};
    Power power;
    QStringList sent;
    StayAwake awake{clock, power, home.file("awake-helper.json"), [this](const QString &line) {
                        sent << line;
                        return true;
                    }};
    void session(const QJsonObject &line) { awake.handleLine(line); }
};

} // namespace

TEST_F(AwakeViews, theTrayOffersLengthsThenTheRunningSessionWithExtendAndAllowSleep)
{
    MenuContent::State state;
    state.paired = true;
    Tray tray([&] { return state; });
    tray.fillStayAwake = [this](QMenu *menu) { StayAwakeMenu::fill(menu, awake, clock); };
    tray.rebuild();
    QAction *keep = find(tray.menu(), "Keep Awake");
    ASSERT_TRUE(keep && keep->menu());
    EXPECT_EQ(texts(keep->menu()), QStringList({"For 30 Minutes", "For 1 Hour", "For 2 Hours", "For 3 Hours", "For 5 Hours",
                                                "For 8 Hours", "For 12 Hours", "—", "Until I Stop"}));
    find(keep->menu(), "For 2 Hours")->trigger();
    find(keep->menu(), "Until I Stop")->trigger();
    EXPECT_EQ(sent, QStringList({R"({"power":"keepAwake","minutes":120,"display":true})",
                                 R"({"power":"keepAwake","minutes":0,"display":true})"}));

    // Running with an end: the summary, "Extend" from what is left, "Allow Sleep".
    session({{"active", true}, {"endsAt", (clock.now() + 45 * 60) * 1000}});
    tray.rebuild();
    EXPECT_EQ(find(tray.menu(), "Keep Awake"), nullptr);
    QAction *extend = find(tray.menu(), "Extend");
    ASSERT_TRUE(extend && extend->menu());
    EXPECT_EQ(texts(extend->menu()).size(), 10);
    sent.clear();
    find(extend->menu(), "1 More Hour")->trigger();
    EXPECT_EQ(sent, QStringList{R"({"power":"keepAwake","minutes":105,"display":true})"});
    bool summary = false;
    for (QAction *a : tray.menu()->actions())
        summary = summary || (a->text().startsWith("Staying awake until ") && !a->isEnabled());
    EXPECT_TRUE(summary);
    find(tray.menu(), "Allow Sleep")->trigger();
    EXPECT_EQ(sent.last(), R"({"power":"allowSleep"})");

    // Until stopped: no "Extend".
    session({{"active", true}});
    tray.rebuild();
    EXPECT_EQ(find(tray.menu(), "Extend"), nullptr);
    EXPECT_NE(find(tray.menu(), "Staying awake until you stop it"), nullptr);
}

TEST_F(AwakeViews, theSectionShowsTheStateThePermissionAndTheError)
{
    StayAwakeSection section(awake, clock);
    EXPECT_TRUE(section.stateLine()->text().endsWith("Sleeps normally"));
    EXPECT_FALSE(section.keepAwake()->isHidden());
    EXPECT_TRUE(section.allowSleep()->isHidden());
    EXPECT_TRUE(section.helperLine()->text().startsWith("Without this, closing the lid still puts the computer to sleep."));
    EXPECT_FALSE(section.allowLid()->isHidden());

    power.answer = StayAwake::Status::enabled;
    section.allowLid()->click();
    ASSERT_TRUE(waitUntil([&] { return awake.helper() == StayAwake::Status::enabled; }));
    EXPECT_TRUE(section.helperLine()->text().endsWith("Zuv can keep this computer awake with the lid closed."));
    EXPECT_TRUE(section.allowLid()->isHidden());

    session({{"active", true}, {"endsAt", (clock.now() + 600) * 1000}, {"error", "The hold on sleep ended unexpectedly."}});
    EXPECT_TRUE(section.stateLine()->text().contains("0:10:00 left")) << qPrintable(section.stateLine()->text());
    EXPECT_FALSE(section.extend()->isHidden());
    EXPECT_FALSE(section.allowSleep()->isHidden());
    EXPECT_EQ(section.findChild<QLabel *>("awakeError")->text(), "The hold on sleep ended unexpectedly.");

    power.answer = StayAwake::Status::requiresApproval;
    awake.refresh();
    ASSERT_TRUE(waitUntil([&] { return awake.helper() == StayAwake::Status::requiresApproval; }));
    EXPECT_TRUE(section.helperLine()->text().startsWith("Almost there"));
}

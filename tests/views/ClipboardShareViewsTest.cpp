// The tray's entries for sending the clipboard, and the toast, on the offscreen platform.
#include "clipboard/ClipboardShare.h"
#include "clipboard/views/ClipboardShareViews.h"

#include "FakePasteboard.h"
#include "Fixture.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QJsonArray>
#include <QMenu>
#include <QScreen>

using namespace zuv;
using namespace zuv::test;

namespace {

struct ShareViews : HubFixture, ::testing::Test {
    FakePasteboard pasteboard;
    ClipboardShare share{clock, defaults, api, pasteboard, nullptr, [] { return true; }};

    ShareViews()
    {
        keychain.setToken(QStringLiteral("agent"));
        hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"accessToken", "a"}, {"expiresAt", 4e12}, {"device", "me"}}));
    }
    void computers(const QJsonArray &macs)
    {
        hub.on("GET", "/app/me", TestHub::json(QJsonObject{{"user", QJsonObject{{"id", "u"}}}, {"owner", true}, {"macs", macs}}));
        await(share.refresh());
    }
    static QStringList lines(QMenu &menu)
    {
        QStringList out;
        for (QAction *a : menu.actions())
            out << (a->menu() ? a->text() + " ▸ " + [&] {
                QStringList inner;
                for (QAction *b : a->menu()->actions())
                    inner << b->text();
                return inner.join(" | ");
            }()
                              : a->text());
        return out;
    }
};

} // namespace

TEST_F(ShareViews, theMenuShowsNothingOneButtonOrASubmenuWithTheOfflineOnesMarked)
{
    QMenu menu;
    computers({QJsonObject{{"id", "me"}, {"name", "Desk"}, {"online", true}}});
    ClipboardShareMenu::fill(&menu, share);
    EXPECT_TRUE(menu.actions().isEmpty()) << "no other computer: nothing";

    computers({QJsonObject{{"id", "lap"}, {"name", "Laptop"}, {"online", true}}});
    ClipboardShareMenu::fill(&menu, share);
    EXPECT_EQ(lines(menu), QStringList({"Send Clipboard to Laptop"}));

    menu.clear();
    computers({QJsonObject{{"id", "lap"}, {"name", "Laptop"}, {"online", true}},
               QJsonObject{{"id", "tow"}, {"name", "Tower"}, {"online", false}}});
    ClipboardShareMenu::fill(&menu, share);
    EXPECT_EQ(lines(menu), QStringList({"Send Clipboard To ▸ Laptop | Tower (offline)"}));
}

TEST(ToastPanel, aLaterToastReplacesTheTextAndSitsAboveTheScreensBottom)
{
    ToastPanel toast;
    toast.show("Sending to Laptop…", "go-up", true);
    EXPECT_TRUE(toast.isVisible());
    toast.show("Text sent to Laptop", "emblem-ok", false);
    EXPECT_EQ(toast.text(), "Text sent to Laptop");
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(toast.geometry().bottom(), area.bottom() - ToastPanel::aboveBottom);
    EXPECT_NEAR(toast.geometry().center().x(), area.center().x(), 1);
    EXPECT_FALSE(toast.isActiveWindow()) << "it never takes the focus";
}

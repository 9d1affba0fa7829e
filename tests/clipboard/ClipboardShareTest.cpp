// Sending this computer's clipboard to another one of the account, against the
// test hub: what is read and in which order, the limits, the uploads, the hub's
// refusals in the person's words, and the target that is remembered.
#include "clipboard/ClipboardShare.h"

#include "base/Error.h"

#include "FakePasteboard.h"
#include "Fixture.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QUrl>

using namespace zuv;
using namespace zuv::test;

namespace {

struct ClipboardShareTest : ::testing::Test, HubFixture {
    FakePasteboard pasteboard;
    bool paired = true;
    ClipboardShare share{clock, defaults, api, pasteboard, nullptr, [this] { return paired; }};
    std::vector<std::pair<QString, bool>> toasts; // text, sticky
    std::vector<QJsonObject> posted;
    std::vector<QString> uploaded; // names
    int status = 200;
    QByteArray failure;

    ClipboardShareTest()
    {
        keychain.setToken(QStringLiteral("agent"));
        hub.on("POST", "/agent/app-token", TestHub::json(QJsonObject{{"accessToken", "a"}, {"expiresAt", 4e12}, {"device", "me"}}));
        hub.on("GET", "/app/me", TestHub::json(QJsonObject{
            {"user", QJsonObject{{"id", "u"}}},
            {"owner", true},
            {"macs", QJsonArray{QJsonObject{{"id", "me"}, {"name", "Desk"}, {"online", true}},
                                QJsonObject{{"id", "old"}, {"name", "Old Box"}, {"online", false}, {"builtIn", true}},
                                QJsonObject{{"id", "lap"}, {"name", "Laptop"}, {"online", false}},
                                QJsonObject{{"id", "tower"}, {"name", "Tower"}, {"online", true}}}}}));
        hub.on("PUT", "/app/media", [this](const TestHub::Request &r) {
            uploaded.push_back(QUrl::fromPercentEncoding(r.query("name").toUtf8()));
            return TestHub::json(QJsonObject{{"key", QStringLiteral("k%1").arg(uploaded.size())}, {"name", r.query("name")}, {"mime", "x"}});
        });
        hub.on("POST", "/app/mac/clipboard", [this](const TestHub::Request &r) {
            posted.push_back(r.json().toObject());
            if (status != 200)
                return TestHub::Response{status, failure.isEmpty() ? QByteArray("{}") : failure};
            return TestHub::json(QJsonObject{});
        });
        share.toast = [this](const QString &text, const QString &, bool sticky) { toasts.emplace_back(text, sticky); };
    }

    QString lastToast() const { return toasts.empty() ? QString() : toasts.back().first; }
    void copyText(const QString &text) { pasteboard.copy({{PasteboardContent{"text/plain;charset=utf-8", text.toUtf8()}}}); }
    void copyFiles(const QStringList &paths)
    {
        std::vector<Pasteboard::Item> items(1);
        for (const QString &p : paths)
            items.push_back({PasteboardContent{"text/uri-list", QUrl::fromLocalFile(p).toEncoded()}});
        pasteboard.copy(items);
    }
};

} // namespace

TEST_F(ClipboardShareTest, theListSkipsThisComputerAndOfflineBuiltInsAndTheTargetFallsBack)
{
    await(share.refresh());
    ASSERT_EQ(share.macs().size(), 2u);
    EXPECT_EQ(share.macs()[0].name, "Laptop");
    EXPECT_EQ(share.macs()[1].name, "Tower");
    EXPECT_EQ(share.thisName(), "Desk");
    EXPECT_EQ(share.defaultTarget()->name, "Tower") << "the first one online";
    share.setTarget("lap");
    EXPECT_EQ(share.defaultTarget()->name, "Laptop");
    share.setTarget("gone");
    EXPECT_EQ(share.defaultTarget()->name, "Tower") << "a computer no longer on the account";

    // Unpaired, or a failing hub: nothing changes.
    hub.on("GET", "/app/me", TestHub::error(500));
    await(share.refresh());
    EXPECT_EQ(share.macs().size(), 2u);
    paired = false;
    hub.clear();
    await(share.refresh());
    EXPECT_TRUE(hub.requests().empty());
}

TEST_F(ClipboardShareTest, textFilesAndPicturesGoInTheirOwnWayWithinTheLimits)
{
    await(share.refresh());
    const Me::Mac tower = *share.defaultTarget();

    // A text of exactly the limit goes in the request, without a progress toast.
    copyText(QString(ClipboardShare::longestText, 'x'));
    await(share.send(tower));
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].value("device"), "tower");
    EXPECT_EQ(posted[0].value("from"), "Desk");
    EXPECT_EQ(posted[0].value("text").toString().size(), ClipboardShare::longestText);
    EXPECT_EQ(lastToast(), "Text sent to Tower");
    EXPECT_EQ(toasts.size(), 1u);
    EXPECT_EQ(defaults.string("clipboard-target").valueOr(""), "tower") << "a send remembers its target";
    copyText(QString(ClipboardShare::longestText + 1, 'x'));
    await(share.send(tower));
    EXPECT_EQ(lastToast(), "The text is too long (100,000 characters at most).");
    EXPECT_EQ(posted.size(), 1u);

    // A picture and text: the picture, uploaded, with a sticky toast on the way.
    pasteboard.copy({{PasteboardContent{"image/jpeg", picture(4, 4, "JPEG")}, PasteboardContent{"text/plain;charset=utf-8", "caption"}}});
    toasts.clear();
    await(share.send(tower));
    ASSERT_EQ(posted.size(), 2u);
    EXPECT_TRUE(posted[1].value("image").toBool());
    EXPECT_EQ(uploaded.back(), "Clipboard.png");
    ASSERT_EQ(toasts.size(), 2u);
    EXPECT_TRUE(toasts[0].second) << "the progress toast stays";
    EXPECT_EQ(toasts[0].first, "Sending to Tower…");
    EXPECT_EQ(lastToast(), "Picture sent to Tower");

    // Files and text: the files; a folder goes as a zip of itself.
    QDir().mkpath(home.file("docs/inner"));
    writeText(home.file("docs/inner/a.txt"), "a");
    writeText(home.file("one.txt"), "1");
    pasteboard.copy({{PasteboardContent{"text/plain;charset=utf-8", "names"}},
                     {PasteboardContent{"text/uri-list", QUrl::fromLocalFile(home.file("one.txt")).toEncoded()}},
                     {PasteboardContent{"text/uri-list", QUrl::fromLocalFile(home.file("docs")).toEncoded()}}});
    await(share.send(tower));
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(posted[2].value("files").toArray().size(), 2);
    EXPECT_FALSE(posted[2].contains("image"));
    EXPECT_EQ(uploaded.back(), "docs.zip");
    EXPECT_EQ(lastToast(), "2 files sent to Tower");
    EXPECT_TRUE(QDir(QDir::tempPath()).entryList({"zuv-clipboard-*"}).isEmpty()) << "the scratch folder is gone";

    // 51 files fail before anything is uploaded; so does one over 100 MB.
    QStringList many;
    for (int i = 0; i < 51; ++i)
        many << home.file("one.txt");
    copyFiles(many);
    const size_t uploads = uploaded.size();
    await(share.send(tower));
    EXPECT_EQ(lastToast(), "Up to 50 files at a time.");
    EXPECT_EQ(uploaded.size(), uploads);
    QFile big(home.file("big.bin"));
    ASSERT_TRUE(big.open(QIODevice::WriteOnly));
    ASSERT_TRUE(big.resize(ClipboardShare::largestFile + 1));
    big.close();
    copyFiles({home.file("big.bin")});
    await(share.send(tower));
    EXPECT_EQ(lastToast(), "“big.bin” is larger than 100 MB. Use a USB stick or a file share for big files.");
    EXPECT_EQ(posted.size(), 3u);

    // Nothing on the clipboard.
    pasteboard.copy({});
    await(share.send(tower));
    EXPECT_EQ(lastToast(), "The clipboard is empty");
    EXPECT_FALSE(share.sending());
}

TEST_F(ClipboardShareTest, aFolderIsZippedWithItsOwnNameAtTheRoot)
{
    QDir().mkpath(home.file("Project/src/empty"));
    writeText(home.file("Project/src/main.c"), "int main;");
    writeText(home.file("Project/.hidden"), "h");
    QFile::link("src/main.c", home.file("Project/link"));
    QDir().mkpath(home.file("out"));
    const QString archive = await(ClipboardShare::zip(home.file("Project"), home.file("out")));
    EXPECT_EQ(archive, home.file("out/Project.zip"));
    // Read back by another program, as the other computer would.
    QProcess python;
    python.start("/usr/bin/python3", {"-c", "import sys, zipfile\n"
                                            "z = zipfile.ZipFile(sys.argv[1])\n"
                                            "print(sorted(z.namelist()))\n"
                                            "print(z.read('Project/src/main.c').decode())",
                                      archive});
    ASSERT_TRUE(python.waitForFinished(20000));
    EXPECT_EQ(QString::fromUtf8(python.readAllStandardOutput()),
              "['Project/', 'Project/.hidden', 'Project/link', 'Project/src/', 'Project/src/empty/', 'Project/src/main.c']\n"
              "int main;\n");
    EXPECT_THROW(await(ClipboardShare::zip(home.file("nothing"), home.file("out"))), Error);
}

TEST_F(ClipboardShareTest, theHubsRefusalsAreToldInThePersonsWords)
{
    await(share.refresh());
    const Me::Mac laptop = share.macs()[0];
    copyText("hello");
    status = 409;
    await(share.send(laptop));
    EXPECT_EQ(lastToast(), "Laptop is offline") << "the client does not check online itself";
    status = 404;
    await(share.send(laptop));
    EXPECT_EQ(lastToast(), "Laptop isn't on your account any more");
    status = 502;
    failure = R"({"error":{"message":"text required","code":"COMPUTER_ERROR"}})";
    writeText(home.file("p.txt"), "p");
    copyFiles({home.file("p.txt")});
    await(share.send(laptop));
    EXPECT_EQ(lastToast(), "Update Zuv on Laptop to send it pictures and files.");

    // No other computer: said once, nothing sent.
    hub.on("GET", "/app/me", TestHub::json(QJsonObject{{"user", QJsonObject{{"id", "u"}}}, {"owner", true},
                                                       {"macs", QJsonArray{QJsonObject{{"id", "me"}, {"name", "Desk"}}}}}));
    const size_t before = posted.size();
    await(share.sendToTarget());
    EXPECT_EQ(lastToast(), "No other computer to send to");
    EXPECT_EQ(posted.size(), before);
}

TEST_F(ClipboardShareTest, theListIsRefreshedEveryTenMinutesInVirtualTime)
{
    share.startRefreshing();
    ASSERT_TRUE(waitUntil([&] { return share.macs().size() == 2; }));
    hub.on("GET", "/app/me", TestHub::json(QJsonObject{{"user", QJsonObject{{"id", "u"}}}, {"owner", true},
                                                       {"macs", QJsonArray{QJsonObject{{"id", "x"}, {"name", "New"}, {"online", true}}}}}));
    ASSERT_TRUE(waitUntil([&] { return clock.sleepers() > 0; }));
    clock.advance(ClipboardShare::refreshInterval - 1);
    EXPECT_EQ(share.macs().size(), 2u);
    clock.advance(1);
    ASSERT_TRUE(waitUntil([&] { return share.macs().size() == 1; }));
    EXPECT_EQ(share.macs()[0].name, "New");
}

// The phone's clipboard requests end to end on this computer: the test hub sends
// them to the real agent on node, which asks the app through its lines; the
// answers come back to the hub. Files go through the real outbox.
#include "clipboard/ClipRules.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardRemote.h"
#include "link/AppModel.h"

#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Fixture.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QWebSocket>

#include <map>

using namespace zuv;

namespace {

struct ClipboardAgentTest : ::testing::Test, test::HubFixture {
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    std::unique_ptr<ClipboardHistory> history;
    std::unique_ptr<AppModel> model;
    std::unique_ptr<ClipboardRemote> remote;
    QWebSocket *agent = nullptr;
    std::map<int, QJsonObject> replies;

    ClipboardAgentTest()
    {
        qputenv("HOME", home.path().toUtf8());
        history = std::make_unique<ClipboardHistory>(clock, defaults, pasteboard, workspace, nullptr, home.file("data"));
        history->setEnabled(true);
        QObject::connect(&hub, &test::TestHub::socketConnected, [this](QWebSocket *s) {
            agent = s;
            QObject::connect(s, &QWebSocket::textMessageReceived, [this](const QString &m) {
                const QJsonObject reply = QJsonDocument::fromJson(m.toUtf8()).object();
                if (reply.value("type") == "clipboard-reply")
                    replies[reply.value("id").toInt()] = reply;
            });
        });
        keychain.setToken(QStringLiteral("agent-token"));
        model = makeModel(AppModel::Locations{QStringLiteral(ZUV_BUILD_TREE) + "/libexec/zuv",
                                              QStringLiteral(ZUV_BUILD_TREE) + "/share/zuv/agent", home.file("data"),
                                              home.file("logs")});
        remote = std::make_unique<ClipboardRemote>(*history, workspace, home.file("data/work/clipboard"),
                                                   [this](const QString &line) { return model->agent().send(line); });
        AppModel::Hooks hooks;
        hooks.clipboardAsk = [this](const QString &line) { remote->handle(line); };
        model->setHooks(hooks);
    }
    ~ClipboardAgentTest() override { model->stopChildren(); }

    QJsonObject ask(int id, QJsonObject request)
    {
        request.insert("type", "clipboard");
        request.insert("id", id);
        agent->sendTextMessage(QString::fromUtf8(QJsonDocument(request).toJson(QJsonDocument::Compact)));
        if (!test::waitUntil([&] { return replies.count(id) > 0; }, 10000))
            return {};
        return replies[id];
    }
};

} // namespace

TEST_F(ClipboardAgentTest, thePhoneListsAddsFetchesUsesPinsAndDeletesThroughTheRealAgent)
{
    model->startChildren();
    ASSERT_TRUE(test::waitUntil([&] { return model->connected() && agent; }, 20000))
        << test::readText(home.file("logs/agent.log")).toStdString();

    // A text from the phone, with a name that tries to leave the outbox.
    QJsonObject file{{"name", "../../escape.txt"}, {"data", QString::fromLatin1(QByteArray("from the phone").toBase64())}};
    EXPECT_EQ(ask(1, {{"op", "add"}, {"file", file}}).value("result").toObject().value("ok").toBool(), true);
    ASSERT_EQ(history->clips().size(), 1u);
    EXPECT_EQ(history->clips()[0].text, "from the phone");
    EXPECT_EQ(history->clips()[0].app, "zuv.iphone");
    EXPECT_FALSE(QFile::exists(home.file("data/escape.txt")));
    EXPECT_TRUE(QDir(home.file("data/work/clipboard")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).isEmpty())
        << "the file is gone once added";

    // A picture from the phone, then fetched back as data.
    const QByteArray png = test::picture(40, 20);
    clock.advance(1);
    QJsonObject photo{{"name", "photo.png"}, {"data", QString::fromLatin1(png.toBase64())}};
    EXPECT_TRUE(ask(2, {{"op", "add"}, {"image", true}, {"file", photo}}).value("result").toObject().value("ok").toBool());

    const QJsonObject list = ask(3, {{"op", "list"}, {"limit", 500}}).value("result").toObject();
    EXPECT_EQ(list.value("total").toInt(), 2);
    const QJsonArray items = list.value("items").toArray();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items[0]["kind"].toString(), "image");
    EXPECT_FALSE(items[0]["thumb"].toString().isEmpty());
    const qint64 picture = items[0]["id"].toInteger();
    const qint64 text = items[1]["id"].toInteger();

    const QJsonObject item = ask(4, {{"op", "item"}, {"clip", picture}}).value("result").toObject();
    EXPECT_EQ(item.value("kind").toString(), "image");
    EXPECT_EQ(QImage::fromData(QByteArray::fromBase64(item.value("data").toString().toLatin1())).size(), QSize(40, 20));
    EXPECT_FALSE(item.contains("path")) << "no path of this computer goes to the phone";

    EXPECT_TRUE(ask(5, {{"op", "use"}, {"clip", text}}).value("result").toObject().value("ok").toBool());
    EXPECT_EQ(pasteboard.written.size(), 1u);
    EXPECT_TRUE(ask(6, {{"op", "pin"}, {"clip", text}}).value("result").toObject().value("pinned").toBool());
    EXPECT_TRUE(ask(7, {{"op", "delete"}, {"clip", text}}).value("result").toObject().value("ok").toBool());
    EXPECT_EQ(ask(8, {{"op", "delete"}, {"clip", text}}).value("error").toString(),
              "That item isn't in the clipboard history any more.");
    EXPECT_EQ(ask(9, {{"op", "format-disk"}}).value("error").toString(), "unknown op");
    EXPECT_EQ(ask(10, {{"op", "add"}}).value("error").toString(), "Nothing to add.");

    // A burst: every request answered once.
    for (int i = 100; i < 400; ++i) {
        QJsonObject request{{"type", "clipboard"}, {"id", i}, {"op", "list"}, {"limit", 1}};
        agent->sendTextMessage(QString::fromUtf8(QJsonDocument(request).toJson(QJsonDocument::Compact)));
    }
    ASSERT_TRUE(test::waitUntil([&] { return replies.size() == 10 + 300; }, 30000)) << replies.size();
}

TEST_F(ClipboardAgentTest, whatAnotherDeviceSendsLandsOnTheClipboardOrInDownloads)
{
    // The Downloads folder as xdg-user-dirs names it.
    qputenv("XDG_CONFIG_HOME", home.file("config").toUtf8());
    QDir().mkpath(home.file("config"));
    test::writeText(home.file("config/user-dirs.dirs"), "XDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    const QByteArray png = test::picture(8, 6);
    hub.on("GET", "/media/mpng", test::TestHub::Response{200, png, "image/png"});
    hub.on("GET", "/media/mtxt", test::TestHub::Response{200, "notes", "text/plain"});
    std::vector<QJsonObject> received;
    AppModel::Hooks hooks;
    hooks.clipboardAsk = [this](const QString &line) { remote->handle(line); };
    hooks.clipboardReceived = [&](const QJsonObject &info) { received.push_back(info); };
    model->setHooks(hooks);
    std::map<QString, QJsonObject> answers;
    QObject::connect(&hub, &test::TestHub::socketConnected, [&](QWebSocket *s) {
        QObject::connect(s, &QWebSocket::textMessageReceived, [&](const QString &m) {
            const QJsonObject reply = QJsonDocument::fromJson(m.toUtf8()).object();
            if (reply.value("type") == "clipboard-set-reply")
                answers[reply.value("id").toString()] = reply;
        });
    });
    model->startChildren();
    ASSERT_TRUE(test::waitUntil([&] { return model->connected() && agent; }, 20000));
    const auto send = [&](const QString &id, QJsonObject message) {
        message.insert("type", "clipboard-set");
        message.insert("id", id);
        agent->sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
        test::waitUntil([&] { return answers.count(id) > 0; }, 10000);
        return answers[id];
    };

    // A text goes onto the clipboard, and into the history as our own copy.
    EXPECT_TRUE(send("s1", {{"text", "from the laptop"}, {"from", "Laptop"}}).value("result").toObject().value("ok").toBool());
    ASSERT_FALSE(pasteboard.written.empty());
    EXPECT_EQ(pasteboard.written.back()[0][0].data, "from the laptop");
    ASSERT_TRUE(test::waitUntil([&] { return received.size() == 1; }));
    EXPECT_EQ(received[0].value("from"), "Laptop");
    EXPECT_EQ(received[0].value("kind"), "text");

    // A picture is fetched from the hub and put on the clipboard as PNG.
    EXPECT_TRUE(send("s2", {{"files", QJsonArray{QJsonObject{{"key", "mpng"}, {"name", "Clipboard.png"}}}}, {"image", true}})
                    .contains("result"));
    EXPECT_EQ(pasteboard.written.back()[0][0].type, "image/png");
    EXPECT_EQ(pasteboard.written.back()[0][0].data, png);

    // Files are saved in Downloads; a name already there is not overwritten.
    QDir().mkpath(home.file("Fetched"));
    test::writeText(home.file("Fetched/notes.txt"), "older");
    EXPECT_TRUE(send("s3", {{"files", QJsonArray{QJsonObject{{"key", "mtxt"}, {"name", "../../notes.txt"}},
                                                  QJsonObject{{"key", "mtxt"}, {"name", "b.txt"}}}}})
                    .contains("result"));
    EXPECT_EQ(test::readText(home.file("Fetched/notes.txt")), "older");
    EXPECT_EQ(test::readText(home.file("Fetched/notes (2).txt")), "notes");
    EXPECT_EQ(test::readText(home.file("Fetched/b.txt")), "notes");
    ASSERT_EQ(pasteboard.written.back().size(), 3u) << "an empty first item, then one per file";
    EXPECT_EQ(pasteboard.written.back()[1][0].type, "text/uri-list");
    EXPECT_EQ(pasteboard.written.back()[2][0].data, QUrl::fromLocalFile(home.file("Fetched/b.txt")).toEncoded());
    ASSERT_TRUE(test::waitUntil([&] { return received.size() == 3; }));
    EXPECT_EQ(received[2].value("kind"), "files");
    EXPECT_EQ(received[2].value("count"), 2);

    // Failures answer the hub in plain words and change nothing here.
    EXPECT_EQ(received[1].value("kind"), "image");
    const size_t writes = pasteboard.written.size();
    EXPECT_EQ(send("s4", {{"files", QJsonArray{QJsonObject{{"key", "missing"}, {"name", "x.png"}}}}, {"image", true}})
                  .value("error"), "The file could not be fetched from the hub.");
    EXPECT_EQ(send("s5", {{"text", QString(100001, 'x')}}).value("error"), "The text is too long (100,000 characters at most).");
    EXPECT_EQ(send("s6", {{"files", QJsonArray{QJsonObject{{"key", "mtxt"}, {"name", "a.txt"}}}}, {"image", true}})
                  .value("error"), "Nothing to put on the clipboard.") << "a text file is no picture";
    EXPECT_EQ(send("s7", {}).value("error"), "Nothing was sent.");
    EXPECT_EQ(pasteboard.written.size(), writes);
    EXPECT_EQ(received.size(), 3u);
    EXPECT_TRUE(QDir(home.file("data/work/clipboard")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).isEmpty())
        << "nothing is left in the outbox";
}

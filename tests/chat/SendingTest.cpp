// Sending: the echo, the steps while it travels, the swap for the hub's entry,
// and a failure that leaves nothing half sent.
#include "ChatFixture.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QMimeData>
#include <QUrl>

using namespace zuv;
using namespace zuv::test;

namespace {

struct Sending : ChatFixture, ::testing::Test {
    // Answers /app/send with the hub's entry for whatever clientId came.
    void saveAs(const QString &hubId, int delayMs = 0)
    {
        hub.on("POST", "/app/send", [hubId, delayMs](const TestHub::Request &r) {
            const QJsonObject body = r.json().toObject();
            auto response = TestHub::json(QJsonObject{
                {"entry", entryJson(hubId, "user", body["text"].toString(), 5000, body["conversation"].toString(), "app")}});
            response.delayMs = delayMs;
            return response;
        });
    }
    QString file(const QString &name, const QByteArray &content = "data")
    {
        writeText(home.file(name), content);
        return home.file(name);
    }
};

// Runs a send to its end in the background, noting the result.
QCoro::Task<void> sendInBackground(ChatModel *chat, QString text, std::vector<OutgoingFile> files,
                                   std::vector<Entry::File> reusing, bool *sent, bool *done)
{
    *sent = co_await chat->send(std::move(text), std::move(files), std::move(reusing), QStringLiteral("c1"));
    *done = true;
}

} // namespace

TEST_F(Sending, aTextTravelsAsAnEchoAndIsSwappedForTheHubsEntry)
{
    list("/app/conversations", "conversations", {conversationJson("c1")});
    await(chat->reloadConversations(false));
    await(chat->deleteConversation("c1")); // deleted before: a send takes it out again
    saveAs("h1", 150);
    bool sent = false, done = false;
    auto sending = sendInBackground(chat.get(), "hello", {}, {}, &sent, &done);
    ASSERT_EQ(ids("c1").size(), 1u);
    const QString clientId = ids("c1")[0];
    EXPECT_TRUE(clientId.startsWith('m'));
    EXPECT_EQ(clientId.size(), 12);
    EXPECT_EQ(chat->steps().value("c1"), "Sending…");
    EXPECT_TRUE(chat->waiting().contains("c1"));
    EXPECT_FALSE(chat->deleted().contains("c1"));
    ASSERT_TRUE(waitUntil([&] { return hub.count("POST", "/app/send") == 1; }));
    const QJsonObject body = hub.requests("POST", "/app/send")[0].json().toObject();
    EXPECT_EQ(body["clientId"].toString(), clientId);
    EXPECT_EQ(body["conversation"].toString(), "c1");
    EXPECT_TRUE(body["files"].isArray()) << "present even when empty";
    // The hub's step arrives while the post is under way.
    chat->handle(R"({"kind":"step","ref":"c1","step":"Thinking"})");
    ASSERT_TRUE(waitUntil([&] { return sent; }));
    EXPECT_EQ(ids("c1"), QStringList{"h1"});
    EXPECT_EQ(chat->steps().value("c1"), "Thinking") << "a step from the hub stays";
    EXPECT_TRUE(chat->waiting().contains("c1")) << "the reply ends the wait, not the post";
    EXPECT_EQ(hub.count("GET", "/app/conversations"), 2) << "unlisted after the deletion: reloaded loudly";

    // A text alone loses its local step as soon as the hub has it.
    list("/app/conversations", "conversations", {conversationJson("c2")});
    await(chat->reloadConversations(true));
    saveAs("h2");
    EXPECT_TRUE(await(chat->send("again", {}, {}, "c2")));
    EXPECT_FALSE(chat->steps().contains("c2"));
    EXPECT_EQ(chat->conversations()[0].id, "c2");
    EXPECT_EQ(chat->conversations()[0].preview, "again");
}

TEST_F(Sending, filesUploadOneByOneAndTheFirstFailureUndoesTheMessage)
{
    int uploads = 0;
    hub.on("PUT", "/app/media", [&uploads](const TestHub::Request &r) {
        if (++uploads == 2)
            return TestHub::error(500);
        return TestHub::json(QJsonObject{{"key", "k" + r.query("name")}, {"name", r.query("name")}, {"mime", "x/y"}});
    });
    saveAs("never");
    const std::vector<OutgoingFile> files{OutgoingFile(file("a.txt")), OutgoingFile(file("b.png")),
                                          OutgoingFile(file("c.pdf"))};
    EXPECT_EQ(files[0].mime, "text/plain");
    EXPECT_EQ(files[1].mime, "image/png");
    bool done = false, sent = true;
    auto sending = sendInBackground(chat.get(), "see", files, {{"old", "reused.txt", "text/plain"}}, &sent, &done);
    EXPECT_EQ(chat->steps().value("c1"), "Uploading…");
    const Entry &echo = (*chat->entries("c1"))[0];
    ASSERT_EQ(echo.files->size(), 4u);
    EXPECT_EQ((*echo.files)[0].key, "old");
    EXPECT_EQ((*echo.files)[1].key, "") << "not uploaded yet";
    EXPECT_EQ((*echo.files)[1].name, "a.txt");
    ASSERT_TRUE(waitUntil([&] { return done; }));
    EXPECT_FALSE(sent);
    EXPECT_EQ(uploads, 2) << "nothing is tried after the first failure";
    EXPECT_EQ(hub.count("POST", "/app/send"), 0);
    EXPECT_TRUE(ids("c1").isEmpty());
    EXPECT_FALSE(chat->waiting().contains("c1"));
    EXPECT_EQ(chat->error(), "Upload failed");
    EXPECT_TRUE(QFile::exists(files[0].path)) << "the person's files stay";

    // Over the hub's limit, and a file that cannot be read.
    hub.on("PUT", "/app/media", TestHub::error(413));
    EXPECT_FALSE(await(chat->send("big", {OutgoingFile(file("big.bin"))}, {}, "c1")));
    EXPECT_EQ(chat->error(), "Larger than 100 MB");
    EXPECT_FALSE(await(chat->send("gone", {OutgoingFile(home.file("missing.bin"))}, {}, "c1")));
    EXPECT_TRUE(chat->error()->contains("missing.bin"));
    EXPECT_TRUE(ids("c1").isEmpty());
}

TEST_F(Sending, outgoingFilesOfOursLiveInAPrivateFolderAndGoWhenSent)
{
    const QString folder = OutgoingFile::folder();
    EXPECT_TRUE(folder.startsWith(qEnvironmentVariable("XDG_RUNTIME_DIR")));
    EXPECT_EQ(QFileInfo(folder).permissions() & (QFile::ReadGroup | QFile::ReadOther | QFile::ExeOther), 0);

    QImage picture(4, 3, QImage::Format_RGB32);
    picture.fill(Qt::red);
    QByteArray jpeg;
    {
        QBuffer buffer(&jpeg);
        buffer.open(QIODevice::WriteOnly);
        picture.save(&buffer, "JPEG");
    }
    const auto pasted = OutgoingFile::image(jpeg);
    ASSERT_TRUE(pasted);
    EXPECT_TRUE(pasted->name.startsWith("Pasted-"));
    EXPECT_EQ(pasted->mime, "image/png");
    EXPECT_EQ(QImage(pasted->path).size(), QSize(4, 3));
    EXPECT_FALSE(OutgoingFile::image("not a picture"));

    // A drop that offers a file and a picture gives the file; a picture alone becomes a PNG.
    QMimeData both;
    both.setUrls({QUrl::fromLocalFile(file("note.md")), QUrl("https://example.com/x"),
                  QUrl::fromLocalFile(home.file("nothing-here"))});
    both.setData("image/jpeg", jpeg);
    const auto dropped = OutgoingFile::load(both);
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_EQ(dropped[0].name, "note.md");
    EXPECT_FALSE(dropped[0].temporary());
    QMimeData image;
    image.setData("image/jpeg", jpeg);
    ASSERT_EQ(OutgoingFile::load(image).size(), 1u);

    const OutgoingFile copied = OutgoingFile::copy(file("report.pdf"));
    EXPECT_TRUE(copied.temporary());
    EXPECT_TRUE(copied.name.endsWith("-report.pdf"));
    EXPECT_THROW(OutgoingFile::copy(home.file("absent.pdf")), Error);

    hub.on("PUT", "/app/media", TestHub::json(QJsonObject{{"key", "k"}, {"name", "n"}, {"mime", "m"}}));
    saveAs("s1");
    EXPECT_TRUE(await(chat->send("", {*pasted, copied, dropped[0]}, {}, "c1")));
    EXPECT_FALSE(QFile::exists(pasted->path));
    EXPECT_FALSE(QFile::exists(copied.path));
    EXPECT_TRUE(QFile::exists(dropped[0].path)) << "only our own copies are removed";
    ASSERT_EQ(hub.requests("POST", "/app/send")[0].json()["files"].toArray().size(), 3);

    OutgoingFile::image(jpeg);
    OutgoingFile::sweep();
    EXPECT_TRUE(QDir(folder).entryList(QDir::Files).isEmpty());
}

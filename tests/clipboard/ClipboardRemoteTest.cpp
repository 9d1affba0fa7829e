// The phone's clipboard requests, as lines from the agent, answered against a
// real store; pictures and the phone's files go through a real outbox.
#include "clipboard/ClipboardRemote.h"

#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipboardHistory.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"
#include "Support.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>

using namespace zuv;

namespace {

struct Remote {
    test::TempHome home;
    TestClock clock;
    Defaults defaults{home.file("defaults.json")};
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.file("Zuv")};
    QStringList sent;
    ClipboardRemote remote{history, workspace, home.file("Zuv/work/clipboard"), [this](const QString &line) {
                               sent << line;
                               return true;
                           }};

    Remote()
    {
        QDir().mkpath(home.file("Zuv/work/clipboard"));
        history.setEnabled(true);
    }
    void text(const QString &t)
    {
        clock.advance(1);
        history.record({{ClipRules::plainText, t.toUtf8()}}, std::nullopt, clock.now());
    }
    // Sends one request and returns its reply.
    QJsonObject ask(const QByteArray &json)
    {
        const qsizetype before = sent.size();
        remote.handle("2026 agent: clipboard-ask " + QString::fromUtf8(json));
        if (!test::waitUntil([&] { return sent.size() > before; }, 5000))
            return {};
        return QJsonDocument::fromJson(sent.last().toUtf8()).object();
    }
    QJsonObject result(const QByteArray &json) { return ask(json).value("result").toObject(); }
    QString error(const QByteArray &json) { return ask(json).value("error").toString(); }
};

} // namespace

TEST(ClipboardRemote, listPagesWithPinsFirstAndThumbnails)
{
    Remote r;
    for (int i = 0; i < 5; ++i)
        r.text(QString("clip %1").arg(i));
    r.history.togglePin(r.history.clips().back().id); // the oldest, "clip 0"
    r.clock.advance(1);
    r.history.record({{"image/png", test::picture(1200, 600)}}, QString("zuv.iphone"), r.clock.now());

    QJsonObject list = r.result(R"({"id": 1, "op": "list", "limit": 0})");
    EXPECT_EQ(list.value("total").toInt(), 6);
    ASSERT_EQ(list.value("items").toArray().size(), 1); // a limit of 0 is 1
    EXPECT_EQ(list.value("items")[0]["text"].toString(), "clip 0");
    EXPECT_TRUE(list.value("items")[0]["pinned"].toBool());

    list = r.result(R"({"id": 2, "op": "list", "limit": 500, "offset": -3})");
    const QJsonArray items = list.value("items").toArray();
    ASSERT_EQ(items.size(), 6);
    const QJsonObject image = items[1].toObject();
    EXPECT_EQ(image.value("kind").toString(), "image");
    EXPECT_EQ(image.value("appName").toString(), "iPhone");
    const QImage thumb = QImage::fromData(QByteArray::fromBase64(image.value("thumb").toString().toLatin1()), "JPEG");
    EXPECT_EQ(thumb.size(), QSize(360, 180));
    EXPECT_EQ(r.result(R"({"id": 3, "op": "list", "offset": 99})").value("items").toArray().size(), 0);
    EXPECT_EQ(r.result(R"({"id": 4, "op": "list", "q": "clip 3"})").value("total").toInt(), 1);
    EXPECT_EQ(r.ask(R"({"id": 5, "op": "list"})").value("clipboard").toInt(), 5);

    r.history.setEnabled(false);
    EXPECT_EQ(r.result(R"({"id": 6, "op": "list"})"), (QJsonObject{{"enabled", false}}));
    EXPECT_EQ(r.result(R"({"id": 7, "op": "item", "clip": 1})"), (QJsonObject{{"enabled", false}}));
}

TEST(ClipboardRemote, itemsUsePinDeleteAndTheErrorsOfEach)
{
    Remote r;
    r.text(QString(300'000, 'x'));
    const qint64 id = r.history.clips().front().id;
    const QByteArray clip = QByteArray::number(id);
    EXPECT_EQ(r.result(R"({"id": 1, "op": "item", "clip": )" + clip + "}").value("text").toString().size(), 200'000);
    EXPECT_EQ(r.result(R"({"id": 2, "op": "use", "clip": )" + clip + "}").value("ok").toBool(), true);
    EXPECT_EQ(r.pasteboard.written.size(), 1u);
    EXPECT_EQ(r.result(R"({"id": 3, "op": "pin", "clip": )" + clip + "}").value("pinned").toBool(), true);
    EXPECT_EQ(r.error(R"({"id": 4, "op": "bogus", "clip": )" + clip + "}"), "unknown op bogus");
    EXPECT_EQ(r.error(R"({"id": 5, "op": "bogus"})"), "That item isn't in the clipboard history any more.");
    EXPECT_EQ(r.result(R"({"id": 6, "op": "delete", "clip": )" + clip + "}").value("ok").toBool(), true);
    EXPECT_EQ(r.error(R"({"id": 7, "op": "delete", "clip": )" + clip + "}"), "That item isn't in the clipboard history any more.");
    EXPECT_EQ(r.error(R"({"id": 8, "op": "item", "clip": "1"})"), "That item isn't in the clipboard history any more.");

    // A picture goes out as a file in the outbox.
    r.clock.advance(1);
    r.history.record({{"image/png", test::picture(20, 10)}}, std::nullopt, r.clock.now());
    const QJsonObject picture =
        r.result(R"({"id": 9, "op": "item", "clip": )" + QByteArray::number(r.history.clips().front().id) + "}");
    EXPECT_EQ(picture.value("kind").toString(), "image");
    EXPECT_TRUE(picture.value("path").toString().startsWith(r.home.file("Zuv/work/clipboard/out-")));
    EXPECT_EQ(QImage(picture.value("path").toString()).size(), QSize(20, 10));

    // Lines that name nobody to answer get no answer.
    const qsizetype before = r.sent.size();
    for (const char *bad : {"clipboard-ask {", "clipboard-ask [1]", "clipboard-ask {\"op\": \"list\"}",
                            "clipboard-ask {\"id\": 1.5, \"op\": \"list\"}", "clipboard-ask {\"id\": 1e30, \"op\": \"list\"}",
                            "clipboard-ask {\"id\": 1, \"op\": 7}", "no marker at all"})
        r.remote.handle(bad);
    test::drain();
    EXPECT_EQ(r.sent.size(), before);
}

TEST(ClipboardRemote, addTakesOnlyFilesInTheOutbox)
{
    Remote r;
    const QString outbox = r.home.file("Zuv/work/clipboard");
    test::writeText(outbox + "/note.txt", "from the phone");
    EXPECT_EQ(r.result(R"({"id": 1, "op": "add", "path": ")" + (outbox + "/note.txt").toUtf8() + R"("})").value("ok").toBool(), true);
    EXPECT_EQ(r.history.clips().front().text, "from the phone");
    EXPECT_EQ(r.history.clips().front().app, "zuv.iphone");

    r.clock.advance(1);
    test::writeText(outbox + "/photo.png", test::picture(8, 8));
    EXPECT_TRUE(r.result(R"({"id": 2, "op": "add", "image": true, "path": ")" + (outbox + "/photo.png").toUtf8() + R"("})")
                    .value("ok").toBool());
    EXPECT_EQ(r.history.clips().front().kind, Clip::Kind::image);

    // Escapes: "..", a link out of the outbox, a file elsewhere, nothing, an empty file.
    test::writeText(r.home.file("secret.txt"), "not for the phone");
    QFile::link(r.home.file("secret.txt"), outbox + "/link.txt");
    for (const QByteArray &path : {(outbox + "/../../secret.txt").toUtf8(), (outbox + "/link.txt").toUtf8(),
                                   r.home.file("secret.txt").toUtf8(), (outbox + "/missing.txt").toUtf8()})
        EXPECT_EQ(r.error(R"({"id": 3, "op": "add", "path": ")" + path + R"("})"), "Nothing to add.") << path.constData();
    EXPECT_EQ(r.error(R"({"id": 4, "op": "add"})"), "Nothing to add.");
    test::writeText(outbox + "/empty.txt", "");
    EXPECT_EQ(r.error(R"({"id": 5, "op": "add", "path": ")" + (outbox + "/empty.txt").toUtf8() + R"("})"), "Nothing to add.");
    test::writeText(outbox + "/latin1.txt", "caf\xe9");
    EXPECT_EQ(r.error(R"({"id": 6, "op": "add", "path": ")" + (outbox + "/latin1.txt").toUtf8() + R"("})"), "Nothing to add.");
    // Blanks pass, and make no clip.
    test::writeText(outbox + "/blank.txt", "   ");
    const size_t count = r.history.clips().size();
    EXPECT_TRUE(r.result(R"({"id": 7, "op": "add", "path": ")" + (outbox + "/blank.txt").toUtf8() + R"("})").value("ok").toBool());
    EXPECT_EQ(r.history.clips().size(), count);
    for (const Clip &c : r.history.clips())
        EXPECT_NE(c.text, "not for the phone");

    // A burst: every request is answered once.
    r.sent.clear();
    for (int i = 0; i < 10'000; ++i)
        r.remote.handle(QStringLiteral("clipboard-ask {\"id\": %1, \"op\": \"list\", \"limit\": 1}").arg(i));
    ASSERT_TRUE(test::waitUntil([&] { return r.sent.size() == 10'000; }, 25000));
}

// The clip store against real SQLite files.
#include "clipboard/ClipStore.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

using namespace zuv;

namespace {

Clip clip(const QString &text, Clip::Kind kind = Clip::Kind::text)
{
    Clip c;
    c.kind = kind;
    c.text = text;
    c.first = 1000.5;
    c.last = 2000.25;
    c.copies = 2;
    c.key = "text:" + text;
    return c;
}

// Runs SQL straight on a file, as another program would.
void raw(const QString &path, const char *sql)
{
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(path).constData(), &db), SQLITE_OK);
    char *error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
}

} // namespace

TEST(ClipStore, rowsAndContentsGoInAndComeBackAsTheyWere)
{
    test::TempHome home;
    ClipStore store(home.file("Clipboard.sqlite"));
    Clip text = clip("hello");
    text.app = "org.gnome.TextEditor.desktop";
    const auto id = store.insert(text, {{"text/plain;charset=utf-8", "hello"}, {"text/html", "<b>hello</b>"}});
    ASSERT_TRUE(id);
    Clip image = clip("", Clip::Kind::image);
    image.key = "image:1";
    const auto pictureId = store.insert(image, {{"image/tiff", "TIFF"}, {"image/png", "PNG"}, {"x-empty", ""}});
    ASSERT_TRUE(pictureId);

    std::vector<Clip> all = store.all();
    ASSERT_EQ(all.size(), 2u);
    text.id = *id;
    EXPECT_EQ(all[0], text);
    EXPECT_FALSE(all[1].app) << "an absent app binds SQL null and reads back absent";
    EXPECT_FALSE(all[1].pin);
    EXPECT_EQ(store.contents(*id).at(1), (ClipContent{"text/html", "<b>hello</b>"}));
    EXPECT_EQ(store.firstData(*pictureId, {"image/png", "image/tiff"}), "PNG") << "the caller's order, not the stored one";
    EXPECT_EQ(store.firstData(*pictureId, {"image/jpeg"}), std::nullopt);
    EXPECT_EQ(store.firstData(*pictureId, {"x-empty"}), QByteArray(""));
    EXPECT_EQ(store.unrecognized(), std::vector<qint64>{*pictureId});
    store.markRecognized(*pictureId);
    EXPECT_TRUE(store.unrecognized().empty());

    // An empty blob is a blob, not null; update leaves kind and key alone.
    bool blob = false;
    store.run("select typeof(value) from contents where type = 'x-empty'", {},
              [&](const ClipStore::Row &r) { blob = r.text(0) == "blob"; });
    EXPECT_TRUE(blob);
    text.pin = "a";
    text.order = 3;
    text.copies = 7;
    text.kind = Clip::Kind::files;
    text.key = "changed";
    store.update(text);
    const Clip updated = store.all().at(0);
    EXPECT_EQ(updated.pin, "a");
    EXPECT_EQ(updated.copies, 7);
    EXPECT_EQ(updated.kind, Clip::Kind::text);
    EXPECT_EQ(updated.key, "text:hello");

    store.run("update clips set kind = 'sound' where id = ?", {*id});
    EXPECT_EQ(store.all().at(0).kind, Clip::Kind::text) << "an unknown kind reads as text";
    store.remove({*id});
    EXPECT_EQ(store.all().size(), 1u);
    EXPECT_TRUE(store.contents(*id).empty());
    store.vacuum();
    EXPECT_FALSE(store.run("select nonsense from nowhere"));
}

TEST(ClipStore, anOlderFileIsMigratedAndForeignFilesAreLeftAlone)
{
    test::TempHome home;
    const QString old = home.file("old.sqlite");
    raw(old, "create table clips (id integer primary key, kind text not null, text text not null, app text, "
             "first real not null, last real not null, copies integer not null, pin text, ord real not null "
             "default 0, key text not null);"
             "insert into clips (kind, text, first, last, copies, key) values ('image', '', 1, 2, 1, 'image:x');");
    {
        ClipStore store(old);
        EXPECT_EQ(store.unrecognized().size(), 1u) << "old pictures get ocr 0 and queue again";
    }
    ClipStore again(old); // the column exists now: the migration fails quietly
    EXPECT_EQ(again.all().size(), 1u);

    // Read-only: a missing file fails with SQLite's words; an existing one is not touched.
    EXPECT_THROW(ClipStore(home.file("missing.sqlite"), true), ClipStore::Failure);
    const QString foreign = home.file("foreign.sqlite");
    raw(foreign, "create table other (x integer);");
    const QByteArray before = test::readText(foreign).toLatin1();
    {
        ClipStore reader(foreign, true);
        bool tables = false;
        reader.run("select count(*) from sqlite_master where name = 'clips'", {},
                   [&](const ClipStore::Row &r) { tables = r.integer(0) > 0; });
        EXPECT_FALSE(tables);
    }
    EXPECT_FALSE(QFile::exists(foreign + "-wal"));
    EXPECT_EQ(test::readText(foreign).toLatin1(), before);

    // A file that is no database: the failure says so, in SQLite's words.
    test::writeText(home.file("broken.sqlite"), QByteArray(8192, 'x'));
    try {
        ClipStore broken(home.file("broken.sqlite"));
        FAIL() << "a broken file opened";
    } catch (const ClipStore::Failure &f) {
        EXPECT_TRUE(f.localizedDescription().contains("not a database")) << f.localizedDescription().toStdString();
    }
}

// A writer killed in the middle of its inserts loses none of what it committed.
TEST(ClipStore, whatWasCommittedSurvivesAKillDuringWrites)
{
    test::TempHome home;
    const QString path = home.file("Clipboard.sqlite");
    { ClipStore(path).insert(clip("before"), {{"text/plain", "before"}}); }
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = fork();
    if (child == 0) {
        ::close(pipe[0]);
        ClipStore store(path);
        for (int i = 0;; ++i) {
            store.insert(clip(QStringLiteral("copy %1").arg(i)), {{"text/plain", QByteArray(4096, 'x')}});
            if (i == 50)
                (void)!::write(pipe[1], "x", 1); // enough is committed: kill me any time now
        }
    }
    ::close(pipe[1]);
    char ready = 0;
    ASSERT_EQ(::read(pipe[0], &ready, 1), 1);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(pipe[0]);
    ClipStore store(path);
    const std::vector<Clip> all = store.all();
    ASSERT_GE(all.size(), 52u);
    for (const Clip &c : all)
        EXPECT_FALSE(store.contents(c.id).empty()) << "a row without its contents: " << c.text.toStdString();
}

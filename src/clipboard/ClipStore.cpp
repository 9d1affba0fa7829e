#include "clipboard/ClipStore.h"

#include <QCoreApplication>
#include <QFile>
#include <QMutexLocker>

#include <sqlite3.h>

namespace zuv {

QString Clip::word(Kind kind)
{
    switch (kind) {
    case Kind::image:
        return QStringLiteral("image");
    case Kind::files:
        return QStringLiteral("files");
    case Kind::text:
        break;
    }
    return QStringLiteral("text");
}

Clip::Kind Clip::kindOf(const QString &word)
{
    if (word == QLatin1String("image"))
        return Kind::image;
    if (word == QLatin1String("files"))
        return Kind::files;
    return Kind::text;
}

qint64 ClipStore::Row::integer(int column) const { return sqlite3_column_int64(m_statement, column); }

double ClipStore::Row::real(int column) const { return sqlite3_column_double(m_statement, column); }

std::optional<QString> ClipStore::Row::text(int column) const
{
    const auto *chars = reinterpret_cast<const char *>(sqlite3_column_text(m_statement, column));
    if (!chars)
        return std::nullopt;
    return QString::fromUtf8(chars, sqlite3_column_bytes(m_statement, column));
}

std::optional<QByteArray> ClipStore::Row::blob(int column) const
{
    if (sqlite3_column_type(m_statement, column) == SQLITE_NULL)
        return std::nullopt;
    const void *bytes = sqlite3_column_blob(m_statement, column);
    const int size = sqlite3_column_bytes(m_statement, column);
    return bytes ? QByteArray(static_cast<const char *>(bytes), size) : QByteArray();
}

ClipStore::ClipStore(const QString &path, bool readOnly)
{
    const int flags = readOnly ? SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX
                               : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    const int opened = sqlite3_open_v2(QFile::encodeName(path).constData(), &m_db, flags, nullptr);
    if (opened != SQLITE_OK) {
        const QString text = m_db ? QString::fromUtf8(sqlite3_errmsg(m_db))
                                  : QCoreApplication::translate("ClipStore", "can't open");
        sqlite3_close(m_db);
        m_db = nullptr;
        throw Failure(text);
    }
    sqlite3_busy_timeout(m_db, 10000);
    if (readOnly)
        return; // a foreign file stays exactly as it is
    run("pragma auto_vacuum = incremental");
    run("pragma journal_mode = wal");
    const bool schema =
        run("create table if not exists clips (id integer primary key, kind text not null, text text not null, app "
            "text, first real not null, last real not null, copies integer not null, pin text, ord real not null "
            "default 0, key text not null)")
        && run("create index if not exists clips_key on clips (key)")
        && run("create table if not exists contents (clip integer not null, type text not null, value blob not null)")
        && run("create index if not exists contents_clip on contents (clip)");
    if (!schema) {
        const QString text = QString::fromUtf8(sqlite3_errmsg(m_db));
        for (sqlite3_stmt *s : std::as_const(m_statements))
            sqlite3_finalize(s);
        m_statements.clear();
        sqlite3_close(m_db);
        m_db = nullptr;
        throw Failure(text);
    }
    // The whole migration: it fails, on purpose unheeded, once the column exists.
    run("alter table clips add column ocr integer not null default 0");
    // With a write-ahead log, commits that are not synced to disk one by one
    // survive the app's own end, even by kill -9; only a power cut can take the
    // last of them. A copy then costs no disk flush.
    run("pragma synchronous = normal");
}

void ClipStore::releaseMemory()
{
    if (m_db)
        sqlite3_db_release_memory(m_db);
}

ClipStore::~ClipStore()
{
    for (sqlite3_stmt *s : std::as_const(m_statements))
        sqlite3_finalize(s);
    if (m_db)
        sqlite3_close(m_db);
}

sqlite3_stmt *ClipStore::statement(const QByteArray &sql)
{
    if (sqlite3_stmt *cached = m_statements.value(sql))
        return cached;
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v3(m_db, sql.constData(), -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) != SQLITE_OK
        || !prepared) {
        sqlite3_finalize(prepared);
        return nullptr;
    }
    // Statements that change the schema are not worth keeping.
    if (sql.startsWith("create") || sql.startsWith("alter") || sql.startsWith("pragma"))
        return prepared;
    m_statements.insert(sql, prepared);
    return prepared;
}

bool ClipStore::run(const QByteArray &sql, const std::vector<Value> &values, const std::function<void(const Row &)> &row)
{
    QMutexLocker lock(&m_mutex);
    if (!m_db)
        return false;
    sqlite3_stmt *s = statement(sql);
    if (!s)
        return false;
    const bool kept = m_statements.value(sql) == s;
    int index = 1;
    for (const Value &value : values) {
        if (const auto *i = std::get_if<qint64>(&value)) {
            sqlite3_bind_int64(s, index, *i);
        } else if (const auto *d = std::get_if<double>(&value)) {
            sqlite3_bind_double(s, index, *d);
        } else if (const auto *t = std::get_if<std::optional<QString>>(&value)) {
            if (*t) {
                const QByteArray utf8 = (*t)->toUtf8();
                sqlite3_bind_text64(s, index, utf8.constData(), sqlite3_uint64(utf8.size()), SQLITE_TRANSIENT, SQLITE_UTF8);
            } else {
                sqlite3_bind_null(s, index);
            }
        } else if (const auto *b = std::get_if<QByteArray>(&value)) {
            // An empty blob must stay a blob: a null pointer would store SQL null.
            if (b->isEmpty())
                sqlite3_bind_zeroblob(s, index, 0);
            else
                sqlite3_bind_blob64(s, index, b->constData(), sqlite3_uint64(b->size()), SQLITE_TRANSIENT);
        }
        ++index;
    }
    int step = sqlite3_step(s);
    while (step == SQLITE_ROW) {
        if (row)
            row(Row(s));
        step = sqlite3_step(s);
    }
    if (kept) {
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
    } else {
        sqlite3_finalize(s);
    }
    return step == SQLITE_DONE;
}

std::optional<qint64> ClipStore::insert(const Clip &clip, const std::vector<ClipContent> &contents, bool transaction)
{
    QMutexLocker lock(&m_mutex); // the whole insert, so that the worker's statements do not land inside it
    if (transaction)
        run("begin");
    std::optional<qint64> id;
    run("insert into clips (kind, text, app, first, last, copies, pin, ord, key) values (?, ?, ?, ?, ?, ?, ?, ?, ?) "
        "returning id",
        {std::optional<QString>(Clip::word(clip.kind)), std::optional<QString>(clip.text), clip.app, clip.first,
         clip.last, clip.copies, clip.pin, clip.order, std::optional<QString>(clip.key)},
        [&id](const Row &r) { id = r.integer(0); });
    if (id) {
        for (const ClipContent &c : contents)
            run("insert into contents (clip, type, value) values (?, ?, ?)",
                {*id, std::optional<QString>(c.type), c.data});
    }
    if (transaction)
        run(id ? "commit" : "rollback");
    return id;
}

void ClipStore::update(const Clip &clip)
{
    run("update clips set text = ?, app = ?, first = ?, last = ?, copies = ?, pin = ?, ord = ? where id = ?",
        {std::optional<QString>(clip.text), clip.app, clip.first, clip.last, clip.copies, clip.pin, clip.order, clip.id});
}

void ClipStore::remove(const std::vector<qint64> &ids)
{
    QMutexLocker lock(&m_mutex);
    run("begin");
    for (qint64 id : ids) {
        run("delete from contents where clip = ?", {id});
        run("delete from clips where id = ?", {id});
    }
    run("commit");
}

std::vector<Clip> ClipStore::all()
{
    std::vector<Clip> clips;
    run("select id, kind, text, app, first, last, copies, pin, ord, key from clips", {}, [&clips](const Row &r) {
        Clip c;
        c.id = r.integer(0);
        c.kind = Clip::kindOf(r.text(1).value_or(QString()));
        c.text = r.text(2).value_or(QString());
        c.app = r.text(3);
        c.first = r.real(4);
        c.last = r.real(5);
        c.copies = r.integer(6);
        c.pin = r.text(7);
        c.order = r.real(8);
        c.key = r.text(9).value_or(QString());
        clips.push_back(std::move(c));
    });
    return clips;
}

std::vector<ClipContent> ClipStore::contents(qint64 id)
{
    std::vector<ClipContent> out;
    run("select type, value from contents where clip = ? order by rowid", {id}, [&out](const Row &r) {
        const auto type = r.text(0);
        if (type)
            out.push_back({*type, r.blob(1).value_or(QByteArray())});
    });
    return out;
}

std::optional<QByteArray> ClipStore::firstData(qint64 id, const QStringList &types)
{
    const std::vector<ClipContent> all = contents(id);
    for (const QString &type : types) {
        for (const ClipContent &c : all) {
            if (c.type == type)
                return c.data;
        }
    }
    return std::nullopt;
}

std::vector<qint64> ClipStore::unrecognized()
{
    std::vector<qint64> ids;
    run("select id from clips where kind = 'image' and ocr = 0 order by last desc", {},
        [&ids](const Row &r) { ids.push_back(r.integer(0)); });
    return ids;
}

void ClipStore::markRecognized(qint64 id) { run("update clips set ocr = 1 where id = ?", {id}); }

void ClipStore::vacuum() { run("pragma incremental_vacuum"); }

} // namespace zuv

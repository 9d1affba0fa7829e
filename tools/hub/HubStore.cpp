#include "HubStore.h"

#include <QJsonDocument>

#include <sqlite3.h>

namespace zuv::hub {

namespace {

// One prepared statement, finalised on every path.
class Statement {
public:
    Statement(sqlite3 *db, const char *sql) { sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr); }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement &text(int index, const QString &value)
    {
        const QByteArray utf8 = value.toUtf8();
        sqlite3_bind_text(m_stmt, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement &number(int index, double value)
    {
        sqlite3_bind_double(m_stmt, index, value);
        return *this;
    }
    Statement &integer(int index, qint64 value)
    {
        sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    bool step() { return m_stmt && sqlite3_step(m_stmt) == SQLITE_ROW; }
    void run() { step(); }
    QJsonObject json(int column) const
    {
        const auto *data = static_cast<const char *>(sqlite3_column_blob(m_stmt, column));
        const QByteArray bytes(data, sqlite3_column_bytes(m_stmt, column));
        return QJsonDocument::fromJson(bytes).object();
    }

private:
    sqlite3_stmt *m_stmt = nullptr;
};

} // namespace

HubStore::HubStore(const QString &file)
{
    if (sqlite3_open(file.toUtf8().constData(), &m_db) != SQLITE_OK) {
        m_problem = QString::fromUtf8(sqlite3_errmsg(m_db));
        sqlite3_close(m_db);
        m_db = nullptr;
        return;
    }
    sqlite3_busy_timeout(m_db, 2000);
    char *error = nullptr;
    if (sqlite3_exec(m_db,
                     "PRAGMA journal_mode=WAL;"
                     "CREATE TABLE IF NOT EXISTS records (kind TEXT NOT NULL, id TEXT NOT NULL, grp TEXT NOT NULL,"
                     " at REAL NOT NULL, json BLOB NOT NULL, PRIMARY KEY (kind, id));"
                     "CREATE INDEX IF NOT EXISTS records_by_group ON records (kind, grp, at);",
                     nullptr, nullptr, &error)
        != SQLITE_OK) {
        m_problem = QString::fromUtf8(error ? error : "cannot create the tables");
        sqlite3_free(error);
        sqlite3_close(m_db);
        m_db = nullptr;
    }
}

HubStore::~HubStore()
{
    if (m_db)
        sqlite3_close(m_db);
}

void HubStore::put(const QString &kind, const QString &id, const QJsonObject &record, const QString &group, double at)
{
    Statement s(m_db, "INSERT OR REPLACE INTO records (kind, id, grp, at, json) VALUES (?, ?, ?, ?, ?)");
    s.text(1, kind).text(2, id).text(3, group).number(4, at).text(5, QString::fromUtf8(QJsonDocument(record).toJson(QJsonDocument::Compact)));
    s.run();
}

std::optional<QJsonObject> HubStore::get(const QString &kind, const QString &id) const
{
    Statement s(m_db, "SELECT json FROM records WHERE kind = ? AND id = ?");
    s.text(1, kind).text(2, id);
    if (!s.step())
        return std::nullopt;
    return s.json(0);
}

void HubStore::remove(const QString &kind, const QString &id)
{
    Statement s(m_db, "DELETE FROM records WHERE kind = ? AND id = ?");
    s.text(1, kind).text(2, id).run();
}

void HubStore::removeGroup(const QString &kind, const QString &group)
{
    Statement s(m_db, "DELETE FROM records WHERE kind = ? AND grp = ?");
    s.text(1, kind).text(2, group).run();
}

void HubStore::clear()
{
    Statement s(m_db, "DELETE FROM records");
    s.run();
}

std::vector<QJsonObject> HubStore::list(const QString &kind, const QString &group, int limit) const
{
    Statement s(m_db, group.isNull() ? "SELECT json FROM records WHERE kind = ? ORDER BY at DESC LIMIT ?"
                                     : "SELECT json FROM records WHERE kind = ? AND grp = ? ORDER BY at DESC LIMIT ?");
    s.text(1, kind);
    if (group.isNull())
        s.integer(2, limit);
    else
        s.text(2, group).integer(3, limit);
    std::vector<QJsonObject> out;
    while (s.step())
        out.push_back(s.json(0));
    return out;
}

std::vector<QJsonObject> HubStore::search(const QString &kind, const QString &text, int limit) const
{
    // instr over lower-cased text: no LIKE, so that % and _ in a query are plain characters.
    Statement s(m_db, "SELECT json FROM records WHERE kind = ? AND instr(lower(json_extract(json, '$.text')), lower(?)) > 0"
                      " ORDER BY at DESC LIMIT ?");
    s.text(1, kind).text(2, text).integer(3, limit);
    std::vector<QJsonObject> out;
    while (s.step())
        out.push_back(s.json(0));
    return out;
}

} // namespace zuv::hub

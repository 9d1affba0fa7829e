#pragma once

#include "base/Error.h"
#include "clipboard/Clip.h"

#include <QByteArray>
#include <QHash>
#include <QRecursiveMutex>
#include <QStringList>
#include <QString>

#include <functional>
#include <optional>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace zuv {

// The durable half of the clipboard history: one SQLite file with every clip's
// row and the raw pasteboard data that belongs to it. One connection, opened in
// full-mutex mode, serves the main thread and the text recognition worker;
// statements are prepared once and kept.
class ClipStore {
public:
    class Failure : public Error {
    public:
        using Error::Error;
    };

    // A value bound to a statement: none binds SQL null.
    using Value = std::variant<qint64, double, std::optional<QString>, QByteArray>;

    // A result row, read by column index.
    class Row {
    public:
        explicit Row(sqlite3_stmt *statement) : m_statement(statement) {}
        qint64 integer(int column) const;
        double real(int column) const;
        std::optional<QString> text(int column) const;
        std::optional<QByteArray> blob(int column) const;

    private:
        sqlite3_stmt *m_statement;
    };

    // Opens `path`, read-write (made with its schema) or read-only (left as it
    // is). Throws Failure with SQLite's own words.
    ClipStore(const QString &path, bool readOnly = false);
    ~ClipStore();
    ClipStore(const ClipStore &) = delete;
    ClipStore &operator=(const ClipStore &) = delete;

    bool run(const QByteArray &sql, const std::vector<Value> &values = {},
             const std::function<void(const Row &)> &row = {});

    std::optional<qint64> insert(const Clip &clip, const std::vector<ClipContent> &contents, bool transaction = true);
    void update(const Clip &clip);
    void remove(const std::vector<qint64> &ids);
    std::vector<Clip> all();
    std::vector<ClipContent> contents(qint64 id);
    // The data of the first of `types`, in the caller's order, that the clip has.
    std::optional<QByteArray> firstData(qint64 id, const QStringList &types);
    std::vector<qint64> unrecognized();
    void markRecognized(qint64 id);
    void vacuum();
    // Gives back the page cache that a full read filled.
    void releaseMemory();

private:
    sqlite3_stmt *statement(const QByteArray &sql);

    sqlite3 *m_db = nullptr;
    QRecursiveMutex m_mutex; // the statement cache and each use of a statement
    QHash<QByteArray, sqlite3_stmt *> m_statements;
};

} // namespace zuv

/// A thin C++ face of the SQLite C API for the metadata store: a connection that closes
/// itself, prepared statements kept for the connection's life, and every failure turned
/// into a StoreError naming the statement.
#ifndef VEXO_CLOUD_SQLITE_DB_H
#define VEXO_CLOUD_SQLITE_DB_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace vexo_cloud {

/// One prepared statement, reset when a Query on it ends.
class Query {
  public:
    Query(sqlite3 *db, sqlite3_stmt *statement);
    ~Query();
    Query(const Query &) = delete;
    Query &operator=(const Query &) = delete;

    // Parameters are numbered from 1, in the order of the statement's '?'.
    Query &bind(int index, int64_t value);
    Query &bind(int index, const std::string &value);
    Query &bind_null(int index);
    Query &bind(int index, const std::optional<uint64_t> &value);

    /// Next row: true while there is one. Throws StoreError on failure.
    bool step();
    /// Runs a statement that returns no rows.
    void run();

    int64_t integer(int column) const;
    std::string text(int column) const;
    bool is_null(int column) const;
    std::optional<uint64_t> optional_integer(int column) const;

  private:
    [[noreturn]] void fail(const char *what) const;

    sqlite3 *db_;
    sqlite3_stmt *statement_;
};

class SqliteDb {
  public:
    /// Opens (read_only: never creates) the database file at path. Throws StoreError.
    SqliteDb(const std::string &path, bool read_only);
    ~SqliteDb();
    SqliteDb(const SqliteDb &) = delete;
    SqliteDb &operator=(const SqliteDb &) = delete;

    /// Runs SQL text of one or more statements without parameters.
    void exec(const std::string &sql);
    /// The statement for sql, prepared once and kept.
    Query query(const std::string &sql);
    int64_t changes() const;

  private:
    sqlite3 *db_ = nullptr;
    std::map<std::string, sqlite3_stmt *> statements_;
};

} // namespace vexo_cloud

#endif

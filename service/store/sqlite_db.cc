/// The SQLite connection and statements of the metadata store.
#include "sqlite_db.h"

#include <sqlite3.h>

#include "metadata_store.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

/// How long a statement waits for another connection's write lock (a reading tool's
/// checkpoint, a second reader) before it fails.
constexpr int kBusyTimeoutMs = 5000;

} // namespace

// ---- Query ---------------------------------------------------------------------------------

Query::Query(sqlite3 *db, sqlite3_stmt *statement) : db_(db), statement_(statement) {}

Query::~Query() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

void Query::fail(const char *what) const {
    throw StoreError(std::string(what) + " \"" + sqlite3_sql(statement_) +
                     "\": " + sqlite3_errmsg(db_));
}

Query &Query::bind(int index, int64_t value) {
    if (sqlite3_bind_int64(statement_, index, value) != SQLITE_OK) {
        fail("cannot bind a value of");
    }
    return *this;
}

Query &Query::bind(int index, const std::string &value) {
    if (sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        fail("cannot bind a value of");
    }
    return *this;
}

Query &Query::bind_null(int index) {
    if (sqlite3_bind_null(statement_, index) != SQLITE_OK) {
        fail("cannot bind a value of");
    }
    return *this;
}

Query &Query::bind(int index, const std::optional<uint64_t> &value) {
    return value ? bind(index, static_cast<int64_t>(*value)) : bind_null(index);
}

bool Query::step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) {
        return true;
    }
    if (result != SQLITE_DONE) {
        fail("cannot run");
    }
    return false;
}

void Query::run() {
    while (step()) {
    }
}

int64_t Query::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::string Query::text(int column) const {
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<size_t>(size));
}

bool Query::is_null(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::optional<uint64_t> Query::optional_integer(int column) const {
    if (is_null(column)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(integer(column));
}

// ---- SqliteDb ------------------------------------------------------------------------------

SqliteDb::SqliteDb(const std::string &path, bool read_only) {
    const int flags =
        (read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
        SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        const std::string reason = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        throw StoreError("cannot open the database " + path + ": " + reason);
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    sqlite3_extended_result_codes(db_, 1);
}

SqliteDb::~SqliteDb() {
    for (auto &item : statements_) {
        sqlite3_finalize(item.second);
    }
    sqlite3_close(db_);
}

void SqliteDb::exec(const std::string &sql) {
    char *message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string reason = message != nullptr ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        throw StoreError("cannot run \"" + sql.substr(0, 80) + "\": " + reason);
    }
}

Query SqliteDb::query(const std::string &sql) {
    auto found = statements_.find(sql);
    if (found == statements_.end()) {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement,
                               nullptr) != SQLITE_OK) {
            throw StoreError("cannot prepare \"" + sql + "\": " + sqlite3_errmsg(db_));
        }
        found = statements_.emplace(sql, statement).first;
    }
    return Query(db_, found->second);
}

int64_t SqliteDb::changes() const {
    return sqlite3_changes64(db_);
}

} // namespace vexo_cloud

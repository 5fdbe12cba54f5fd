/// The PostgreSQL connection and statements of the metadata store.
#include "pg_connection.h"

#include <libpq-fe.h>

#include <cstdlib>

#include "metadata_store.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

/// libpq's messages end with a newline; the log line adds its own.
std::string message_of(const char *text) {
    std::string message = text != nullptr ? text : "";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
        message.pop_back();
    }
    return message;
}

/// The start of a statement, to name it in an error without the whole text.
std::string statement_name(const std::string &sql) {
    constexpr size_t kShown = 60;
    return sql.size() <= kShown ? sql : sql.substr(0, kShown) + "...";
}

} // namespace

// ---- parameters and results ----------------------------------------------------------------

PgParams &PgParams::add(int64_t value) {
    values_.emplace_back(std::to_string(value));
    return *this;
}

PgParams &PgParams::add(const std::string &value) {
    values_.emplace_back(value);
    return *this;
}

PgParams &PgParams::add(const std::optional<uint64_t> &value) {
    values_.push_back(value ? std::optional<std::string>(std::to_string(*value)) : std::nullopt);
    return *this;
}

PgResult::PgResult(pg_result *result) : result_(result) {}

PgResult::~PgResult() {
    if (result_ != nullptr) {
        PQclear(result_);
    }
}

PgResult::PgResult(PgResult &&other) noexcept : result_(other.result_) {
    other.result_ = nullptr;
}

int PgResult::rows() const {
    return PQntuples(result_);
}

int64_t PgResult::changed() const {
    const char *count = PQcmdTuples(result_);
    return count != nullptr && *count != '\0' ? std::strtoll(count, nullptr, 10) : 0;
}

int64_t PgResult::integer(int row, int column) const {
    // Integers, and numeric sums of them, come as their decimal text.
    return std::strtoll(PQgetvalue(result_, row, column), nullptr, 10);
}

std::string PgResult::text(int row, int column) const {
    return std::string(PQgetvalue(result_, row, column),
                       static_cast<size_t>(PQgetlength(result_, row, column)));
}

bool PgResult::is_null(int row, int column) const {
    return PQgetisnull(result_, row, column) != 0;
}

std::optional<uint64_t> PgResult::optional_integer(int row, int column) const {
    if (is_null(row, column)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(integer(row, column));
}

bool PgResult::boolean(int row, int column) const {
    return PQgetvalue(result_, row, column)[0] == 't';
}

// ---- the connection ------------------------------------------------------------------------

PgConnection::PgConnection(std::string url) : url_(std::move(url)) {
    connect();
    reconnected_ = false;
}

PgConnection::~PgConnection() {
    if (conn_ != nullptr) {
        PQfinish(conn_);
    }
}

void PgConnection::connect() {
    if (conn_ != nullptr) {
        PQfinish(conn_);
    }
    conn_ = PQconnectdb(url_.c_str());
    if (conn_ == nullptr) {
        throw StoreError("cannot connect to PostgreSQL: out of memory");
    }
    if (PQstatus(conn_) != CONNECTION_OK) {
        const std::string message = message_of(PQerrorMessage(conn_));
        PQfinish(conn_);
        conn_ = nullptr;
        throw StoreUnavailable("cannot connect to PostgreSQL: " + message);
    }
    // Notices (e.g. "relation already exists, skipping") are not the service's log.
    PQsetNoticeProcessor(
        conn_, [](void *, const char *) {}, nullptr);
    reconnected_ = true;
}

bool PgConnection::reconnected() {
    const bool was = reconnected_;
    reconnected_ = false;
    return was;
}

void PgConnection::connect_if_lost() {
    if (conn_ == nullptr || PQstatus(conn_) != CONNECTION_OK) {
        connect();
    }
}

void PgConnection::fail(const std::string &sql) const {
    const std::string message =
        "PostgreSQL: " + statement_name(sql) + ": " + message_of(PQerrorMessage(conn_));
    if (PQstatus(conn_) != CONNECTION_OK) {
        // Marked bad, so the next call connects again.
        throw StoreUnavailable(message);
    }
    throw StoreError(message);
}

void PgConnection::run_script(const std::string &sql) {
    connect_if_lost();
    PgResult result(PQexec(conn_, sql.c_str()));
    if (PQresultStatus(result.result_) != PGRES_COMMAND_OK) {
        fail(sql);
    }
}

PgResult PgConnection::run(const std::string &sql, const PgParams &params) {
    connect_if_lost();
    std::vector<const char *> values;
    values.reserve(params.values().size());
    for (const std::optional<std::string> &value : params.values()) {
        values.push_back(value ? value->c_str() : nullptr);
    }
    PgResult result(PQexecParams(conn_, sql.c_str(), static_cast<int>(values.size()), nullptr,
                                 values.data(), nullptr, nullptr, 0));
    const ExecStatusType status = PQresultStatus(result.result_);
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        return result;
    }
    fail(sql);
}

} // namespace vexo_cloud

/// A thin C++ face of libpq for the metadata store on PostgreSQL: one connection that is
/// opened again on the next call after it was lost, statements with parameters only, and
/// every failure turned into a StoreError with the server's message.
#ifndef VEXO_CLOUD_PG_CONNECTION_H
#define VEXO_CLOUD_PG_CONNECTION_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct pg_conn;
struct pg_result;

namespace vexo_cloud {

/// The parameters of one statement, $1, $2, ... in the order they are added; sent as text.
class PgParams {
  public:
    PgParams &add(int64_t value);
    PgParams &add(const std::string &value);
    PgParams &add(const std::optional<uint64_t> &value); ///< nullopt: NULL
    const std::vector<std::optional<std::string>> &values() const { return values_; }

  private:
    std::vector<std::optional<std::string>> values_;
};

/// The rows of one statement's answer, cleared when it goes.
class PgResult {
  public:
    explicit PgResult(pg_result *result);
    ~PgResult();
    PgResult(PgResult &&other) noexcept;
    PgResult(const PgResult &) = delete;
    PgResult &operator=(const PgResult &) = delete;
    PgResult &operator=(PgResult &&) = delete;

    int rows() const;
    /// Rows a statement changed (INSERT, UPDATE, DELETE).
    int64_t changed() const;
    int64_t integer(int row, int column) const;
    std::string text(int row, int column) const;
    bool is_null(int row, int column) const;
    std::optional<uint64_t> optional_integer(int row, int column) const;
    bool boolean(int row, int column) const;

  private:
    friend class PgConnection;
    pg_result *result_;
};

class PgConnection {
  public:
    /// Connects to url (postgresql://...). Throws StoreError when it cannot.
    explicit PgConnection(std::string url);
    ~PgConnection();
    PgConnection(const PgConnection &) = delete;
    PgConnection &operator=(const PgConnection &) = delete;

    /// Runs one statement with params. A connection found lost is opened again first; a
    /// failure (also of the connection, which the next call then opens again) throws
    /// StoreError naming what failed.
    PgResult run(const std::string &sql, const PgParams &params = PgParams());
    /// Runs SQL text of one or more statements without parameters (the schema's migrations).
    void run_script(const std::string &sql);
    /// True when the connection was opened again since the last call of this: what a session
    /// held (e.g. an advisory lock) is gone.
    bool reconnected();

  private:
    void connect();
    void connect_if_lost();
    [[noreturn]] void fail(const std::string &sql) const;

    std::string url_;
    pg_conn *conn_ = nullptr;
    bool reconnected_ = false;
};

} // namespace vexo_cloud

#endif

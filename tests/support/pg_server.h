// A PostgreSQL server of a test's own: scripts/pg.sh runs it in a fresh temporary directory
// on a free loopback port, and it is stopped when the object goes.
#ifndef VEXO_TESTS_SUPPORT_PG_SERVER_H
#define VEXO_TESTS_SUPPORT_PG_SERVER_H

#include <cstdint>
#include <string>

namespace vexo_test {

class PgServer {
  public:
    /// True when this machine has the PostgreSQL server programs (scripts/install-deps.sh).
    static bool installed();

    PgServer();
    ~PgServer();
    PgServer(const PgServer &) = delete;
    PgServer &operator=(const PgServer &) = delete;

    /// Starts it (again, on the same port and data); false, with output() saying why, when it
    /// did not come up.
    bool start();
    /// Stops it (connections are ended); false when pg.sh failed.
    bool stop();
    /// What pg.sh printed last.
    const std::string &output() const { return output_; }
    /// The URL of a database on it.
    std::string url(const std::string &database = "postgres") const;
    /// A new empty database on it: its URL. Empty, with output() saying why, on failure.
    std::string new_database();
    /// Runs SQL (no parameters) on the database at url; its error, empty on success.
    static std::string exec(const std::string &url, const std::string &sql);

  private:
    bool script(const std::string &args);

    std::string dir_;
    uint16_t port_ = 0;
    bool running_ = false;
    int databases_ = 0;
    std::string output_;
};

/// One server for the whole test program, started at its first use; nullptr (the reason in
/// *why) when it cannot start.
PgServer *shared_pg_server(std::string *why);

} // namespace vexo_test

#endif

/// The SQLite and PostgreSQL engines of the metadata store tests.
#include "metadata_store_engines.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "pg_metadata_store.h"
#include "pg_server.h"
#include "sqlite_metadata_store.h"

namespace service_test {

namespace {

class SqliteEngine : public StoreEngine {
  public:
    explicit SqliteEngine(const std::string &dir) : dir_(dir), path_(dir + "/store.db") {}
    std::unique_ptr<vexo_cloud::MetadataStore> open(bool read_only) override {
        return std::make_unique<vexo_cloud::SqliteMetadataStore>(path_, read_only);
    }
    void exec(const std::string &sql) override {
        sqlite3 *db = nullptr;
        ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
        sqlite3_close(db);
    }
    std::string newer_schema_sql() const override { return "PRAGMA user_version = 99"; }
    std::unique_ptr<vexo_cloud::MetadataStore> open_missing() override {
        return std::make_unique<vexo_cloud::SqliteMetadataStore>(dir_ + "/none.db", true);
    }

  private:
    std::string dir_;
    std::string path_;
};

class PostgresEngine : public StoreEngine {
  public:
    PostgresEngine() {
        if (!installed()) {
            return;
        }
        if (vexo_test::PgServer *server = vexo_test::shared_pg_server(&why_not_)) {
            url_ = server->new_database();
            if (url_.empty()) {
                why_not_ = server->output();
            }
        }
    }
    bool installed() const override { return vexo_test::PgServer::installed(); }
    std::string why_not() const override { return why_not_; }
    std::unique_ptr<vexo_cloud::MetadataStore> open(bool) override {
        return std::make_unique<vexo_cloud::PgMetadataStore>(url_);
    }
    void exec(const std::string &sql) override {
        EXPECT_EQ(vexo_test::PgServer::exec(url_, sql), "");
    }
    std::string newer_schema_sql() const override {
        return "INSERT INTO schema_version(version) VALUES(99)";
    }
    std::unique_ptr<vexo_cloud::MetadataStore> open_missing() override {
        // A database that was never created, on the same server.
        return std::make_unique<vexo_cloud::PgMetadataStore>(url_ + "_none");
    }

  private:
    std::string url_;
    std::string why_not_;
};

} // namespace

std::string engine_name(Engine engine) {
    return engine == Engine::kSqlite ? "Sqlite" : "Postgres";
}

std::unique_ptr<StoreEngine> make_engine(Engine engine, const std::string &dir) {
    if (engine == Engine::kSqlite) {
        return std::make_unique<SqliteEngine>(dir);
    }
    return std::make_unique<PostgresEngine>();
}

} // namespace service_test

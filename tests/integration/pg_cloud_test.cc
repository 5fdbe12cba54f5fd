// vexo-cloud with its metadata in PostgreSQL (--db postgresql://...): a camera's upload lands
// in the database, not in the data directory, and a second service sharing the database
// sees it and leaves the first one's rows alone, unless it shares the media too.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <filesystem>

#include "network_cloud.h"
#include "pg_server.h"

namespace integration {
namespace {

namespace fs = std::filesystem;

const std::string kDevice = "pg-cam";

/// The one value an SQL query on url answers; empty when it failed.
std::string query_text(const std::string &url, const std::string &sql) {
    PGconn *conn = PQconnectdb(url.c_str());
    std::string value;
    if (PQstatus(conn) == CONNECTION_OK) {
        PGresult *result = PQexec(conn, sql.c_str());
        if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1) {
            value = PQgetvalue(result, 0, 0);
        }
        PQclear(result);
    }
    PQfinish(conn);
    return value;
}

/// One number an SQL query on url answers; -1 when it failed.
long long query_number(const std::string &url, const std::string &sql) {
    const std::string text = query_text(url, sql);
    return text.empty() ? -1 : std::atoll(text.c_str());
}

TEST(PgCloudTest, AnUploadLandsInPostgresAndASecondServiceSharesIt) {
    if (!vexo_test::PgServer::installed()) {
        GTEST_SKIP() << "no PostgreSQL server programs here: run scripts/install-deps.sh";
    }
    e2e::TempDir tmp;
    vexo_test::PgServer server;
    ASSERT_TRUE(server.start()) << server.output();
    const std::string db = server.new_database();
    ASSERT_NE(db, "") << server.output();

    for (const char *dir : {"/first", "/second"}) {
        fs::create_directories(tmp.path() + dir);
    }
    Cloud first(tmp.path() + "/first", "", {"--db", db});
    ASSERT_TRUE(first.up()) << first.log();
    const Clip clip = make_clip(tmp.path());
    const e2e::Result r = e2e::run({kCamsim,      "--quiet", "--input",
                                    clip.path,    "--data",  tmp.path() + "/camera",
                                    "--device",   kDevice,   "--cloud",
                                    first.url(),  "--speed", "2",
                                    "--duration", "14",      "--event-duration",
                                    "6",          "--slice", "4",
                                    "--motion",   "2"});
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(first.stop(), 0);

    const std::string of_device = " WHERE device = '" + kDevice + "'";
    EXPECT_EQ(query_number(db, "SELECT count(*) FROM recordings" + of_device), 1) << first.log();
    const long long files = query_number(db, "SELECT count(*) FROM media" + of_device);
    EXPECT_GT(files, 0) << first.log();
    EXPECT_FALSE(fs::exists(first.data() + "/vexo-cloud.db")) << "the metadata went elsewhere";
    EXPECT_TRUE(fs::exists(first.data() + "/" + kDevice)) << "the media stay in --data";

    // A second service on the same database, with a data directory of its own: it lists the
    // recording, and its start-up check leaves the rows of files it does not hold.
    Cloud second(tmp.path() + "/second", "", {"--db", db});
    ASSERT_TRUE(second.up()) << second.log();
    const e2e::Result listed = second.admin({"recordings", kDevice, "--json"});
    EXPECT_EQ(listed.status, 0) << listed.out;
    EXPECT_NE(listed.out.find("\"startTime\""), std::string::npos) << listed.out;
    EXPECT_EQ(second.stop(), 0);
    EXPECT_EQ(query_number(db, "SELECT count(*) FROM media" + of_device), files) << second.log();
    EXPECT_NE(second.log().find("kept, as the metadata is shared"), std::string::npos)
        << second.log();

    // A third one sharing the first one's media as well: a row whose file is gone goes, as
    // with one service; a file without its row may be another's upload on its way: kept.
    ASSERT_GE(files, 2) << first.log();
    const std::string gone = query_text(db, "SELECT min(object) FROM media" + of_device);
    const std::string rowless = query_text(db, "SELECT max(object) FROM media" + of_device);
    ASSERT_TRUE(fs::remove(first.data() + "/" + gone)) << gone;
    ASSERT_EQ(query_number(db, "WITH d AS (DELETE FROM media WHERE object = '" + rowless +
                                   "' RETURNING 1) SELECT count(*) FROM d"),
              1);
    fs::create_directories(tmp.path() + "/third");
    Cloud third(tmp.path() + "/third", "", {"--db", db, "--media", "file:" + first.data()});
    ASSERT_TRUE(third.up()) << third.log();
    EXPECT_EQ(third.stop(), 0);
    EXPECT_EQ(query_number(db, "SELECT count(*) FROM media" + of_device), files - 2) << third.log();
    EXPECT_NE(third.log().find("media row " + gone + " dropped: its file is gone"),
              std::string::npos)
        << third.log();
    EXPECT_NE(third.log().find("1 media files without their rows left alone"), std::string::npos)
        << third.log();
    EXPECT_TRUE(fs::exists(first.data() + "/" + rowless)) << "neither adopted nor set aside";
}

} // namespace
} // namespace integration

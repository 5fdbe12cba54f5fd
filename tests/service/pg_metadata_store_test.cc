/// What only the PostgreSQL store has: several stores (services) on one database, the lead of
/// background jobs, and a server that goes away and comes back.
#include <gtest/gtest.h>

#include <libpq-fe.h>

#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "pg_metadata_store.h"
#include "pg_server.h"

namespace service_test {
namespace {

using vexo_cloud::PgMetadataStore;
using vexo_cloud::StoreError;
using vexo_test::PgServer;

class PgStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!PgServer::installed()) {
            GTEST_SKIP() << "no PostgreSQL server programs here: run scripts/install-deps.sh";
        }
    }
    /// A fresh database on the test program's server.
    std::string new_database() {
        std::string why;
        PgServer *server = vexo_test::shared_pg_server(&why);
        EXPECT_NE(server, nullptr) << why;
        const std::string url = server != nullptr ? server->new_database() : "";
        EXPECT_NE(url, "") << (server != nullptr ? server->output() : why);
        return url;
    }
};

TEST_F(PgStoreTest, TwoStoresOnOneDatabaseSeeEachOthersRowsAndNeverShareAnAlarmId) {
    const std::string url = new_database();
    PgMetadataStore a(url);
    PgMetadataStore b(url); // the schema is there already: nothing to migrate
    vexo_cloud::RecordingRow recording;
    recording.device = "cam1";
    recording.start_time = 100;
    recording.payload_info = "{}";
    a.put_recording(recording);
    ASSERT_TRUE(b.recording("cam1", 100));

    // A transaction's rows show to the other store only once it commits.
    a.transaction([&] {
        recording.start_time = 200;
        a.put_recording(recording);
        EXPECT_FALSE(b.recording("cam1", 200));
    });
    EXPECT_TRUE(b.recording("cam1", 200));

    // Ids handed out by both, interleaved, are all different; an alarm stored under an id
    // neither handed out moves both past it.
    std::set<int64_t> ids;
    for (int i = 0; i < 5; ++i) {
        ids.insert(a.next_alarm_id());
        ids.insert(b.next_alarm_id());
    }
    EXPECT_EQ(ids.size(), 10u);
    a.add_alarm({1000, "cam1", 5, false, "", "", 5});
    EXPECT_GT(b.next_alarm_id(), 1000);
    EXPECT_EQ(b.alarms("cam1").size(), 1u);
}

/// How many advisory locks sessions of url's server wait for; -1 when it cannot tell.
long long waiting_advisory_locks(const std::string &url) {
    PGconn *conn = PQconnectdb(url.c_str());
    long long count = -1;
    if (PQstatus(conn) == CONNECTION_OK) {
        PGresult *r = PQexec(
            conn, "SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND NOT granted");
        if (PQresultStatus(r) == PGRES_TUPLES_OK && PQntuples(r) == 1) {
            count = std::atoll(PQgetvalue(r, 0, 0));
        }
        PQclear(r);
    }
    PQfinish(conn);
    return count;
}

TEST_F(PgStoreTest, ADevicesLockMakesAQuotaCheckAndItsRowOneStepAcrossStores) {
    const std::string url = new_database();
    PgMetadataStore a(url);
    PgMetadataStore b(url);
    EXPECT_THROW(a.lock_device("cam1"), StoreError) << "outside a transaction it holds nothing";
    // A quota of one alarm: each store counts, then adds when there is room. b starts while a
    // holds the lock between its count and its row; b must count a's row.
    const auto add_if_room = [](PgMetadataStore &store, int64_t id, uint64_t *seen) {
        store.transaction([&] {
            store.lock_device("cam1");
            *seen = store.alarm_count("cam1", 0, UINT32_MAX);
            if (*seen == 0) {
                store.add_alarm({id, "cam1", 5, false, "", "", 5});
            }
        });
    };
    uint64_t seen_a = 9;
    uint64_t seen_b = 9;
    std::thread other;
    a.transaction([&] {
        a.lock_device("cam1");
        seen_a = a.alarm_count("cam1", 0, UINT32_MAX);
        other = std::thread([&] { add_if_room(b, 2, &seen_b); });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (waiting_advisory_locks(url) < 1 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        EXPECT_EQ(waiting_advisory_locks(url), 1) << "b waits for a's lock";
        PgMetadataStore c(url);
        c.transaction([&] { c.lock_device("cam2"); }); // another device's lock: no waiting
        if (seen_a == 0) {
            a.add_alarm({1, "cam1", 5, false, "", "", 5});
        }
    });
    other.join();
    EXPECT_EQ(seen_a, 0u);
    EXPECT_EQ(seen_b, 1u) << "b counted after a's row committed";
    EXPECT_EQ(a.alarms("cam1").size(), 1u);
}

TEST_F(PgStoreTest, OneStoreAtATimeLeadsAJob) {
    const std::string url = new_database();
    PgMetadataStore a(url);
    PgMetadataStore b(url);
    EXPECT_TRUE(a.try_lead("retention"));
    EXPECT_TRUE(a.try_lead("retention")) << "the holder keeps it";
    EXPECT_FALSE(b.try_lead("retention"));
    EXPECT_TRUE(b.try_lead("media check")) << "another job is another lock";
    a.end_lead("retention");
    EXPECT_TRUE(b.try_lead("retention"));
    EXPECT_FALSE(a.try_lead("retention"));
    {
        // A service that dies lets its leads go with its connection.
        PgMetadataStore c(url);
        b.end_lead("retention");
        EXPECT_TRUE(c.try_lead("retention"));
        EXPECT_FALSE(b.try_lead("retention"));
    }
    // The server ends the closed session on its own time: wait for it, with a bound.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool taken = false;
    while (!(taken = b.try_lead("retention")) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(taken);
}

TEST_F(PgStoreTest, AStoreFailsWhileTheServerIsDownAndWorksOnceItIsBack) {
    PgServer server; // its own: the others' stores keep theirs
    ASSERT_TRUE(server.start()) << server.output();
    PgMetadataStore store(server.url());
    vexo_cloud::DeviceState state;
    state.key = "K";
    store.put_device("cam1", state);
    ASSERT_TRUE(store.try_lead("retention"));

    ASSERT_TRUE(server.stop()) << server.output();
    EXPECT_THROW(store.device_ids(), vexo_cloud::StoreUnavailable);
    EXPECT_THROW(store.put_device("cam2", state), StoreError) << "still down: no reconnect";
    EXPECT_THROW(store.transaction([&] { store.put_device("cam2", state); }), StoreError);

    ASSERT_TRUE(server.start()) << server.output();
    EXPECT_EQ(store.device_ids(), std::vector<std::string>{"cam1"});
    EXPECT_EQ(store.device("cam1")->key, "K");
    // The lead went with the old connection; another store can take it, this one no longer
    // counts itself its holder.
    PgMetadataStore other(server.url());
    EXPECT_TRUE(other.try_lead("retention"));
    EXPECT_FALSE(store.try_lead("retention"));
}

} // namespace
} // namespace service_test

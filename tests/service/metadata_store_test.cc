/// The metadata store on each engine (SQLite, and PostgreSQL on a server of the test's own):
/// every kind of row written and read back, the queries a storage policy needs (usage, alarms
/// per day, oldest recordings), transactions that keep all or nothing, damaged rows moved to
/// the quarantine, and a schema newer than the program's refused.
#include <gtest/gtest.h>
#include <stdexcept>

#include "metadata_store_engines.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::MetadataStore;

class MetadataStoreTest : public ServiceTest, public ::testing::WithParamInterface<Engine> {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        engine_ = make_engine(GetParam(), dir_);
        if (!engine_->installed()) {
            GTEST_SKIP() << "no PostgreSQL server programs here: run scripts/install-deps.sh";
        }
        ASSERT_TRUE(engine_->why_not().empty()) << engine_->why_not();
    }
    std::unique_ptr<MetadataStore> open(bool read_only = false) { return engine_->open(read_only); }
    void exec(const std::string &sql) { engine_->exec(sql); }

    static vexo_cloud::RecordingRow recording(const std::string &device, uint32_t start) {
        vexo_cloud::RecordingRow row;
        row.device = device;
        row.start_time = start;
        // Kept as sent, spacing and member order included.
        row.payload_info = R"({ "vWide":640,"v":1 })";
        row.mtu = 10;
        row.announced_md5 = "0000";
        row.key = "k";
        row.key_md5 = "m";
        return row;
    }
    static vexo_cloud::MediaRow media(const std::string &device, uint32_t start, int index,
                                      uint64_t bytes) {
        vexo_cloud::MediaRow row;
        row.device = device;
        row.start_time = start;
        row.name = std::to_string(start) + "_" + std::to_string(index) + ".media";
        row.bytes = bytes;
        row.sha256 = "ab";
        row.object = device + "/" + std::to_string(start) + "/" + row.name;
        return row;
    }

    std::unique_ptr<StoreEngine> engine_;
};

TEST_P(MetadataStoreTest, RowsRoundTripAndReopen) {
    {
        auto store_ptr = open();
        MetadataStore &store = *store_ptr;
        vexo_cloud::DeviceState state;
        state.order.aborted = true;
        state.key_history = {{"K0", "M0", 5}, {"K1", "M1", 9}};
        state.allowance = {20240310, 3};
        store.put_device("cam1", state);
        state.key_history.push_back({"K2", "M2", 11}); // the history only grows
        store.put_device("cam1", state);
        store.put_recording(recording("cam1", 100));
        store.add_alarm({1, "cam1", 50, true, "{\"u\":1}", "cam1/alarms/1.jpg", 51});
        EXPECT_TRUE(store.add_gap({"cam1", 10, 20, "spool full", 99}));
        EXPECT_FALSE(store.add_gap({"cam1", 10, 20, "spool full", 99}));
    }
    auto store_ptr = open(true);
    MetadataStore &store = *store_ptr;
    const auto state = store.device("cam1");
    ASSERT_TRUE(state);
    EXPECT_TRUE(state->order.aborted);
    EXPECT_EQ(state->allowance.events_started, 3);
    ASSERT_EQ(state->key_history.size(), 3u);
    EXPECT_EQ(state->key_history[2].issued, 11u);
    EXPECT_EQ(store.recording("cam1", 100)->payload_info, R"({ "vWide":640,"v":1 })");
    EXPECT_EQ(store.alarms("cam1").at(0).picture_object, "cam1/alarms/1.jpg");
    EXPECT_EQ(store.gaps("").size(), 1u);
    EXPECT_EQ(store.next_alarm_id(), 2) << "past the highest id stored";
}

TEST_P(MetadataStoreTest, PolicyQueriesCountBytesFilesAlarmsAndFindTheOldest) {
    auto store_ptr = open();
    MetadataStore &store = *store_ptr;
    const struct {
        uint32_t start;
        std::vector<uint64_t> files;
    } recordings[] = {{300, {10, 20}}, {100, {1}}, {200, {}}};
    for (const auto &r : recordings) {
        store.put_recording(recording("cam1", r.start));
        for (size_t i = 0; i < r.files.size(); ++i) {
            store.put_media(media("cam1", r.start, static_cast<int>(i), r.files[i]));
        }
    }
    store.put_recording(recording("cam2", 50));
    store.put_media(media("cam2", 50, 0, 1000));
    for (int64_t id = 1; id <= 4; ++id) {
        store.add_alarm(
            {id, "cam1", static_cast<uint32_t>(86400 * (id / 3) + 10), false, "", "", 0});
    }
    EXPECT_EQ(store.usage("cam1").bytes, 31u);
    EXPECT_EQ(store.usage("cam1").files, 3u);
    const auto of_300 = store.recording_media("cam1", 300);
    ASSERT_EQ(of_300.size(), 2u);
    EXPECT_EQ(of_300[0].name, "300_0.media");
    EXPECT_EQ(of_300[1].bytes, 20u);
    EXPECT_TRUE(store.recording_media("cam1", 200).empty());
    EXPECT_TRUE(store.recording_media("cam2", 300).empty()) << "another device's recording";
    EXPECT_EQ(store.alarm_count("cam1", 86400, 2 * 86400), 2u);
    const auto oldest = store.oldest_recordings("cam1", 2);
    ASSERT_EQ(oldest.size(), 2u);
    EXPECT_EQ(oldest[0].start_time, 100u);
    EXPECT_EQ(oldest[1].start_time, 200u);

    vexo_cloud::DeviceLimits limits;
    limits.max_bytes = 1ull << 40;
    limits.retention_days = 30;
    store.put_limits("cam1", limits);
    const auto back = store.limits("cam1");
    EXPECT_EQ(back.max_bytes, 1ull << 40);
    EXPECT_EQ(back.retention_days, 30u);
    EXPECT_FALSE(store.limits("cam2").max_bytes);
}

TEST_P(MetadataStoreTest, ATransactionKeepsAllOrNothing) {
    auto store_ptr = open();
    MetadataStore &store = *store_ptr;
    EXPECT_THROW(store.transaction([&] {
        store.put_recording(recording("cam1", 1));
        throw std::runtime_error("stop");
    }),
                 std::runtime_error);
    EXPECT_FALSE(store.recording("cam1", 1));
    store.transaction([&] {
        store.put_recording(recording("cam1", 1));
        EXPECT_THROW(store.transaction([] {}), vexo_cloud::StoreError);
    });
    EXPECT_TRUE(store.recording("cam1", 1));
}

TEST_P(MetadataStoreTest, DamagedRowsGoToTheQuarantineAndTheRestStays) {
    {
        auto store_ptr = open();
        MetadataStore &store = *store_ptr;
        for (uint32_t start : {1u, 2u, 3u}) {
            store.put_recording(recording("cam1", start));
        }
        store.add_gap({"cam1", 10, 20, "too old", 0});
        store.add_gap({"cam1", 30, 40, "too old", 0});
        store.add_alarm({1, "cam1", 5, true, "", "cam1/alarms/1.jpg", 5});
        store.add_alarm({2, "cam1", 6, true, "", "cam2/alarms/2.jpg", 6});
    }
    exec("UPDATE recordings SET payload_info = '{\"v\":' WHERE start_time = 2;"
         "UPDATE recordings SET payload_info = '[1]' WHERE start_time = 3;"
         "UPDATE gaps SET to_time = 5 WHERE from_time = 30;");
    auto store_ptr = open();
    MetadataStore &store = *store_ptr;
    const auto moved = store.quarantine_damaged_rows(77);
    ASSERT_EQ(moved.size(), 4u);
    EXPECT_EQ(moved[0].kind, "recording");
    EXPECT_NE(moved[0].content.find("{\\\"v\\\":"), std::string::npos) << moved[0].content;
    EXPECT_EQ(moved[3].kind, "alarm");
    EXPECT_EQ(moved[3].at, 77u);
    // The recordings stay, with their keys, as recordings without a start notification.
    EXPECT_FALSE(store.recording("cam1", 2)->announced);
    EXPECT_EQ(store.gaps("cam1").size(), 1u);
    EXPECT_EQ(store.alarms("cam1").size(), 1u);
    EXPECT_TRUE(store.quarantine_damaged_rows(78).empty());
}

TEST_P(MetadataStoreTest, ANewerSchemaOrAMissingDatabaseIsRefused) {
    open();
    exec(engine_->newer_schema_sql());
    EXPECT_THROW(open(), vexo_cloud::StoreError);
    EXPECT_THROW(engine_->open_missing(), vexo_cloud::StoreError);
}

INSTANTIATE_TEST_SUITE_P(Engines, MetadataStoreTest,
                         ::testing::Values(Engine::kSqlite, Engine::kPostgres),
                         [](const ::testing::TestParamInfo<Engine> &p) {
                             return engine_name(p.param);
                         });

} // namespace
} // namespace service_test

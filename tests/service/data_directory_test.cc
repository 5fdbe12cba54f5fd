/// The data directory as a whole: a new service carries on where the last one stopped and
/// tools read it without a service; a directory of the JSON layout is imported once, with
/// what cannot be read quarantined; one service at a time holds it; and at start damaged rows
/// are quarantined and media files and rows reconciled, each with a log line.
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <unistd.h>

#include "data_lock.h"
#include "service/core/key_crypto.h"
#include "service_fixture.h"
#include "sqlite_metadata_store.h"

namespace service_test {
namespace {

namespace fs = std::filesystem;
using vexo_cloud::md5_hex;

constexpr char kKey[] = "AbCdEfGhIjKlMnOp";

void write(const std::string &path, const std::string &content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

class DataDirectoryTest : public ServiceTest {
  protected:
    std::unique_ptr<vexo_cloud::Service> start_logged() {
        vexo_cloud::Options opts = options();
        opts.log = [this](const std::string &line) { log_.push_back(line); };
        return start_service(std::move(opts));
    }
    size_t log_lines_with(const std::string &text) const {
        size_t n = 0;
        for (const std::string &line : log_) {
            n += line.find(text) != std::string::npos ? 1 : 0;
        }
        return n;
    }
    void exec(const std::string &sql) {
        sqlite3 *db = nullptr;
        ASSERT_EQ(sqlite3_open((dir_ + "/data/vexo-cloud.db").c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
        sqlite3_close(db);
    }
    std::vector<std::string> log_;
};

TEST_F(DataDirectoryTest, NewServiceReadsBackOrdersKeysAllowanceAndRecordings) {
    std::string key;
    {
        auto service = start_service();
        vexo_cloud::OrderChange order;
        order.daily_events = 5;
        order.slice_duration = 6;
        std::string error;
        ASSERT_TRUE(service->set_order("cam1", order, &error));
        ASSERT_TRUE(service->abort_order("cam2", &error));
        key = start(*service, "cam1", kNoon, kNoKeyMd5)["encryptKey"];
        start(*service, "cam1", kNoon + 60, md5_hex(key));
        call_api(*service, "cam1", kStopApi,
                 Json{{"startTime", kNoon}, {"endTime", kNoon + 20}}.dump());
        put_media(*service, "cam1", "1710072000_0001.media", "bb");
        put_media(*service, "cam1", "1710072000_0000.media", "a");
    }
    auto service = start_service();
    EXPECT_EQ(service->devices(), (std::vector<std::string>{"cam1", "cam2"}));
    EXPECT_EQ(service->order("cam1")->slice_duration, 6);
    EXPECT_TRUE(service->order("cam2")->aborted);
    // The key survived, and a repeated startTime is still known as not new.
    EXPECT_EQ(start(*service, "cam1", kNoon + 60, md5_hex(key))["needUpdate"], false);
    EXPECT_EQ(service->count_left("cam1"), 3);

    const auto recordings = service->recordings("cam1");
    ASSERT_EQ(recordings.size(), 2u);
    const vexo_cloud::Recording &first = recordings[0];
    EXPECT_EQ(first.end_time, kNoon + 20);
    EXPECT_EQ(first.key, key);
    EXPECT_EQ(first.announced_md5, kNoKeyMd5);
    EXPECT_EQ(first.mtu, 10);
    EXPECT_EQ(Json::parse(first.payload_info)["vWide"], 640);
    EXPECT_EQ(first.directory, dir_ + "/data/cam1/1710072000");
    ASSERT_EQ(first.files.size(), 2u);
    EXPECT_EQ(first.files[0].name, "1710072000_0000.media");
    EXPECT_EQ(first.files[1].bytes, 2u);
    EXPECT_EQ(recordings[1].announced_md5, md5_hex(key));

    // What another program leaves beside the files is not listed: the database is.
    std::ofstream(first.directory + "/notes.txt") << "n";
    service.reset();
    const auto all = vexo_cloud::read_recordings(dir_ + "/data", "");
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].device, "cam1");
    EXPECT_EQ(all[0].files.size(), 2u);
    EXPECT_TRUE(vexo_cloud::read_recordings(dir_ + "/data", "cam2").empty());
    EXPECT_THROW(vexo_cloud::read_recordings(dir_ + "/data", "../cam1"), std::invalid_argument);
    EXPECT_THROW(vexo_cloud::read_recordings(dir_ + "/missing", ""), std::runtime_error);
}

/// A data directory as the JSON-file service left it: cam1 sound but for one recording.json
/// and one alarm record, cam2 with a damaged device.json.
void write_json_layout(const std::string &data) {
    const Json order{{"storeMode", "alltime"}, {"eventDuration", 30}, {"sliceDuration", 10},
                     {"silenceInterval", 60},  {"dailyEvents", 5},    {"expired", false},
                     {"aborted", false}};
    write(
        data + "/cam1/device.json",
        Json{{"order", order},
             {"key", kKey},
             {"keyMd5", md5_hex(kKey)},
             {"keyHistory", Json::array({{{"key", kKey}, {"md5", md5_hex(kKey)}, {"issued", 1}}})},
             {"allowance", {{"day", 20240310}, {"eventsStarted", 2}}}}
            .dump());
    write(data + "/cam1/1710072000/recording.json", Json{{"startTime", kNoon},
                                                         {"endTime", kNoon + 20},
                                                         {"payloadInfo", R"({"v":1})"},
                                                         {"mtu", 10},
                                                         {"enKeyMd5", "0000"},
                                                         {"key", kKey},
                                                         {"keyMd5", md5_hex(kKey)}}
                                                        .dump());
    write(data + "/cam1/1710072000/1710072000_0000.media", "abc");
    write(data + "/cam1/1710072060/recording.json", "{\"startTime\":");
    write(data + "/cam1/1710072060/1710072060_0000.media", "zz");
    write(data + "/cam1/alarms/alarm-1.json",
          R"({"time":1710072005,"withPicture":1,"extra":"x","picture":"alarm-1.jpg"})");
    write(data + "/cam1/alarms/alarm-1.jpg", "JPEG");
    write(data + "/cam1/alarms/alarm-2.json", "{\"time\":");
    write(data + "/cam1/gaps.json",
          R"({"gaps":[{"from":1710000000,"to":1710000100,"reason":"spool full","bytes":7}]})");
    write(data + "/cam1/events.jsonl", "{\"a\":1}\n");
    write(data + "/cam2/device.json", "{\"order\":");
}

TEST_F(DataDirectoryTest, AJsonDirectoryIsImportedOnceAndItsDamagedFilesQuarantined) {
    const std::string data = dir_ + "/data";
    write_json_layout(data);
    auto service = start_logged();
    EXPECT_EQ(service->devices(), (std::vector<std::string>{"cam1", "cam2"}));
    EXPECT_EQ(service->order("cam1")->store_mode, "alltime");
    const auto recordings = service->recordings("cam1");
    ASSERT_EQ(recordings.size(), 2u);
    EXPECT_EQ(recordings[0].key, kKey);
    EXPECT_EQ(recordings[0].end_time, kNoon + 20);
    ASSERT_EQ(recordings[1].files.size(), 1u) << "listed without its metadata";
    const auto alarms = service->alarms("cam1");
    ASSERT_EQ(alarms.size(), 1u);
    std::string picture;
    std::ifstream(alarms[0].picture_path) >> picture;
    EXPECT_EQ(picture, "JPEG");
    EXPECT_EQ(service->gaps("cam1").size(), 1u);

    // Each damaged file: moved under quarantine/, one log line; sound files stay in place.
    for (const char *moved :
         {"cam1-1710072060-recording.json", "cam1-alarms-alarm-2.json", "cam2-device.json"}) {
        EXPECT_TRUE(fs::exists(data + "/quarantine/" + moved)) << moved;
    }
    EXPECT_EQ(log_lines_with("quarantined"), 3u);
    EXPECT_EQ(log_lines_with("import: 2 devices, 2 recordings, 1 alarms"), 1u);

    // The camera replays an imported file: the same bytes are taken, others are not.
    EXPECT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "abc").status, 200);
    EXPECT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "abd").status, 409);

    // Tools list the damaged recording with its reason.
    std::vector<std::string> damaged;
    EXPECT_EQ(vexo_cloud::read_recordings(data, "cam1", &damaged).size(), 2u);
    ASSERT_EQ(damaged.size(), 1u);
    EXPECT_EQ(damaged[0], data + "/cam1/1710072060/recording.json: not a JSON object");

    // Once: a restart imports nothing again.
    service.reset();
    log_.clear();
    service = start_logged();
    EXPECT_EQ(log_lines_with("import"), 0u);
}

TEST_F(DataDirectoryTest, ASecondServiceOnTheDirectoryIsRefusedWithTheHoldersPid) {
    auto first = start_service();
    try {
        start_service();
        ADD_FAILURE() << "a second service started";
    } catch (const vexo_cloud::DataDirectoryInUse &e) {
        const std::string what = e.what();
        EXPECT_NE(what.find(dir_ + "/data"), std::string::npos) << what;
        EXPECT_NE(what.find("pid " + std::to_string(getpid())), std::string::npos) << what;
    }
    first.reset();
    EXPECT_NO_THROW(start_service());
}

TEST_F(DataDirectoryTest, AtStartDamagedRowsAreQuarantinedAndMediaReconciled) {
    const std::string data = dir_ + "/data";
    const std::string rec = data + "/cam1/1710072000";
    {
        auto service = start_cam1(options(), true);
        start(*service, "cam1", kNoon + 60, kNoKeyMd5);
        ASSERT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "a").status, 200);
        ASSERT_EQ(put_media(*service, "cam1", "1710072000_0010.media", "bb").status, 200);
    }
    exec("UPDATE recordings SET payload_info = 'not json' WHERE start_time = 1710072060;"
         "UPDATE devices SET slice_duration = 1000;");
    fs::remove(rec + "/1710072000_0010.media");           // a row without its file
    write(rec + "/1710072000_0020.media", "ccc");         // a file without its row
    write(data + "/.incoming~/upload-Ab12Cd", "partial"); // an upload cut off
    write(data + "/cam1/alarms/7.jpg", "an alarm never acknowledged");

    auto service = start_logged();
    const auto recordings = service->recordings("cam1");
    ASSERT_EQ(recordings.size(), 2u);
    ASSERT_EQ(recordings[0].files.size(), 2u);
    EXPECT_EQ(recordings[0].files[1].name, "1710072000_0020.media");
    EXPECT_FALSE(recordings[1].key.empty()) << "the key stays";
    EXPECT_EQ(service->order("cam1")->slice_duration, 10);
    EXPECT_TRUE(fs::is_empty(data + "/.incoming~"));
    EXPECT_FALSE(fs::exists(data + "/cam1/alarms/7.jpg"));
    EXPECT_EQ(log_lines_with("quarantined recording of cam1 at 1710072060"), 1u);
    EXPECT_EQ(log_lines_with("quarantined device row of cam1"), 1u);
    EXPECT_EQ(log_lines_with("dropped: its file is gone"), 1u);
    EXPECT_EQ(log_lines_with("adopted cam1/1710072000/1710072000_0020.media"), 1u);
    EXPECT_EQ(log_lines_with("removed 1 temporary files"), 1u);
    EXPECT_EQ(log_lines_with("alarm picture without its alarm"), 1u);
    // The rest is served: the adopted file takes its own bytes again, the dropped one anew.
    EXPECT_EQ(put_media(*service, "cam1", "1710072000_0020.media", "ccc").status, 200);
    EXPECT_EQ(put_media(*service, "cam1", "1710072000_0010.media", "bb").status, 200);
    // A recording that lost its metadata takes uploads again once announced again.
    EXPECT_EQ(put_media(*service, "cam1", "1710072060_0000.media", "d").status, 409);
    start(*service, "cam1", kNoon + 60, kNoKeyMd5);
    EXPECT_EQ(put_media(*service, "cam1", "1710072060_0000.media", "d").status, 200);
}

} // namespace
} // namespace service_test

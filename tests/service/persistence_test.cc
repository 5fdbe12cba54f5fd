/// State on disk: a new service on the same data directory carries on where the last one
/// stopped, read_recordings reads the index without a service (and, when asked, lists
/// recordings whose recording.json is damaged), and damaged state files are reported instead
/// of being used or overwritten.
#include <filesystem>
#include <fstream>

#include "service/core/key_crypto.h"
#include "service_fixture.h"

namespace service_test {
namespace {

namespace fs = std::filesystem;
using vexo_cloud::md5_hex;

class ServicePersistenceTest : public ServiceTest {};

void write(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

TEST_F(ServicePersistenceTest, NewServiceReadsBackOrdersKeysAllowanceAndRecordings) {
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
    EXPECT_EQ(service->count_left("cam1"), 3);
    // The key survived, and a repeated startTime is still known as not new.
    EXPECT_EQ(start(*service, "cam1", kNoon + 60, md5_hex(key))["needUpdate"], false);
    EXPECT_EQ(service->count_left("cam1"), 3);
    EXPECT_EQ(body_of(call_api(
                  *service, "cam1", kStopApi,
                  Json{{"startTime", kNoon + 60}, {"endTime", kNoon + 90}}.dump()))["success"],
              true);

    const auto recordings = service->recordings("cam1");
    ASSERT_EQ(recordings.size(), 2u);
    const vexo_cloud::Recording &first = recordings[0];
    EXPECT_EQ(first.device, "cam1");
    EXPECT_EQ(first.start_time, kNoon);
    EXPECT_EQ(first.end_time, kNoon + 20);
    EXPECT_EQ(first.key, key);
    EXPECT_EQ(first.key_md5, md5_hex(key));
    EXPECT_EQ(first.announced_md5, kNoKeyMd5);
    EXPECT_EQ(first.mtu, 10);
    EXPECT_EQ(Json::parse(first.payload_info)["vWide"], 640);
    EXPECT_EQ(first.directory, dir_ + "/data/cam1/1710072000");
    ASSERT_EQ(first.files.size(), 2u);
    EXPECT_EQ(first.files[0].name, "1710072000_0000.media");
    EXPECT_EQ(first.files[0].bytes, 1u);
    EXPECT_EQ(first.files[1].bytes, 2u);
    EXPECT_EQ(recordings[1].end_time, kNoon + 90);

    // The device file keeps the key history.
    const Json device = Json::parse(std::ifstream(dir_ + "/data/cam1/device.json"));
    ASSERT_EQ(device["keyHistory"].size(), 1u);
    EXPECT_EQ(device["keyHistory"][0]["key"], key);
    EXPECT_EQ(device["keyHistory"][0]["md5"], md5_hex(key));
    EXPECT_EQ(device["keyHistory"][0]["issued"], kNoon);
}

TEST_F(ServicePersistenceTest, ReadRecordingsWorksWithoutAService) {
    {
        auto service = start_service();
        add_device(*service, "cam1");
        add_device(*service, "cam2");
        start(*service, "cam2", kNoon + 1, kNoKeyMd5);
        start(*service, "cam1", kNoon, kNoKeyMd5);
        put_media(*service, "cam1", "1710072000_0000.media", "abc");
        // Uploads of a recording whose start was never notified still show.
        put_media(*service, "cam1", "1710000000_0000.media", "z");
    }
    const std::string data = dir_ + "/data";
    // What an interrupted upload or another program leaves beside the files is not listed.
    write(data + "/cam1/1710072000/.1710072000_0001.media.tmp-Ab12Cd", "partial");
    write(data + "/cam1/1710072000/notes.txt", "n");
    fs::create_directory(data + "/cam1/0123");

    const auto all = vexo_cloud::read_recordings(data, "");
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].device, "cam1");
    EXPECT_EQ(all[0].start_time, 1710000000u);
    EXPECT_EQ(all[0].key, "");
    EXPECT_EQ(all[1].start_time, kNoon);
    ASSERT_EQ(all[1].files.size(), 1u);
    EXPECT_EQ(all[1].files[0].name, "1710072000_0000.media");
    EXPECT_EQ(all[1].files[0].bytes, 3u);
    EXPECT_EQ(all[2].device, "cam2");

    EXPECT_EQ(vexo_cloud::read_recordings(data, "cam2").size(), 1u);
    EXPECT_TRUE(vexo_cloud::read_recordings(data, "nobody").empty());
    EXPECT_THROW(vexo_cloud::read_recordings(data, "../cam1"), std::invalid_argument);
    EXPECT_THROW(vexo_cloud::read_recordings(dir_ + "/missing", ""), std::runtime_error);
}

TEST_F(ServicePersistenceTest, TolerantReadListsRecordingsWhoseMetadataIsDamaged) {
    std::string key;
    {
        auto service = start_service();
        add_device(*service, "cam1");
        key = start(*service, "cam1", kNoon, kNoKeyMd5)["encryptKey"];
        start(*service, "cam1", kNoon + 60, md5_hex(key));
        start(*service, "cam1", kNoon + 120, md5_hex(key));
        put_media(*service, "cam1", "1710072060_0000.media", "abcd");
        put_media(*service, "cam1", "1710000000_0000.media", "z");
    }
    const std::string data = dir_ + "/data";
    const std::string cut = data + "/cam1/1710072060/recording.json";
    const std::string unreadable = data + "/cam1/1710072120/recording.json";
    const std::string cut_text = "{\"startTime\":1710072060,";
    write(cut, cut_text);
    // A recording.json that open() accepts and read() refuses, whoever runs the test.
    ASSERT_TRUE(fs::remove(unreadable));
    ASSERT_TRUE(fs::create_directory(unreadable));

    std::vector<std::string> damaged{"kept"};
    const auto all = vexo_cloud::read_recordings(data, "cam1", &damaged);
    ASSERT_EQ(all.size(), 4u);
    // Uploads without a start notification are not damage.
    EXPECT_EQ(all[0].start_time, 1710000000u);
    EXPECT_EQ(all[1].start_time, kNoon);
    EXPECT_EQ(all[1].key, key);
    EXPECT_EQ(Json::parse(all[1].payload_info)["vWide"], 640);
    const vexo_cloud::Recording &listed = all[2];
    EXPECT_EQ(listed.start_time, kNoon + 60);
    EXPECT_EQ(listed.directory, data + "/cam1/1710072060");
    EXPECT_EQ(listed.end_time, 0u);
    EXPECT_EQ(listed.key, "");
    EXPECT_EQ(listed.key_md5, "");
    EXPECT_EQ(listed.payload_info, "");
    ASSERT_EQ(listed.files.size(), 1u);
    EXPECT_EQ(listed.files[0].name, "1710072060_0000.media");
    EXPECT_EQ(listed.files[0].bytes, 4u);
    EXPECT_EQ(all[3].start_time, kNoon + 120);
    EXPECT_EQ(all[3].key, "");

    ASSERT_EQ(damaged.size(), 3u) << "lines are appended, one per damaged recording";
    EXPECT_EQ(damaged[0], "kept");
    EXPECT_EQ(damaged[1], cut + ": not a JSON object");
    EXPECT_EQ(damaged[2].rfind(unreadable + ": cannot be read: ", 0), 0u) << damaged[2];

    // Nothing was repaired, and the strict forms still refuse the directory.
    std::ifstream in(cut, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), cut_text);
    EXPECT_THROW(vexo_cloud::read_recordings(data, "cam1"), std::runtime_error);
    EXPECT_THROW(vexo_cloud::read_recordings(data, "", nullptr), std::runtime_error);
}

TEST_F(ServicePersistenceTest, DamagedStateFilesAreReportedAndLeftAlone) {
    {
        auto service = start_service();
        add_device(*service, "cam1");
        start(*service, "cam1", kNoon, kNoKeyMd5);
    }
    const std::string device_file = dir_ + "/data/cam1/device.json";
    const std::string recording_file = dir_ + "/data/cam1/1710072000/recording.json";
    const std::string good_device = Json::parse(std::ifstream(device_file)).dump();
    const std::string good_recording = Json::parse(std::ifstream(recording_file)).dump();

    Json wrong_md5 = Json::parse(good_device);
    wrong_md5["keyMd5"] = md5_hex("something else");
    Json bad_order = Json::parse(good_device);
    bad_order["order"]["sliceDuration"] = 1000;
    const std::string damaged_devices[] = {good_device.substr(0, good_device.size() / 2), "[]",
                                           wrong_md5.dump(), bad_order.dump(), ""};
    for (const std::string &damaged : damaged_devices) {
        write(device_file, damaged);
        try {
            start_service();
            ADD_FAILURE() << "accepted: " << damaged;
        } catch (const std::runtime_error &e) {
            EXPECT_NE(std::string(e.what()).find("device.json"), std::string::npos) << e.what();
        }
        std::ifstream in(device_file, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), damaged);
    }
    write(device_file, good_device);

    Json moved = Json::parse(good_recording);
    moved["startTime"] = kNoon + 1;
    for (const std::string &damaged : {std::string("{\"startTime\":"), moved.dump()}) {
        write(recording_file, damaged);
        EXPECT_THROW(start_service(), std::runtime_error);
        EXPECT_THROW(vexo_cloud::read_recordings(dir_ + "/data", "cam1"), std::runtime_error);
    }
    write(recording_file, good_recording);
    EXPECT_EQ(start_service()->recordings("cam1").size(), 1u);
}

TEST_F(ServicePersistenceTest, StatsCountDevicesAndOpenRecordingsAlsoAfterARestart) {
    {
        auto service = start_service();
        EXPECT_EQ(service->stats().devices, 0u);
        add_device(*service, "cam1");
        add_device(*service, "cam2");
        start(*service, "cam1", kNoon, kNoKeyMd5);
        start(*service, "cam1", kNoon + 60, kNoKeyMd5);
        start(*service, "cam2", kNoon, kNoKeyMd5);
        EXPECT_EQ(service->stats().devices, 2u);
        EXPECT_EQ(service->stats().open_recordings, 3u);
        call_api(*service, "cam1", kStopApi,
                 Json{{"startTime", kNoon}, {"endTime", kNoon + 20}}.dump());
        EXPECT_EQ(service->stats().open_recordings, 2u);
    }
    const vexo_cloud::ServiceStats again = start_service()->stats();
    EXPECT_EQ(again.devices, 2u);
    EXPECT_EQ(again.open_recordings, 2u);
}

} // namespace
} // namespace service_test

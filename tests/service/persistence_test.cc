/// State on disk: a new service on the same data directory carries on where the last one
/// stopped, and read_recordings reads the index without a service.
#include <filesystem>
#include <fstream>

#include "service/core/key_crypto.h"
#include "service_fixture.h"
#include "sqlite_metadata_store.h"

namespace service_test {
namespace {

using vexo_cloud::md5_hex;

class ServicePersistenceTest : public ServiceTest {};

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

} // namespace
} // namespace service_test

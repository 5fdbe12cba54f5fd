// The kit's cloud calls with the outage spool on, against a scripted cloud: what the module
// is told while the cloud is down, what the sender replays once it is back, and what never
// waits in the spool.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "host_kit.h"
#include "tests/support/temp_dir.h"
#include "vexo_cloud.h"
#include "vexo_device.h"

namespace {

using hostkit::CloudRequest;
using hostkit::CloudResponse;

const std::string kStartApi = "vexo.device.ipc.media.storage.notify.upload.start";
const std::string kStopApi = "vexo.device.ipc.media.storage.notify.upload.stop";
const std::string kKeyMd5 = "0123456789abcdef0123456789abcdef";

bool replayed(const CloudRequest &r) {
    const auto it = r.headers.find("x-vexo-replay");
    return it != r.headers.end() && it->second == "1";
}

/// A cloud whose answers the test sets; it can hold replays at its door.
struct ScriptedCloud : hostkit::CloudTransport {
    CloudResponse exchange(const CloudRequest &request) override {
        std::unique_lock<std::mutex> lock(mu);
        cv.wait(lock, [&] { return !hold || !replayed(request); });
        seen.push_back(request);
        return {status(request), "", request.path.rfind("/v1/api/", 0) == 0 ? api_body : "{}"};
    }
    void set(std::function<int32_t(const CloudRequest &)> answer, bool hold_replays = false) {
        std::lock_guard<std::mutex> lock(mu);
        status = std::move(answer);
        hold = hold_replays;
        cv.notify_all();
    }
    /// The requests seen, live or replayed.
    std::vector<CloudRequest> requests(bool replays) {
        std::lock_guard<std::mutex> lock(mu);
        std::vector<CloudRequest> out;
        std::copy_if(seen.begin(), seen.end(), std::back_inserter(out),
                     [&](const CloudRequest &r) { return replayed(r) == replays; });
        return out;
    }

    std::mutex mu;
    std::condition_variable cv;
    std::function<int32_t(const CloudRequest &)> status = [](const CloudRequest &) { return 0; };
    bool hold = false;
    std::string api_body = R"({"success":true,"result":{"needUpdate":false}})";
    std::vector<CloudRequest> seen;
};

/// The paths of the last n requests.
std::vector<std::string> last_paths(const std::vector<CloudRequest> &requests, size_t n) {
    std::vector<std::string> paths;
    for (size_t i = requests.size() > n ? requests.size() - n : 0; i < requests.size(); ++i) {
        paths.push_back(requests[i].path);
    }
    return paths;
}

constexpr auto kDown = [](const CloudRequest &) { return 0; };
constexpr auto kUp = [](const CloudRequest &) { return 200; };

/// Waits (at most 10 s) until the condition holds.
bool eventually(const std::function<bool()> &condition) {
    for (int i = 0; i < 2000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

class SpoolCallsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        hostkit::Options o;
        o.data_dir = dir_.path();
        o.device_id = "cam-7";
        o.device_token = "t0k";
        o.cloud = cloud_;
        o.clock_start = 1800000000;
        o.log_level = hostkit::LogLevel::kError;
        o.spool.enabled = true;
        o.spool.retry_min_ms = 2;
        o.spool.retry_max_ms = 20;
        ASSERT_EQ(hostkit::start(o), 0);
    }
    void TearDown() override {
        cloud_->set(kDown);
        hostkit::stop();
    }
    static int32_t post(const std::string &api, std::string body, cJSON **result = nullptr) {
        cJSON *ignored = nullptr;
        cJSON **out = result != nullptr ? result : &ignored;
        body.resize(body.size() + 30, '\0');
        const int32_t ret =
            iot_httpc_common_post_no_remalloc(api.c_str(), "1.0", nullptr, "cam-7", body.data(),
                                              static_cast<uint32_t>(body.size()), nullptr, out);
        cJSON_Delete(ignored);
        return ret;
    }
    static int32_t start(const std::string &md5, cJSON **result = nullptr) {
        return post(kStartApi,
                    R"({"startTime":1800000000,"payloadInfo":"{}","mtu":10,"enKeyMd5":")" + md5 +
                        "\"}",
                    result);
    }
    static int32_t upload(const std::string &name) {
        const uint8_t data[] = {1, 2, 3};
        vexo_storage_config_t cfg{};
        return cloud_put_data_to_file(&cfg, "https", 0, name.c_str(), "media/av", data,
                                      sizeof data);
    }
    static int32_t alarm() {
        vexo_alarm_event_t event{};
        event.time = 1800000005;
        return vexo_ipc_alarm_event(&event);
    }
    static uint64_t queued() { return hostkit::counters().spool_items; }

    vexo_test::TempDir dir_{"vexo-spool-calls"};
    std::shared_ptr<ScriptedCloud> cloud_ = std::make_shared<ScriptedCloud>();
};

TEST_F(SpoolCallsTest, CloudDownCallsSucceedAndTheSenderReplaysInOrderOnceItIsBack) {
    cJSON *result = nullptr;
    ASSERT_EQ(start(kKeyMd5, &result), 0);
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(result, "needUpdate")))
        << "the module keeps its key";
    cJSON_Delete(result);
    EXPECT_EQ(upload("1800000000_0000.media"), 0);
    EXPECT_EQ(post(kStopApi, R"({"startTime":1800000000,"endTime":1800000009})"), 0);
    EXPECT_EQ(alarm(), 0);
    EXPECT_EQ(queued(), 4u);
    // One live attempt found the outage; the later calls queued without trying.
    EXPECT_EQ(cloud_->requests(false).size(), 1u);

    // The sender keeps trying the oldest item; 5xx is still an outage: nothing leaves.
    cloud_->set([](const CloudRequest &) { return 503; });
    ASSERT_TRUE(eventually([&] { return cloud_->requests(true).size() >= 5; }));
    EXPECT_EQ(queued(), 4u);

    // The service files the replayed start under the key it announces, but has a newer one.
    {
        std::lock_guard<std::mutex> lock(cloud_->mu);
        cloud_->api_body = R"({"success":true,"result":{"needUpdate":true,"encryptKey":"k"}})";
    }
    testing::internal::CaptureStderr();
    cloud_->set(kUp);
    ASSERT_TRUE(eventually([] { return queued() == 0; }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("answered the replayed start of recording 1800000000 with a new key"),
              std::string::npos)
        << log;
    const std::vector<CloudRequest> replays = cloud_->requests(true);
    EXPECT_EQ(last_paths(replays, 4),
              (std::vector<std::string>{"/v1/api/" + kStartApi,
                                        "/v1/devices/cam-7/media/1800000000_0000.media",
                                        "/v1/api/" + kStopApi, "/v1/devices/cam-7/alarms"}));
    EXPECT_EQ(replays.back().headers.at("authorization"), "Bearer t0k");
    EXPECT_EQ(replays[replays.size() - 3].timeout_s, 60u) << "replays keep the full limits";
    const hostkit::Counters c = hostkit::counters();
    EXPECT_EQ(c.spool_sent, 4u);
    EXPECT_EQ(c.uploads, 1u);
    EXPECT_EQ(c.alarms, 1u);
}

TEST_F(SpoolCallsTest, FourHundredsAreNotOutagesLiveOrReplayed) {
    cloud_->set([](const CloudRequest &r) { return r.method == "PUT" ? 404 : 400; });
    EXPECT_EQ(upload("1800000000_0000.media"), -1);
    EXPECT_EQ(start(kKeyMd5), -1);
    EXPECT_EQ(queued(), 0u);
    EXPECT_EQ(hostkit::counters().upload_failures, 1u);

    cloud_->set(kDown);
    ASSERT_EQ(upload("1800000000_0010.media"), 0);
    ASSERT_EQ(upload("1800000000_0020.media"), 0);
    testing::internal::CaptureStderr();
    cloud_->set([](const CloudRequest &r) {
        return r.path.find("_0010") != std::string::npos ? 403 : 200;
    });
    ASSERT_TRUE(eventually([] { return queued() == 0; }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("refused the replayed media PUT /v1/devices/cam-7/media/"
                       "1800000000_0010.media (403"),
              std::string::npos)
        << log;
    const hostkit::Counters c = hostkit::counters();
    EXPECT_EQ(c.spool_dropped, 1u);
    EXPECT_EQ(c.spool_sent, 1u);
    EXPECT_EQ(c.last_upload, "1800000000_0020.media");
}

TEST_F(SpoolCallsTest, WhileItemsWaitCallsQueueBehindThemButFetchesAndKeylessStartsDoNot) {
    vexo_storage_config_t cfg{};
    EXPECT_EQ(cloud_get_storage_config(&cfg, 1), -1);
    EXPECT_EQ(cloud_get_storage_restriction_config(&cfg), -1);
    EXPECT_EQ(start("0000"), -1) << "footage under a key the cloud never saw is of no use";
    EXPECT_EQ(queued(), 0u);

    ASSERT_EQ(upload("1800000000_0000.media"), 0);
    cloud_->set(kUp, true); // the cloud is back, the sender's first replay is still on its way
    EXPECT_EQ(upload("1800000000_0010.media"), 0);
    EXPECT_EQ(alarm(), 0);
    EXPECT_EQ(start("0000"), -1) << "a keyless start fails at once";
    EXPECT_EQ(queued(), 3u);
    const size_t live = cloud_->requests(false).size();
    EXPECT_EQ(live, 4u) << "no live attempt but the first while items wait";
    EXPECT_EQ(cloud_get_storage_config(&cfg, 1), 0) << "a fetch still asks the cloud";
    EXPECT_EQ(cloud_->requests(false).size(), live + 1);

    cloud_->set(kUp);
    ASSERT_TRUE(eventually([] { return queued() == 0; }));
    EXPECT_EQ(last_paths(cloud_->requests(true), 3),
              (std::vector<std::string>{"/v1/devices/cam-7/media/1800000000_0000.media",
                                        "/v1/devices/cam-7/media/1800000000_0010.media",
                                        "/v1/devices/cam-7/alarms"}));
}

} // namespace

/// Requests a device kept through an outage and sends late ("x-vexo-replay: 1"): a start
/// counts on the day it started, a replayed start is filed under the key it names, and
/// uploads, stops and alarms sent a day late are filed as ever.
#include <fstream>

#include "service/core/key_crypto.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::md5_hex;
using vexo_cloud::Request;

constexpr uint32_t kDay = 86400;
/// A key the device had before its current one (16 characters of A-Z a-z 0-9).
constexpr char kOldKey[] = "OldKeyOldKey1234";

class ReplayTest : public ServiceTest {
  protected:
    /// A service whose device cam1 has the event order of daily_events, a current key, and
    /// kOldKey before it in its key history; returns the current key.
    std::string start_with_two_keys(std::unique_ptr<vexo_cloud::Service> *service,
                                    int32_t daily_events = 20) {
        std::string key;
        {
            auto first = start_service();
            vexo_cloud::OrderChange order;
            order.daily_events = daily_events;
            std::string error;
            EXPECT_TRUE(first->set_order("cam1", order, &error)) << error;
            // The key is issued at the first start; a later clock keeps that start off the
            // days the tests count.
            const uint32_t now = clock_;
            clock_ = now - 10 * kDay;
            key = start(*first, "cam1", clock_, kNoKeyMd5)["encryptKey"];
            clock_ = now;
        }
        const std::string path = dir_ + "/data/cam1/device.json";
        Json device = Json::parse(std::ifstream(path));
        device["keyHistory"].insert(
            device["keyHistory"].begin(),
            Json{{"key", kOldKey}, {"md5", md5_hex(kOldKey)}, {"issued", kNoon - 100 * kDay}});
        std::ofstream(path, std::ios::trunc) << device.dump(2);
        vexo_cloud::Options options = this->options();
        options.log = [this](const std::string &line) { log_.push_back(line); };
        *service = start_service(options);
        return key;
    }

    static Request replayed(Request request) {
        request.headers["x-vexo-replay"] = "1";
        return request;
    }
    static Request start_request(uint32_t start_time, const std::string &md5) {
        return request("POST", std::string("/v1/api/") + kStartApi + "?v=1.0", "cam1",
                       start_body(start_time, md5));
    }

    std::vector<std::string> log_;
};

TEST_F(ReplayTest, AStartCountsOnTheDayItStartedNotTheDayItArrived) {
    // 10:00 UTC the day after kNoon's day.
    clock_ = kNoon + kDay - 2 * 3600;
    std::unique_ptr<vexo_cloud::Service> service;
    const std::string key = start_with_two_keys(&service, 3);
    EXPECT_EQ(service->count_left("cam1"), 3);
    // Today's first event, then yesterday's start replayed: only the first counts today.
    start(*service, "cam1", clock_ - 60, md5_hex(key));
    EXPECT_EQ(service->count_left("cam1"), 2);
    const auto late = service->handle(replayed(start_request(kNoon, md5_hex(key))));
    ASSERT_EQ(late.status, 200) << late.body;
    EXPECT_EQ(body_of(late)["success"], true);
    EXPECT_EQ(recording(*service, "cam1", kNoon).start_time, kNoon);
    EXPECT_EQ(service->count_left("cam1"), 2);
    // A start from a clock ahead of the service's counts today; so does the next one.
    start(*service, "cam1", clock_ + kDay, md5_hex(key));
    EXPECT_EQ(service->count_left("cam1"), 1);
    start(*service, "cam1", clock_, md5_hex(key));
    EXPECT_EQ(service->count_left("cam1"), 0);
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["countLeft"], 0);
}

TEST_F(ReplayTest, AStartFromYesterdayArrivingFirstLeavesTodayFull) {
    clock_ = kNoon + kDay;
    std::unique_ptr<vexo_cloud::Service> service;
    const std::string key = start_with_two_keys(&service, 2);
    service->handle(replayed(start_request(kNoon, md5_hex(key))));
    service->handle(replayed(start_request(kNoon + 60, md5_hex(key))));
    EXPECT_EQ(service->count_left("cam1"), 2);
    // The day kNoon belongs to is spent, which a service running then would have answered.
    clock_ = kNoon + 120;
    EXPECT_EQ(service->count_left("cam1"), 0);
}

TEST_F(ReplayTest, AfterTheServicesClockWentBackTodayIsCountedAfresh) {
    // A simulated camera's clock is the embedded service's: a second run may start earlier.
    clock_ = kNoon + 3 * kDay;
    std::unique_ptr<vexo_cloud::Service> service;
    const std::string key = start_with_two_keys(&service, 3);
    start(*service, "cam1", clock_, md5_hex(key));
    EXPECT_EQ(service->count_left("cam1"), 2);
    clock_ = kNoon;
    EXPECT_EQ(service->count_left("cam1"), 3);
    start(*service, "cam1", kNoon, md5_hex(key));
    EXPECT_EQ(service->count_left("cam1"), 2);
}

TEST_F(ReplayTest, AReplayedStartIsFiledUnderTheKeyItNames) {
    std::unique_ptr<vexo_cloud::Service> service;
    const std::string key = start_with_two_keys(&service);
    const struct {
        const char *what;
        bool replay;
        std::string announced;
        std::string filed_key; // empty: the current key
        bool need_update;
        size_t log_lines;
    } cases[] = {
        {"replay with the older key", true, md5_hex(kOldKey), kOldKey, true, 0},
        {"live start with the older key", false, md5_hex(kOldKey), "", true, 0},
        {"replay with the current key", true, md5_hex(key), "", false, 0},
        {"replay with a key never given", true, md5_hex("NeverGivenKey123"), "", true, 1},
        {"replay after a failed key check", true, kNoKeyMd5, "", true, 1},
    };
    uint32_t start_time = kNoon;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        log_.clear();
        start_time += 100;
        const Request r = start_request(start_time, c.announced);
        const auto answer = service->handle(c.replay ? replayed(r) : r);
        ASSERT_EQ(answer.status, 200) << answer.body;
        const Json result = body_of(answer)["result"];
        // The answer is the live one: the current key whenever the device named another.
        EXPECT_EQ(result["needUpdate"], c.need_update);
        if (c.need_update) {
            EXPECT_EQ(result["encryptKey"], key);
        }
        const std::string filed = c.filed_key.empty() ? key : c.filed_key;
        const vexo_cloud::Recording rec = recording(*service, "cam1", start_time);
        EXPECT_EQ(rec.key, filed);
        EXPECT_EQ(rec.key_md5, md5_hex(filed));
        EXPECT_EQ(rec.announced_md5, c.announced);
        ASSERT_EQ(log_.size(), c.log_lines);
        if (c.log_lines != 0) {
            EXPECT_NE(log_[0].find(std::to_string(start_time)), std::string::npos) << log_[0];
            EXPECT_NE(log_[0].find(c.announced), std::string::npos) << log_[0];
        }
    }
    // The key history is read, never changed.
    EXPECT_EQ(start(*service, "cam1", kNoon + 1000, md5_hex(key))["needUpdate"], false);
}

TEST_F(ReplayTest, UploadsStopsAndAlarmsSentADayLateAreFiledAsEver) {
    std::unique_ptr<vexo_cloud::Service> service;
    const std::string key = start_with_two_keys(&service);
    ASSERT_EQ(service->handle(replayed(start_request(kNoon, md5_hex(kOldKey)))).status, 200);
    clock_ = kNoon + kDay;
    const std::string media = "1710072000_0010.media";
    EXPECT_EQ(
        service
            ->handle(replayed(request("PUT", "/v1/devices/cam1/media/" + media, "cam1", "slice")))
            .status,
        200);
    const auto stop = service->handle(
        replayed(request("POST", std::string("/v1/api/") + kStopApi + "?v=1.0", "cam1",
                         Json{{"startTime", kNoon}, {"endTime", kNoon + 20}}.dump())));
    EXPECT_EQ(body_of(stop)["success"], true) << stop.body;
    EXPECT_EQ(service
                  ->handle(replayed(request("POST", "/v1/devices/cam1/alarms", "cam1",
                                            R"({"time":1710072005,"withPicture":0})")))
                  .status,
              200);

    const vexo_cloud::Recording rec = recording(*service, "cam1", kNoon);
    EXPECT_EQ(rec.end_time, kNoon + 20);
    EXPECT_EQ(rec.key, kOldKey); // the stop keeps the key the start filed
    ASSERT_EQ(rec.files.size(), 1u);
    EXPECT_EQ(rec.files[0].name, media);
    const auto alarms = service->alarms("cam1");
    ASSERT_EQ(alarms.size(), 1u);
    EXPECT_EQ(alarms[0].time, kNoon + 5);
}

} // namespace
} // namespace service_test

/// The start notification: the key a device gets, the key each recording is encrypted with,
/// and the daily allowance of event recordings; and requests a device kept through an outage
/// and sends late ("x-vexo-replay: 1"): a start counts on the day it started, a replayed start
/// is filed under the key it names, and uploads, stops and alarms sent late are filed as ever.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>

#include <sqlite3.h>

#include "service/core/key_crypto.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::md5_hex;
using vexo_cloud::OrderChange;
using vexo_cloud::Request;

class ServiceKeysTest : public ServiceTest {};
class ServiceAllowanceTest : public ServiceTest {};

TEST(ServiceKeyCryptoTest, Md5MatchesKnownDigests) {
    EXPECT_EQ(md5_hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5_hex("12345678901234567890123456789012345678901234567890123456789012345678901234"
                      "567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST_F(ServiceKeysTest, FirstStartIssuesAKeyAndOtherMd5sGetTheCurrentKeyAndDevicesTheirOwn) {
    auto service = start_cam1();
    add_device(*service, "cam2");
    const Json first = start(*service, "cam1", kNoon, kNoKeyMd5);
    ASSERT_EQ(first["needUpdate"], true);
    const std::string key = first["encryptKey"];
    EXPECT_EQ(key.size(), 16u);
    EXPECT_TRUE(std::all_of(key.begin(), key.end(), [](unsigned char c) {
        return std::isalnum(c);
    })) << key;
    // The second start of the key update announces the new key, as later recordings do.
    EXPECT_EQ(start(*service, "cam1", kNoon, md5_hex(key)), Json::parse(R"({"needUpdate":false})"));
    EXPECT_EQ(start(*service, "cam1", kNoon + 10, md5_hex(key))["needUpdate"], false);
    for (const uint32_t t : {kNoon, kNoon + 10}) {
        const vexo_cloud::Recording rec = recording(*service, "cam1", t);
        EXPECT_EQ(rec.key, key);
        EXPECT_EQ(rec.key_md5, md5_hex(key));
        EXPECT_EQ(rec.announced_md5, md5_hex(key));
    }
    const std::string key2 = start(*service, "cam2", kNoon, kNoKeyMd5)["encryptKey"];
    EXPECT_NE(key, key2);
    // A device that restarted with an old key takes the current key from the answer and
    // encrypts this recording with it, without a second start.
    std::string last_wrong = md5_hex(key);
    last_wrong.back() = last_wrong.back() == '0' ? '1' : '0';
    std::string upper = md5_hex(key);
    for (char &c : upper) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    uint32_t t = kNoon + 50;
    for (const std::string &announced :
         {md5_hex("OldKeyOldKey1234"), last_wrong, upper, std::string(kNoKeyMd5), md5_hex(key2)}) {
        SCOPED_TRACE(announced);
        EXPECT_EQ(start(*service, "cam1", ++t, announced),
                  (Json{{"needUpdate", true}, {"encryptKey", key}}));
        EXPECT_EQ(recording(*service, "cam1", t).key, key);
    }
}

TEST_F(ServiceAllowanceTest, NewEventRecordingsCountRepeatsAndOtherModesDoNot) {
    auto service = start_service();
    OrderChange order;
    order.daily_events = 3;
    std::string error;
    ASSERT_TRUE(service->set_order("cam1", order, &error)) << error;
    EXPECT_EQ(service->count_left("cam1"), 3);

    const std::string key = start(*service, "cam1", kNoon, kNoKeyMd5)["encryptKey"];
    EXPECT_EQ(service->count_left("cam1"), 2);
    start(*service, "cam1", kNoon, md5_hex(key)); // second start of the key update
    EXPECT_EQ(service->count_left("cam1"), 2);

    OrderChange alltime;
    alltime.store_mode = "alltime";
    ASSERT_TRUE(service->set_order("cam1", alltime, &error));
    start(*service, "cam1", kNoon + 10, md5_hex(key));
    OrderChange event;
    event.store_mode = "event";
    ASSERT_TRUE(service->set_order("cam1", event, &error));
    ASSERT_TRUE(service->abort_order("cam1", &error));
    start(*service, "cam1", kNoon + 20, md5_hex(key));
    ASSERT_TRUE(service->set_order("cam1", event, &error));
    EXPECT_EQ(service->count_left("cam1"), 2);

    for (uint32_t t = kNoon + 30; t < kNoon + 35; ++t) {
        start(*service, "cam1", t, md5_hex(key));
    }
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["countLeft"], 0);

    // A bigger allowance the same day still counts today's six starts, including those
    // beyond the old allowance.
    OrderChange more;
    more.daily_events = 10;
    ASSERT_TRUE(service->set_order("cam1", more, &error));
    EXPECT_EQ(service->count_left("cam1"), 4);
}

TEST_F(ServiceAllowanceTest, AllowanceIsFullAgainAtLocalMidnight) {
    // Two hours east of UTC: local midnight is 22:00 UTC.
    setenv("TZ", "XYZ-2", 1);
    tzset();
    constexpr uint32_t kLocalLastSecond = 1710107999; // 2024-03-10 21:59:59 UTC
    clock_ = kLocalLastSecond - 3600;
    auto service = start_service();
    OrderChange order;
    order.daily_events = 2;
    std::string error;
    ASSERT_TRUE(service->set_order("cam1", order, &error));
    start(*service, "cam1", kLocalLastSecond - 3600, kNoKeyMd5);
    clock_ = kLocalLastSecond;
    start(*service, "cam1", kLocalLastSecond, kNoKeyMd5);
    EXPECT_EQ(service->count_left("cam1"), 0);

    clock_ = kLocalLastSecond + 1;
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["countLeft"], 2);
    start(*service, "cam1", kLocalLastSecond + 1, kNoKeyMd5);
    EXPECT_EQ(service->count_left("cam1"), 1);
    // UTC midnight is no boundary here.
    clock_ = kLocalLastSecond + 2 * 3600 + 1;
    EXPECT_EQ(service->count_left("cam1"), 1);
}

constexpr uint32_t kDay = 86400;
/// A key the device had before its current one.
constexpr char kOldKey[] = "OldKeyOldKey1234";

class ReplayTest : public ServiceTest {
  protected:
    /// A service whose cam1 has a current key, issued ten days ago, and kOldKey before it in
    /// its history (the service itself never replaces a key: the history is written here).
    std::unique_ptr<vexo_cloud::Service> start_with_two_keys(int32_t daily_events = 20) {
        {
            auto service = start_service();
            vexo_cloud::OrderChange order;
            order.daily_events = daily_events;
            std::string error;
            EXPECT_TRUE(service->set_order("cam1", order, &error)) << error;
            const uint32_t now = clock_;
            clock_ = now - 10 * kDay;
            key_ = start(*service, "cam1", clock_, kNoKeyMd5)["encryptKey"];
            clock_ = now;
        }
        // The key before it goes in front of the history, in the database itself.
        const std::string sql = "UPDATE key_history SET seq = seq + 1000 WHERE device = 'cam1';"
                                "INSERT INTO key_history VALUES('cam1', 0, '" +
                                std::string(kOldKey) + "', '" + md5_hex(kOldKey) + "', 1);";
        sqlite3 *db = nullptr;
        EXPECT_EQ(sqlite3_open((dir_ + "/data/vexo-cloud.db").c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
        vexo_cloud::Options options = this->options();
        options.log = [this](const std::string &line) { log_.push_back(line); };
        return start_service(options);
    }

    static Request replayed(Request request) {
        request.headers["x-vexo-replay"] = "1";
        return request;
    }
    static Request start_request(uint32_t start_time, const std::string &md5) {
        return request("POST", std::string("/v1/api/") + kStartApi + "?v=1.0", "cam1",
                       start_body(start_time, md5));
    }

    std::string key_;
    std::vector<std::string> log_;
};

TEST_F(ReplayTest, AStartCountsOnTheDayItStartedNotTheDayItArrived) {
    clock_ = kNoon + kDay - 2 * 3600; // 10:00 the day after kNoon
    auto service = start_with_two_keys(3);
    start(*service, "cam1", clock_ - 60, md5_hex(key_));
    EXPECT_EQ(service->count_left("cam1"), 2);
    // Yesterday's start, replayed this morning, is filed but leaves today's count alone.
    const auto late = service->handle(replayed(start_request(kNoon, md5_hex(key_))));
    EXPECT_EQ(body_of(late)["success"], true) << late.body;
    EXPECT_EQ(service->count_left("cam1"), 2);
    // A service clock that went back (a simulated camera's, run again) counts afresh.
    clock_ = clock_ - 3 * kDay;
    start(*service, "cam1", clock_, md5_hex(key_));
    EXPECT_EQ(service->count_left("cam1"), 2);
}

TEST_F(ReplayTest, AReplayedStartIsFiledUnderTheKeyItNames) {
    auto service = start_with_two_keys();
    const struct {
        const char *what;
        bool replay;
        std::string announced;
        bool old_key_filed;
        size_t log_lines;
    } cases[] = {
        {"replay with the older key", true, md5_hex(kOldKey), true, 0},
        {"replay with the current key", true, md5_hex(key_), false, 0},
        {"replay with a key never given", true, md5_hex("NeverGivenKey123"), false, 1},
        {"replay after a failed key check", true, kNoKeyMd5, false, 1},
    };
    uint32_t start_time = kNoon;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        log_.clear();
        start_time += 100;
        const Request r = start_request(start_time, c.announced);
        const Json result = body_of(service->handle(c.replay ? replayed(r) : r))["result"];
        // The answer is the live one: the current key whenever the device named another.
        const bool current = c.announced == md5_hex(key_);
        const Json expected = current ? Json{{"needUpdate", false}}
                                      : Json{{"needUpdate", true}, {"encryptKey", key_}};
        EXPECT_EQ(result, expected);
        const std::string filed = c.old_key_filed ? kOldKey : key_;
        const vexo_cloud::Recording rec = recording(*service, "cam1", start_time);
        EXPECT_EQ(rec.key, filed);
        EXPECT_EQ(rec.announced_md5, c.announced);
        ASSERT_EQ(log_.size(), c.log_lines);
        if (c.log_lines != 0) {
            EXPECT_NE(log_[0].find(std::to_string(start_time) + " names key md5 \"" + c.announced),
                      std::string::npos)
                << log_[0];
        }
    }
}

TEST_F(ReplayTest, UploadsStopsAndAlarmsSentADayLateAreFiledAsEver) {
    auto service = start_with_two_keys();
    ASSERT_EQ(service->handle(replayed(start_request(kNoon, md5_hex(kOldKey)))).status, 200);
    clock_ = kNoon + kDay;
    const std::string media = "1710072000_0010.media";
    const Request requests[] = {request("PUT", "/v1/devices/cam1/media/" + media, "cam1", "slice"),
                                request("POST", std::string("/v1/api/") + kStopApi + "?v=1.0",
                                        "cam1",
                                        Json{{"startTime", kNoon}, {"endTime", kNoon + 20}}.dump()),
                                request("POST", "/v1/devices/cam1/alarms", "cam1",
                                        R"({"time":1710072005,"withPicture":0})")};
    for (const Request &r : requests) {
        const auto answer = service->handle(replayed(r));
        EXPECT_EQ(answer.status, 200) << r.path << answer.body;
    }
    const vexo_cloud::Recording rec = recording(*service, "cam1", kNoon);
    EXPECT_EQ(rec.end_time, kNoon + 20);
    EXPECT_EQ(rec.key, kOldKey); // the stop keeps the key the start filed
    EXPECT_EQ(rec.files.size(), 1u);
    EXPECT_EQ(service->alarms("cam1").at(0).time, kNoon + 5);
}

} // namespace
} // namespace service_test

// The host kit's own calls: cloud calls in their wire form and the answers mapped back, MQTT
// dispatch, thread handles and the fast clock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

#include "host_kit.h"
#include "recording_cloud.h"
#include "tests/support/temp_dir.h"
#include "vexo_cloud.h"
#include "vexo_device.h"
#include "vexo_thread.h"
#include "vexo_time.h"

namespace {

using ScriptedCloud = vexo_test::RecordingCloud;

class KitCallsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = tmp_.path();
        cloud_ = std::make_shared<ScriptedCloud>();
        hostkit::Options o;
        o.data_dir = dir_;
        o.device_id = "cam-7";
        o.device_token = "t0k";
        o.cloud = cloud_;
        o.clock_start = 1800000000;
        o.speed = 1000;
        o.thread_join_timeout_ms = 200;
        o.log_level = hostkit::LogLevel::kError;
        ASSERT_EQ(hostkit::start(o), 0);
    }
    void TearDown() override { hostkit::stop(); }
    void answer(int32_t status, const std::string &body) {
        cloud_->answer.status = status;
        cloud_->answer.body = body;
    }
    hostkit::CloudRequest last() {
        std::lock_guard<std::mutex> lock(cloud_->mu);
        return cloud_->requests.back();
    }

    vexo_test::TempDir tmp_{"vexo-kit"};
    std::string dir_;
    std::shared_ptr<ScriptedCloud> cloud_;
};

TEST_F(KitCallsTest, StorageConfigMapsEachAnswerToItsResult) {
    struct Case {
        int32_t status;
        const char *body;
        int32_t result;
    };
    const Case cases[] = {
        {200, R"({"storeMode":"event","countLeft":3})", 0},
        {410, R"({"error":"order expired"})", VEXO_CLOUD_ORDER_EXPIRED},
        {500, "", VEXO_CLOUD_SERVICE_FAILED},
        {503, "", VEXO_CLOUD_SERVICE_FAILED},
        {404, R"({"error":"unknown device"})", -1},
        {200, "not json", -1},
        {200, "[1,2]", -1},
        {0, "", -1}, // no answer at all
    };
    for (const Case &c : cases) {
        answer(c.status, c.body);
        vexo_storage_config_t cfg;
        EXPECT_EQ(cloud_get_storage_config(&cfg, 1), c.result) << c.status << " " << c.body;
    }
    const hostkit::CloudRequest req = last();
    EXPECT_EQ(req.method, "GET");
    EXPECT_EQ(req.path, "/v1/devices/cam-7/storage/config");
    EXPECT_EQ(req.headers.at("x-vexo-device"), "cam-7");
    EXPECT_EQ(req.headers.at("authorization"), "Bearer t0k");
}

TEST_F(KitCallsTest, StorageConfigFillsEveryFieldCutsTextsAndZeroesWhatIsMissing) {
    const std::string long_mode(100, 'm');
    answer(200, R"({"cloudType":"local","addressPrefix":"media","addressSuffix":"x:1",)"
                R"("storeMode":")" +
                    long_mode +
                    R"(","eventDuration":30,"sliceDuration":10,"silenceInterval":60,)"
                    R"("countLeft":20})");
    vexo_storage_config_t cfg;
    std::memset(&cfg, 0x5a, sizeof cfg);
    ASSERT_EQ(cloud_get_storage_config(&cfg, 1), 0);
    EXPECT_STREQ(cfg.cloud_type, "local");
    EXPECT_STREQ(cfg.address_prefix, "media");
    EXPECT_STREQ(cfg.address_suffix, "x:1");
    EXPECT_EQ(std::string(cfg.store_mode), long_mode.substr(0, sizeof cfg.store_mode - 1));
    EXPECT_EQ(cfg.event_duration, 30);
    EXPECT_EQ(cfg.slice_duration, 10);
    EXPECT_EQ(cfg.silence_interval, 60);
    EXPECT_EQ(cfg.count_left, 20);
    EXPECT_EQ(cfg.azure_address[0], '\0') << "absent field left zero";
}

/// The number members of the configuration answers, as the record holds them.
std::vector<int32_t> numbers(const vexo_storage_config_t &cfg) {
    return {cfg.event_duration, cfg.slice_duration, cfg.silence_interval, cfg.count_left};
}

TEST_F(KitCallsTest, StorageConfigRefusesOrClampsNumbersBeyondTheirField) {
    constexpr int32_t kMax = INT32_MAX;
    struct Case {
        const char *member;
        const char *literal;
        int32_t result;
        int32_t value; // the member's value after a 0 result
        const char *log;
    };
    // Durations beyond 0..INT32_MAX, and any fraction, make the answer refused; the count of
    // events left is clamped into that range.
    const Case cases[] = {
        {"eventDuration", "2147483648", -1, 0, "\"eventDuration\" 2147483648 is not"},
        {"eventDuration", "2147483647", 0, kMax, nullptr},
        {"eventDuration", "-1", -1, 0, "\"eventDuration\" -1 is not a whole number"},
        {"sliceDuration", "4294967306", -1, 0, "answer refused"}, // 10 after a 32-bit wrap
        {"sliceDuration", "1.5", -1, 0, "\"sliceDuration\" 1.5 is not"},
        {"sliceDuration", "10.0", 0, 10, nullptr},
        {"silenceInterval", "-2147483649", -1, 0, "\"silenceInterval\" -2147483649 is not"},
        {"silenceInterval", "1e400", -1, 0, "\"silenceInterval\" inf is not"},
        {"silenceInterval", "0", 0, 0, nullptr},
        {"countLeft", "4294967296", 0, kMax, "\"countLeft\" 4294967296 taken as 2147483647"},
        {"countLeft", "-5", 0, 0, "\"countLeft\" -5 taken as 0"},
        {"countLeft", "2.5", -1, 0, "\"countLeft\" 2.5 is not a whole number"},
        {"countLeft", "\"7\"", 0, 0, nullptr}, // another type: left zero, as when missing
    };
    const char *members[] = {"eventDuration", "sliceDuration", "silenceInterval", "countLeft"};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.member) + ":" + c.literal);
        // Every other member holds a valid value, so each case proves one member's rule.
        std::string body = R"({"storeMode":"event")";
        std::vector<int32_t> expected;
        for (const char *m : members) {
            const bool hostile = std::strcmp(m, c.member) == 0;
            body += std::string(",\"") + m + "\":" + (hostile ? c.literal : "30");
            expected.push_back(hostile ? c.value : 30);
        }
        answer(200, body + "}");
        vexo_storage_config_t cfg;
        std::memset(&cfg, 0, sizeof cfg);
        std::strcpy(cfg.store_mode, "alltime");
        cfg.event_duration = cfg.slice_duration = cfg.silence_interval = cfg.count_left = 9;
        const vexo_storage_config_t before = cfg;
        testing::internal::CaptureStderr();
        const int32_t result = cloud_get_storage_config(&cfg, 1);
        const std::string log = testing::internal::GetCapturedStderr();
        ASSERT_EQ(result, c.result);
        if (c.result == 0) {
            EXPECT_EQ(numbers(cfg), expected);
            EXPECT_STREQ(cfg.store_mode, "event");
        } else {
            EXPECT_EQ(std::memcmp(&cfg, &before, sizeof cfg), 0)
                << "a refused answer changed the record";
        }
        if (c.log != nullptr) {
            EXPECT_NE(log.find(c.log), std::string::npos) << log;
        } else {
            EXPECT_EQ(log, "");
        }
    }
}

TEST_F(KitCallsTest, StorageRestrictionFillsItsTwoFieldsOrRefusesDurationsBeyondThem) {
    const struct {
        int32_t status;
        const char *body;
        int32_t result, event_duration, slice_duration;
    } cases[] = {
        {200, R"({"eventDuration":1e300,"sliceDuration":4})", -1, 7, 8},
        {200, R"({"eventDuration":12,"sliceDuration":-4294967296})", -1, 7, 8},
        {200, R"({"eventDuration":12,"sliceDuration":4.25})", -1, 7, 8},
        {200, R"({"eventDuration":12.0,"sliceDuration":4})", 0, 12, 4},
        {200, R"({"sliceDuration":6})", 0, 7, 6}, // a missing member is left as it was
        {503, "", -1, 7, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body);
        answer(c.status, c.body);
        vexo_storage_config_t cfg;
        std::memset(&cfg, 0, sizeof cfg);
        cfg.event_duration = 7;
        cfg.slice_duration = 8;
        cfg.count_left = 3;
        testing::internal::CaptureStderr();
        EXPECT_EQ(cloud_get_storage_restriction_config(&cfg), c.result);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::vector<int32_t>({cfg.event_duration, cfg.slice_duration, cfg.count_left}),
                  std::vector<int32_t>({c.event_duration, c.slice_duration, 3}));
        EXPECT_EQ(log.find("storage restriction: ") != std::string::npos,
                  c.result != 0 && c.status == 200)
            << log;
    }
}

TEST_F(KitCallsTest, ApiPostHandsOverTheResultOnlyOnSuccess) {
    char body[64] = R"({"startTime":5})";
    cJSON *result = nullptr;
    answer(200, R"({"success":true,"result":{"needUpdate":false}})");
    ASSERT_EQ(iot_httpc_common_post_no_remalloc("a.b.start", "1.0", nullptr, "cam-7", body,
                                                sizeof body, nullptr, &result),
              0);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(result, "needUpdate")));
    cJSON_Delete(result);
    // Method, path and query are held to by the service in the network runs; it takes a body
    // with spare room after it and any content type, so those are checked here.
    const hostkit::CloudRequest req = last();
    EXPECT_EQ(req.body, R"({"startTime":5})") << "the text, not the spare room after it";
    EXPECT_EQ(req.headers.at("content-type"), "application/json");

    for (const char *refusal : {R"({"success":false,"code":"x","msg":"no"})", "{}", "garbage"}) {
        answer(200, refusal);
        result = nullptr;
        EXPECT_EQ(iot_httpc_common_post_no_remalloc("a.b.start", "1.0", nullptr, "cam-7", body,
                                                    sizeof body, nullptr, &result),
                  -1)
            << refusal;
        EXPECT_EQ(result, nullptr);
    }
    answer(500, "");
    EXPECT_EQ(iot_httpc_common_post_no_remalloc("a.b.start", "1.0", nullptr, "cam-7", body,
                                                sizeof body, nullptr, &result),
              -1);
}

TEST_F(KitCallsTest, UploadAndAlarmTravelWithTheirBytes) {
    const uint8_t media[] = {1, 2, 3, 0, 255};
    vexo_storage_config_t cfg{};
    answer(200, "{}");
    ASSERT_EQ(cloud_put_data_to_file(&cfg, "https", 1, "1800000000_0000.media", "media/av", media,
                                     sizeof media),
              0);
    // Path and bytes are compared by the network runs; the service stores any content type.
    hostkit::CloudRequest req = last();
    EXPECT_EQ(req.headers.at("content-type"), "media/av");
    answer(507, "");
    EXPECT_EQ(cloud_put_data_to_file(&cfg, "https", 1, "1800000000_0010.media", "media/av", media,
                                     sizeof media),
              -1);
    const hostkit::Counters c = hostkit::counters();
    EXPECT_EQ(c.uploads, 1u);
    EXPECT_EQ(c.upload_failures, 1u);
    EXPECT_EQ(c.bytes_uploaded, sizeof media);

    // "Man" and "Ma" cover the full and the padded base64 groups.
    uint8_t picture[] = {'M', 'a', 'n', 'M', 'a'};
    char extra[] = R"({"user":"u1"})";
    vexo_alarm_event_t alarm{};
    alarm.time = 1800000001;
    alarm.with_picture = 1;
    alarm.extra = extra;
    alarm.picture = picture;
    alarm.picture_size = sizeof picture;
    answer(200, "{}");
    ASSERT_EQ(vexo_ipc_alarm_event(&alarm), 0);
    req = last();
    EXPECT_EQ(req.path, "/v1/devices/cam-7/alarms");
    EXPECT_EQ(req.body, R"({"time":1800000001,"withPicture":1,"extra":"{\"user\":\"u1\"}",)"
                        R"("picture":"TWFuTWE="})");
}

std::atomic<int> g_handled{0};
void handler(cJSON *) {
    ++g_handled;
}

TEST_F(KitCallsTest, MqttDispatchCallsTheAttachedHandlerCountsItAndDropsTheRest) {
    g_handled = 0;
    for (uint32_t protocol : {307u, 300u, 0u, UINT32_MAX}) {
        ASSERT_EQ(mqtt_attach(protocol, handler), 0);
    }
    struct Case {
        const char *message;
        const char *log; // nullptr: handled, no log line
    };
    const char *kUnknown = "dropped a message with an unknown protocol";
    const Case cases[] = {
        {R"({"protocol":307,"data":{}})", nullptr},
        {R"({"protocol":3.07e2})", nullptr},
        {R"({"protocol":300})", nullptr},
        {R"({"protocol":0})", nullptr},
        {R"({"protocol":4294967295})", nullptr},
        {R"({"protocol":301,"data":{}})", kUnknown},
        {R"({"data":{}})", ""},
        {R"({"protocol":"307"})", ""},
        {"{\"protocol\":307", ""},
        {"[307]", ""},
        {"", ""},
        {R"({"protocol":307.5})", "protocol 307.5 is not a whole"},
        {R"({"protocol":1e400})", "protocol inf is not"},
        {R"({"protocol":4294967296})", "protocol 4294967296 is not"},
        {R"({"protocol":4294967603})", "is not a whole number 0..4294967295"}, // 307 wrapped
        {R"({"protocol":-1})", "protocol -1 is not"},
    };
    int handled = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message);
        testing::internal::CaptureStderr();
        const int32_t result = hostkit::mqtt_dispatch(c.message);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(result, c.log == nullptr ? 0 : -1);
        handled += c.log == nullptr ? 1 : 0;
        EXPECT_EQ(g_handled, handled);
        EXPECT_EQ(log.find(c.log == nullptr ? "\n" : c.log) != std::string::npos, c.log != nullptr)
            << log;
    }
    // Only what reached a handler counts; triggers (307) and order changes (300) apart.
    const hostkit::Counters counters = hostkit::counters();
    EXPECT_EQ(counters.mqtt_messages, 5u);
    EXPECT_EQ(counters.remote_triggers, 2u);
    EXPECT_EQ(counters.order_changes, 1u);
    // Queued messages run on the kit's MQTT thread.
    hostkit::mqtt_deliver(R"({"protocol":307})");
    for (int i = 0; i < 1000 && g_handled < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(g_handled, 6);
}

std::atomic<bool> g_release{false};
std::atomic<int> g_finished{0};
void worker(void *arg) {
    auto *spins = static_cast<int *>(arg);
    while (*spins > 0 && !g_release) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        --*spins;
    }
    ++g_finished;
}

TEST_F(KitCallsTest, DeleteThreadHandleJoinsOrDetachesAStuckThreadWithoutFreeingIt) {
    g_finished = 0;
    g_release = false;
    int quick = 0;
    vexo_thread_t handle = nullptr;
    vexo_thread_param_t param{0x10000, 0, "quick"};
    ASSERT_EQ(CreateAndStart(&handle, nullptr, nullptr, worker, &quick, &param), 0);
    ASSERT_EQ(DeleteThrdHandle(handle), 0);
    EXPECT_EQ(g_finished, 1) << "a finished thread is joined";

    // A thread that outlives the join limit is detached; it ends later on its own, and its
    // record stays valid until then (the address sanitizer would see a use after free).
    static int stuck = 1000000;
    ASSERT_EQ(CreateAndStart(&handle, nullptr, nullptr, worker, &stuck, &param), 0);
    EXPECT_EQ(DeleteThrdHandle(handle), 0);
    EXPECT_EQ(g_finished, 1);
    g_release = true;
    for (int i = 0; i < 1000 && g_finished < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(g_finished, 2);
    EXPECT_EQ(DeleteThrdHandle(nullptr), 0);
}

TEST_F(KitCallsTest, TheKitClockStartsWhereToldAndSleepsOnItsOwnTime) {
    const uint32_t before = uni_time_get_posix();
    EXPECT_GE(before, 1800000000u);
    vexo_hal_system_sleep(5000); // 5 s of kit time, 5 ms of real time at speed 1000
    EXPECT_GE(uni_time_get_posix(), before + 5);
    const uint64_t target = hostkit::now_ms() + 3000;
    hostkit::sleep_until_ms(target);
    EXPECT_GE(hostkit::now_ms(), target);
}

TEST(KitStart, RefusesBadOptions) {
    hostkit::Options o;
    o.data_dir = (std::filesystem::temp_directory_path() / "vexo-kit-bad").string();
    o.cloud = std::make_shared<ScriptedCloud>();
    o.device_id = "bad id";
    EXPECT_EQ(hostkit::start(o), -1);
    o.device_id = "ok";
    o.speed = 0;
    EXPECT_EQ(hostkit::start(o), -1);
    o.speed = 1;
    o.cloud.reset();
    EXPECT_EQ(hostkit::start(o), -1);
    std::error_code ignored;
    std::filesystem::remove_all(o.data_dir, ignored);
}

} // namespace

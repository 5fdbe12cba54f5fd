/// The start notification: the key a device gets, the key each recording is encrypted with,
/// and the daily allowance of event recordings.
#include <cctype>
#include <cstdlib>
#include <ctime>

#include "service/core/key_crypto.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::md5_hex;
using vexo_cloud::OrderChange;

class ServiceKeysTest : public ServiceTest {};
class ServiceAllowanceTest : public ServiceTest {};

bool is_key_text(const std::string &key) {
    if (key.size() != 16) {
        return false;
    }
    for (char c : key) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

TEST(ServiceKeyCryptoTest, Md5MatchesKnownDigests) {
    EXPECT_EQ(md5_hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5_hex("12345678901234567890123456789012345678901234567890123456789012345678901234"
                      "567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST_F(ServiceKeysTest, FirstStartIssuesKeyAndMatchingMd5KeepsIt) {
    auto service = start_cam1();
    const Json first = start(*service, "cam1", kNoon, kNoKeyMd5);
    ASSERT_EQ(first["needUpdate"], true);
    const std::string key = first["encryptKey"];
    EXPECT_TRUE(is_key_text(key)) << key;
    EXPECT_EQ(recording(*service, "cam1", kNoon).key_md5, md5_hex(key));
    // The second start of the key update announces the new key.
    EXPECT_EQ(start(*service, "cam1", kNoon, md5_hex(key)), Json::parse(R"({"needUpdate":false})"));
    const vexo_cloud::Recording rec = recording(*service, "cam1", kNoon);
    EXPECT_EQ(rec.key, key);
    EXPECT_EQ(rec.announced_md5, md5_hex(key));

    // Later recordings with the key keep it.
    EXPECT_EQ(start(*service, "cam1", kNoon + 100, md5_hex(key))["needUpdate"], false);
    EXPECT_EQ(recording(*service, "cam1", kNoon + 100).key, key);
}

TEST_F(ServiceKeysTest, StartWithAnotherKeyGetsTheCurrentKeyAndDevicesTheirOwn) {
    auto service = start_cam1();
    add_device(*service, "cam2");
    const std::string key = start(*service, "cam1", kNoon, kNoKeyMd5)["encryptKey"];
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

} // namespace
} // namespace service_test

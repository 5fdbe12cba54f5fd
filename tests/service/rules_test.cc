/// The pure rules under the service: the typed member readers every request body goes
/// through, quotas and retention as decisions over counts, and how listings show recordings.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "service/core/limit_rules.h"
#include "service/store/json_fields.h"
#include "service/store/recording_listing.h"

namespace {

using vexo_cloud::DeviceLimits;
using vexo_cloud::Json;
using vexo_cloud::Recording;
using vexo_cloud::RecordingStatus;

constexpr uint32_t kDay = 86400;
constexpr uint32_t kNow = 1710072000;

/// {"n":<literal>} parsed; the readers see exactly what a request body would hold.
Json member(const std::string &literal) {
    const std::optional<Json> object = vexo_cloud::parse_object("{\"n\":" + literal + "}");
    EXPECT_TRUE(object.has_value()) << literal;
    return object.value_or(Json::object());
}

TEST(JsonFields, WholeNumberReadersTakeOnlyWhatFitsTheirType) {
    constexpr int64_t kNo = INT64_MIN; // refused: *out must stay as it was
    const struct {
        const char *literal;
        int64_t as_u32, as_i32;
    } cases[] = {
        {"-0", 0, 0},
        {"2147483648", 2147483648, kNo},
        {"-2147483648", kNo, INT32_MIN},
        {"-2147483649", kNo, kNo},
        {"4294967295", 4294967295, kNo},
        {"4294967296", kNo, kNo},
        {"-1", kNo, -1},
        {"18446744073709551616", kNo, kNo}, // beyond 64 bits: a double to the parser
        {"1e300", kNo, kNo},
        {"30.0", kNo, kNo}, // written as a fraction: not a whole number on the wire
        {"\"30\"", kNo, kNo},
        {"null", kNo, kNo},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.literal);
        const Json object = member(c.literal);
        uint32_t u = 77;
        EXPECT_EQ(vexo_cloud::get_u32(object, "n", &u), c.as_u32 != kNo);
        EXPECT_EQ(int64_t{u}, c.as_u32 != kNo ? c.as_u32 : 77);
        int32_t i = 77;
        EXPECT_EQ(vexo_cloud::get_i32(object, "n", &i), c.as_i32 != kNo);
        EXPECT_EQ(int64_t{i}, c.as_i32 != kNo ? c.as_i32 : 77);
    }
    EXPECT_FALSE(vexo_cloud::parse_object(R"({"n":1e400})")); // beyond the double range
    uint32_t untouched = 5;
    EXPECT_FALSE(vexo_cloud::get_u32(Json::object(), "n", &untouched)); // missing
    EXPECT_EQ(untouched, 5u);
    // Flags are booleans or exactly 0 and 1.
    for (const auto &[literal, value] : {std::pair<const char *, int>{"true", 1},
                                         {"0", 0},
                                         {"1", 1},
                                         {"2", -1},
                                         {"1.0", -1},
                                         {"4294967297", -1},
                                         {"\"1\"", -1}}) {
        bool flag = true;
        EXPECT_EQ(vexo_cloud::get_flag(member(literal), "n", &flag), value >= 0) << literal;
        EXPECT_EQ(flag, value >= 0 ? value == 1 : true) << literal;
    }
}

TEST(JsonFields, TextsBeyondTheLimitsAreRefusedBeforeParsing) {
    const auto nest = [](size_t depth, const std::string &inner = "") {
        return std::string(depth, '[') + inner + std::string(depth, ']');
    };
    const struct {
        std::string text;
        bool taken;
    } cases[] = {
        {nest(vexo_cloud::kMaxJsonDepth), true},
        {"{\"a\":" + nest(vexo_cloud::kMaxJsonDepth) + "}", false},
        // Brackets inside strings, escaped quotes included, do not nest.
        {"[\"" + std::string(100, '[') + "\\\"" + std::string(100, '{') + "\"]", true},
        {"[\"\\\\\"" + nest(vexo_cloud::kMaxJsonDepth) + "]", false},
        // Unbalanced closers do not buy depth back.
        {"]]]]" + nest(vexo_cloud::kMaxJsonDepth + 1), false},
        {"\"" + std::string(vexo_cloud::kMaxJsonBytes - 2, 'x') + "\"", true},
        {"\"" + std::string(vexo_cloud::kMaxJsonBytes - 1, 'x') + "\"", false},
    };
    for (const auto &c : cases) {
        const std::string what = c.text.substr(0, 80);
        EXPECT_EQ(vexo_cloud::json_limit_breach(c.text).empty(), c.taken) << what;
        std::string why;
        EXPECT_EQ(vexo_cloud::parse_value(c.text, &why).has_value(), c.taken) << what << why;
    }
    std::string error;
    EXPECT_FALSE(vexo_cloud::parse_body(nest(100000), &error));
    EXPECT_EQ(error, "the body is refused: JSON nested deeper than 32 levels");
}

/// Limits from plain numbers, 0 for none.
DeviceLimits limits(uint64_t bytes, uint64_t files, uint32_t alarms, uint32_t days,
                    uint64_t retained) {
    DeviceLimits out;
    vexo_cloud::LimitsChange change;
    change.max_bytes = bytes;
    change.max_files = files;
    change.max_alarms_per_day = alarms;
    change.retention_days = days;
    change.retention_bytes = retained;
    std::string error;
    EXPECT_TRUE(apply_limits_change(&out, change, &error)) << error;
    return out;
}

TEST(LimitRules, QuotasRefuseExactlyWhatWouldPassThem) {
    const struct {
        DeviceLimits limits;
        vexo_cloud::DeviceUsage usage;
        uint64_t alarms_today;
        uint64_t size;
        bool upload_taken, alarm_taken;
    } cases[] = {
        {{}, {UINT64_MAX, UINT64_MAX}, UINT64_MAX, UINT64_MAX, true, true}, // no limits
        {limits(100, 0, 0, 0, 0), {60, 1}, 0, 40, true, true},              // fills it exactly
        {limits(100, 0, 0, 0, 0), {60, 1}, 0, 41, false, true},
        {limits(100, 0, 0, 0, 0), {0, 0}, 0, UINT64_MAX, false, true}, // no wrap past the limit
        {limits(0, 3, 0, 0, 0), {0, 2}, 0, 1, true, true},
        {limits(0, 3, 0, 0, 0), {0, 3}, 0, 1, false, true},
        {limits(0, 0, 5, 0, 0), {0, 0}, 4, 1, true, true},
        {limits(0, 0, 5, 0, 0), {0, 0}, 5, 1, true, false},
    };
    for (const auto &c : cases) {
        const std::string upload = upload_quota_refusal(c.limits, c.usage, c.size);
        EXPECT_EQ(upload.empty(), c.upload_taken) << c.size << ": " << upload;
        EXPECT_EQ(alarm_quota_refusal(c.limits, c.alarms_today).empty(), c.alarm_taken)
            << c.alarms_today;
    }
}

TEST(LimitRules, RetentionTakesTheOldestClosedRecordingsFirst) {
    // Three closed recordings of 100 bytes that ended 3, 2 and 1 days ago, and an open one.
    const std::vector<vexo_cloud::RecordingUsage> kept = {
        {kNow - 3 * kDay - 60, kNow - 3 * kDay, 100, 1},
        {kNow - 2 * kDay - 60, kNow - 2 * kDay, 100, 1},
        {kNow - 1 * kDay - 60, kNow - 1 * kDay, 100, 1},
        {kNow - 30, 0, 500, 1},
    };
    const uint32_t first = kept[0].start_time;
    const uint32_t second = kept[1].start_time;
    const struct {
        DeviceLimits limits;
        std::vector<uint32_t> expired;
    } cases[] = {
        {{}, {}},
        {limits(0, 0, 0, 2, 0), {first}},
        {limits(0, 0, 0, 3, 0), {}}, // exactly three days old is not older than three days
        {limits(0, 0, 0, 0, 800), {}},
        {limits(0, 0, 0, 0, 700), {first}},
        {limits(0, 0, 0, 0, 699), {first, second}},
        // The open recording alone is over the limit: every closed one goes, it stays.
        {limits(0, 0, 0, 0, 10), {first, second, kept[2].start_time}},
        {limits(0, 0, 0, 2, 650), {first, second}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(recordings_to_expire(c.limits, kept, kNow), c.expired)
            << c.limits.retention_days.value_or(0) << " days, "
            << c.limits.retention_bytes.value_or(0) << " bytes";
    }
    // A service clock behind the recordings (set back) expires nothing by age.
    EXPECT_TRUE(recordings_to_expire(limits(0, 0, 0, 1, 0), kept, kNow - 10 * kDay).empty());
}

TEST(LimitRules, ChangesApplyWholeOrNotAtAll) {
    DeviceLimits kept = limits(1, 2, 3, 4, 5);
    std::string error;
    vexo_cloud::LimitsChange change;
    change.max_bytes = 10;
    change.retention_days = vexo_cloud::kMaxRetentionDays + 1;
    EXPECT_FALSE(apply_limits_change(&kept, change, &error));
    EXPECT_EQ(kept.max_bytes, 1u);
    change.retention_days = 0; // lifts the limit
    ASSERT_TRUE(apply_limits_change(&kept, change, &error));
    EXPECT_EQ(kept.max_bytes, 10u);
    EXPECT_EQ(kept.max_files, 2u);
    EXPECT_FALSE(kept.retention_days.has_value());
}

Recording make(uint32_t end, int32_t mtu, const std::vector<std::string> &elapsed,
               const std::string &device = "cam1", uint32_t start = kNow) {
    Recording r;
    r.device = device;
    r.start_time = start;
    r.end_time = end;
    r.mtu = mtu;
    for (const std::string &e : elapsed) {
        r.files.push_back({std::to_string(start) + "_" + e + ".media", 10});
    }
    return r;
}

TEST(RecordingStatusTest, ARecordingWithoutAnEndIsLeftOpenOnceClearlyOver) {
    constexpr RecordingStatus kClosed = RecordingStatus::kClosed;
    constexpr RecordingStatus kOpen = RecordingStatus::kOpen;
    constexpr RecordingStatus kLeftOpen = RecordingStatus::kLeftOpen;
    const struct {
        const char *what;
        Recording recording;
        bool later;
        uint32_t age; // seconds from the start to now
        RecordingStatus expected;
    } cases[] = {
        {"closed", make(kNow + 30, 10, {"0000"}), false, 99999, kClosed},
        {"closed, a later one exists", make(kNow + 30, 10, {}), true, 1, kClosed},
        {"start 3 slices + 60 s ago", make(0, 10, {}), false, 90, kOpen},
        {"start 3 slices + 61 s ago", make(0, 10, {}), false, 91, kLeftOpen},
        {"newest file recent enough", make(0, 10, {"0100", "0000"}), false, 190, kOpen},
        {"newest file too old", make(0, 10, {"0100", "0000"}), false, 191, kLeftOpen},
        {"a later recording, however fresh", make(0, 10, {"0000"}), true, 0, kLeftOpen},
        {"negative slice length", make(0, -50, {}), false, 60, kOpen},
        {"a name that is no media file", make(0, 10, {"x"}), false, 91, kLeftOpen},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(vexo_cloud::recording_status(c.recording, c.later, kNow + c.age), c.expected)
            << c.what;
    }
    EXPECT_EQ(vexo_cloud::recording_status(make(0, 10, {}), false, kNow - 500), kOpen)
        << "a service clock behind the device's";
    // Only a later recording of the same device closes one.
    const std::vector<Recording> list = {make(0, 10, {}, "cam1", kNow + 9), make(0, 10, {}),
                                         make(0, 10, {}, "cam2")};
    EXPECT_EQ(vexo_cloud::recording_statuses(list, kNow + 60),
              (std::vector<RecordingStatus>{kOpen, kLeftOpen, kOpen}));
}

TEST(ListingTextTest, SizesAndGaps) {
    const std::pair<uint64_t, const char *> sizes[] = {{1, "1 byte"},
                                                       {999, "999 bytes"},
                                                       {999949, "999.9 kB"},
                                                       {999950, "1.0 MB"},
                                                       {UINT64_MAX, "18.4 EB"}};
    for (const auto &[bytes, text] : sizes) {
        EXPECT_EQ(vexo_cloud::byte_size_text(bytes), text) << bytes;
    }
    // Times are local: pin the zone for the test, and put it back.
    const char *zone = std::getenv("TZ");
    const std::string saved = zone != nullptr ? zone : "";
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(vexo_cloud::gap_text({"cam1", kNow, kNow + 300, "spool full", 1234567}),
              "gap  2024-03-10 12:00:00 - 2024-03-10 12:05:00  spool full  1.2 MB dropped");
    zone != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

} // namespace

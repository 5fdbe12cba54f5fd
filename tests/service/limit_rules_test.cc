/// Quotas and retention as decisions over counts: the boundaries where a device's next file
/// or alarm is refused, and which recordings retention takes.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "service/core/limit_rules.h"

namespace {

using vexo_cloud::DeviceLimits;
using vexo_cloud::DeviceUsage;
using vexo_cloud::RecordingUsage;

constexpr uint32_t kDay = 86400;
constexpr uint32_t kNow = 1710072000;

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
        DeviceUsage usage;
        uint64_t alarms_today;
        uint64_t size;
        bool upload_taken, alarm_taken;
    } cases[] = {
        {{}, {UINT64_MAX, UINT64_MAX}, UINT64_MAX, UINT64_MAX, true, true}, // no limits
        {limits(100, 0, 0, 0, 0), {60, 1}, 0, 40, true, true},              // fills it exactly
        {limits(100, 0, 0, 0, 0), {60, 1}, 0, 41, false, true},
        {limits(100, 0, 0, 0, 0), {0, 0}, 0, 101, false, true},
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
    const std::vector<RecordingUsage> kept = {
        {kNow - 3 * kDay - 60, kNow - 3 * kDay, 100, 1},
        {kNow - 2 * kDay - 60, kNow - 2 * kDay, 100, 1},
        {kNow - 1 * kDay - 60, kNow - 1 * kDay, 100, 1},
        {kNow - 30, 0, 500, 1},
    };
    const struct {
        DeviceLimits limits;
        std::vector<uint32_t> expired;
    } cases[] = {
        {{}, {}},
        {limits(0, 0, 0, 2, 0), {kept[0].start_time}},
        {limits(0, 0, 0, 3, 0), {}}, // exactly three days old is not older than three days
        {limits(0, 0, 0, 1, 0), {kept[0].start_time, kept[1].start_time}},
        {limits(0, 0, 0, 0, 800), {}},
        {limits(0, 0, 0, 0, 700), {kept[0].start_time}},
        {limits(0, 0, 0, 0, 699), {kept[0].start_time, kept[1].start_time}},
        // The open recording alone is over the limit: every closed one goes, it stays.
        {limits(0, 0, 0, 0, 10), {kept[0].start_time, kept[1].start_time, kept[2].start_time}},
        {limits(0, 0, 0, 2, 650), {kept[0].start_time, kept[1].start_time}},
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
    EXPECT_NE(error.find("retentionDays"), std::string::npos);
    change.retention_days = 0; // lifts the limit
    ASSERT_TRUE(apply_limits_change(&kept, change, &error));
    EXPECT_EQ(kept.max_bytes, 10u);
    EXPECT_EQ(kept.max_files, 2u);
    EXPECT_FALSE(kept.retention_days.has_value());
}

} // namespace

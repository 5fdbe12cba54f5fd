/// Quotas and retention as decisions over counts: the boundaries where a device's next file
/// or alarm is refused, and which recordings retention takes.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "service/core/limit_rules.h"

namespace {

using vexo_cloud::DeviceLimits;
using vexo_cloud::DeviceUsage;
using vexo_cloud::KeptRecording;

constexpr uint32_t kDay = 86400;
constexpr uint32_t kNow = 1710072000;

TEST(LimitRules, QuotasRefuseExactlyWhatWouldPassThem) {
    const struct {
        DeviceLimits limits;
        DeviceUsage usage;
        uint64_t size;
        bool upload_taken, alarm_taken;
    } cases[] = {
        {{}, {UINT64_MAX, UINT64_MAX, UINT32_MAX}, UINT64_MAX, true, true}, // no limits
        {{100, 0, 0, 0, 0}, {60, 1, 0}, 40, true, true},                    // fills it exactly
        {{100, 0, 0, 0, 0}, {60, 1, 0}, 41, false, true},
        {{100, 0, 0, 0, 0}, {0, 0, 0}, 101, false, true},
        {{100, 0, 0, 0, 0}, {0, 0, 0}, UINT64_MAX, false, true}, // no wrap past the limit
        {{0, 3, 0, 0, 0}, {0, 2, 0}, 1, true, true},
        {{0, 3, 0, 0, 0}, {0, 3, 0}, 1, false, true},
        {{0, 0, 5, 0, 0}, {0, 0, 4}, 1, true, true},
        {{0, 0, 5, 0, 0}, {0, 0, 5}, 1, true, false},
    };
    for (const auto &c : cases) {
        const std::string upload = upload_quota_refusal(c.limits, c.usage, c.size);
        EXPECT_EQ(upload.empty(), c.upload_taken) << c.size << ": " << upload;
        EXPECT_EQ(alarm_quota_refusal(c.limits, c.usage).empty(), c.alarm_taken)
            << c.usage.alarms_today;
    }
}

TEST(LimitRules, RetentionTakesTheOldestClosedRecordingsFirst) {
    // Three closed recordings of 100 bytes that ended 3, 2 and 1 days ago, and an open one.
    const std::vector<KeptRecording> kept = {
        {kNow - 3 * kDay - 60, kNow - 3 * kDay, 100},
        {kNow - 2 * kDay - 60, kNow - 2 * kDay, 100},
        {kNow - 1 * kDay - 60, kNow - 1 * kDay, 100},
        {kNow - 30, 0, 500},
    };
    const struct {
        DeviceLimits limits;
        std::vector<uint32_t> expired;
    } cases[] = {
        {{}, {}},
        {{0, 0, 0, 2, 0}, {kept[0].start_time}},
        {{0, 0, 0, 3, 0}, {}}, // exactly three days old is not older than three days
        {{0, 0, 0, 1, 0}, {kept[0].start_time, kept[1].start_time}},
        {{0, 0, 0, 0, 800}, {}},
        {{0, 0, 0, 0, 700}, {kept[0].start_time}},
        {{0, 0, 0, 0, 699}, {kept[0].start_time, kept[1].start_time}},
        // The open recording alone is over the limit: every closed one goes, it stays.
        {{0, 0, 0, 0, 10}, {kept[0].start_time, kept[1].start_time, kept[2].start_time}},
        {{0, 0, 0, 2, 650}, {kept[0].start_time, kept[1].start_time}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(recordings_to_expire(c.limits, kept, kNow), c.expired)
            << c.limits.retention_days << " days, " << c.limits.retention_bytes << " bytes";
    }
    // A service clock behind the recordings (set back) expires nothing by age.
    EXPECT_TRUE(recordings_to_expire({0, 0, 0, 1, 0}, kept, kNow - 10 * kDay).empty());
}

TEST(LimitRules, ChangesApplyWholeOrNotAtAll) {
    DeviceLimits limits{1, 2, 3, 4, 5};
    std::string error;
    vexo_cloud::LimitsChange change;
    change.max_bytes = 10;
    change.retention_days = vexo_cloud::kMaxRetentionDays + 1;
    EXPECT_FALSE(apply_limits_change(&limits, change, &error));
    EXPECT_EQ(limits.max_bytes, 1u);
    EXPECT_NE(error.find("retentionDays"), std::string::npos);
    change.retention_days = 0;
    ASSERT_TRUE(apply_limits_change(&limits, change, &error));
    EXPECT_EQ(limits.max_bytes, 10u);
    EXPECT_EQ(limits.max_files, 2u);
    EXPECT_EQ(limits.retention_days, 0u);
}

} // namespace

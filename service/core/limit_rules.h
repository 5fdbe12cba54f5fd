/// The rules of what a device may keep: quotas that refuse new data when full, retention that
/// deletes a device's oldest recordings, and the settings an admin may give either.
#ifndef VEXO_CLOUD_LIMIT_RULES_H
#define VEXO_CLOUD_LIMIT_RULES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vexo_cloud {

/// What one device may keep. 0 in any member: no limit of that kind.
struct DeviceLimits {
    uint64_t max_bytes = 0;          ///< media bytes kept
    uint64_t max_files = 0;          ///< media files kept
    uint32_t max_alarms_per_day = 0; ///< alarms taken per local day
    uint32_t retention_days = 0;     ///< recordings that ended longer ago are deleted
    uint64_t retention_bytes = 0;    ///< oldest recordings deleted down to this many bytes
};

/// A partial change of a device's limits: unset members stay as they are.
struct LimitsChange {
    std::optional<uint64_t> max_bytes;
    std::optional<uint64_t> max_files;
    std::optional<uint32_t> max_alarms_per_day;
    std::optional<uint32_t> retention_days;
    std::optional<uint64_t> retention_bytes;
};

/// What a device keeps now, as the quotas count it.
struct DeviceUsage {
    uint64_t bytes = 0;
    uint64_t files = 0;
    uint32_t alarms_today = 0;
};

/// The longest retention an admin may set: about a hundred years.
constexpr uint32_t kMaxRetentionDays = 36500;

/// Applies the set members of change to *limits when the result is valid; *limits is left
/// alone and *error names the value otherwise.
bool apply_limits_change(DeviceLimits *limits, const LimitsChange &change, std::string *error);

/// Why a media file of size bytes may not be stored now, replacing nothing: the bytes or
/// files quota it would pass. Empty when it may.
std::string upload_quota_refusal(const DeviceLimits &limits, const DeviceUsage &usage,
                                 uint64_t size);

/// Why one more alarm may not be taken today; empty when it may.
std::string alarm_quota_refusal(const DeviceLimits &limits, const DeviceUsage &usage);

/// A recording as retention sees it.
struct KeptRecording {
    uint32_t start_time = 0;
    uint32_t end_time = 0; ///< 0 while open
    uint64_t bytes = 0;    ///< its media files
};

/// The start times of the recordings retention deletes at service time now, oldest first:
/// those that ended more than retention_days before now, then the oldest until the rest
/// keep at most retention_bytes. recordings must be sorted by start time. An open recording
/// is never deleted: the camera is still writing it.
std::vector<uint32_t> recordings_to_expire(const DeviceLimits &limits,
                                           const std::vector<KeptRecording> &recordings,
                                           uint32_t now);

} // namespace vexo_cloud

#endif

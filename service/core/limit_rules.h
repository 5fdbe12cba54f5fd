/// The rules of what a device may keep: quotas that refuse new data when full, retention that
/// deletes a device's oldest recordings, and the settings an admin may give either.
#ifndef VEXO_CLOUD_LIMIT_RULES_H
#define VEXO_CLOUD_LIMIT_RULES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "records.h"

namespace vexo_cloud {

/// The longest retention an admin may set: about a hundred years.
constexpr uint32_t kMaxRetentionDays = 36500;

/// Applies the set members of change to *limits when the result is valid; *limits is left
/// alone and *error names the value otherwise.
bool apply_limits_change(DeviceLimits *limits, const LimitsChange &change, std::string *error);

/// Why a media file of size bytes may not be stored now, replacing nothing: the bytes or
/// files quota it would pass. Empty when it may.
std::string upload_quota_refusal(const DeviceLimits &limits, const DeviceUsage &usage,
                                 uint64_t size);

/// Why one more alarm may not be taken on a day that has alarms_today already; empty when it
/// may.
std::string alarm_quota_refusal(const DeviceLimits &limits, uint64_t alarms_today);

/// The start times of the recordings retention deletes at service time now, oldest first:
/// those that ended more than retention_days before now, then the oldest until the rest
/// keep at most retention_bytes. recordings must be sorted by start time. An open recording
/// is never deleted: the camera is still writing it.
std::vector<uint32_t> recordings_to_expire(const DeviceLimits &limits,
                                           const std::vector<RecordingUsage> &recordings,
                                           uint32_t now);

/// The limits in force: own where set, else defaults, member by member.
DeviceLimits effective_limits(const DeviceLimits &own, const DeviceLimits &defaults);

} // namespace vexo_cloud

#endif

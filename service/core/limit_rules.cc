/// Quotas and retention as pure decisions over counts; the service applies them.
#include "limit_rules.h"

namespace vexo_cloud {

namespace {

constexpr uint32_t kSecondsPerDay = 86400;

} // namespace

bool apply_limits_change(DeviceLimits *limits, const LimitsChange &change, std::string *error) {
    if (change.retention_days && *change.retention_days > kMaxRetentionDays) {
        *error = "retentionDays must be 0.." + std::to_string(kMaxRetentionDays);
        return false;
    }
    const auto apply = [](auto *limit, const auto &value) {
        if (value) {
            *limit = *value == 0 ? std::nullopt : std::make_optional(*value);
        }
    };
    apply(&limits->max_bytes, change.max_bytes);
    apply(&limits->max_files, change.max_files);
    apply(&limits->max_alarms_per_day, change.max_alarms_per_day);
    apply(&limits->retention_days, change.retention_days);
    apply(&limits->retention_bytes, change.retention_bytes);
    return true;
}

std::string upload_quota_refusal(const DeviceLimits &limits, const DeviceUsage &usage,
                                 uint64_t size) {
    if (limits.max_files && usage.files >= *limits.max_files) {
        return "the device's quota of " + std::to_string(*limits.max_files) + " files is used up";
    }
    if (limits.max_bytes && (size > *limits.max_bytes || usage.bytes > *limits.max_bytes - size)) {
        return "the device's quota of " + std::to_string(*limits.max_bytes) +
               " bytes has no room for " + std::to_string(size) + " more";
    }
    return "";
}

std::string alarm_quota_refusal(const DeviceLimits &limits, uint64_t alarms_today) {
    if (limits.max_alarms_per_day && alarms_today >= *limits.max_alarms_per_day) {
        return "the device's quota of " + std::to_string(*limits.max_alarms_per_day) +
               " alarms a day is used up";
    }
    return "";
}

std::vector<uint32_t> recordings_to_expire(const DeviceLimits &limits,
                                           const std::vector<RecordingUsage> &recordings,
                                           uint32_t now) {
    std::vector<uint32_t> expired;
    uint64_t kept_bytes = 0;
    for (const RecordingUsage &recording : recordings) {
        kept_bytes += recording.bytes;
    }
    const uint64_t max_age = uint64_t{limits.retention_days.value_or(0)} * kSecondsPerDay;
    for (const RecordingUsage &recording : recordings) {
        if (recording.end_time == 0) {
            continue;
        }
        const bool too_old =
            limits.retention_days && recording.end_time < now && now - recording.end_time > max_age;
        const bool too_much = limits.retention_bytes && kept_bytes > *limits.retention_bytes;
        if (!too_old && !too_much) {
            continue;
        }
        expired.push_back(recording.start_time);
        kept_bytes -= recording.bytes;
    }
    return expired;
}

DeviceLimits effective_limits(const DeviceLimits &own, const DeviceLimits &defaults) {
    DeviceLimits limits;
    limits.max_bytes = own.max_bytes ? own.max_bytes : defaults.max_bytes;
    limits.max_files = own.max_files ? own.max_files : defaults.max_files;
    limits.max_alarms_per_day =
        own.max_alarms_per_day ? own.max_alarms_per_day : defaults.max_alarms_per_day;
    limits.retention_days = own.retention_days ? own.retention_days : defaults.retention_days;
    limits.retention_bytes = own.retention_bytes ? own.retention_bytes : defaults.retention_bytes;
    return limits;
}

} // namespace vexo_cloud

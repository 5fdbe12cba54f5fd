/// A device's limits as the service applies them: the ones in force, what a device keeps
/// against them, and the admin's changes.
#include "limit_rules.h"
#include "order_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- helpers for the other parts (the caller holds core.mutex) ----------------------------

DeviceLimits limits_in_force(const ServiceCore &core, const std::string &device) {
    return effective_limits(core.metadata->limits(device), core.options.default_limits);
}

uint64_t alarms_today(const ServiceCore &core, const std::string &device) {
    uint32_t from = 0;
    uint32_t to = 0;
    local_day_span(core.now(), &from, &to);
    return core.metadata->alarm_count(device, from, to);
}

// ---- exported calls ------------------------------------------------------------------------

bool Service::set_limits(const std::string &device, const LimitsChange &change,
                         std::string *error) {
    ServiceCore &core = impl_->core;
    std::string problem;
    std::lock_guard<std::mutex> lock(core.mutex);
    if (!valid_device_id(device) || !find_device(core, device)) {
        problem = "unknown device";
    }
    DeviceLimits limits = core.metadata->limits(device);
    if (problem.empty() && apply_limits_change(&limits, change, &problem)) {
        core.metadata->put_limits(device, limits);
        return true;
    }
    if (error != nullptr) {
        *error = problem;
    }
    return false;
}

DeviceLimits Service::limits(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    return limits_in_force(core, device);
}

LimitsUsage Service::usage(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const DeviceUsage kept = core.metadata->usage(device);
    return LimitsUsage{kept.bytes, kept.files, alarms_today(core, device)};
}

} // namespace vexo_cloud

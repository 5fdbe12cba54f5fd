/// Service::stats: counts for monitoring, read under the service lock.
#include "service_core.h"

namespace vexo_cloud {

// ---- exported calls ------------------------------------------------------------------------

ServiceStats Service::stats() const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    ServiceStats stats;
    stats.devices = core.devices.size();
    for (const auto &device : core.devices) {
        for (const auto &recording : device.second.recordings) {
            if (recording.second.end_time == 0) {
                ++stats.open_recordings;
            }
        }
    }
    return stats;
}

} // namespace vexo_cloud

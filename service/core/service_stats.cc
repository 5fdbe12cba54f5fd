/// Service::stats: counts for monitoring, read under the service lock.
#include "service_core.h"

namespace vexo_cloud {

// ---- exported calls ------------------------------------------------------------------------

ServiceStats Service::stats() const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    ServiceStats stats;
    stats.devices = core.metadata->device_count();
    stats.open_recordings = core.metadata->open_recording_count();
    return stats;
}

} // namespace vexo_cloud

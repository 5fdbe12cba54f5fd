/// When each device last made a request the service answered as that device's (any device
/// endpoint, refused or not, but not a request that failed its device authentication).
/// Kept in memory only: after a restart a device shows no last request until its next one.
///
/// Thread-safe.
#ifndef VEXO_CLOUD_DEVICE_ACTIVITY_H
#define VEXO_CLOUD_DEVICE_ACTIVITY_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "cloud_service.h"

namespace vexo_cloud {

class DeviceActivity {
  public:
    /// Notes a device request and its answer at now (epoch seconds): counted when it names a
    /// valid device ("x-vexo-device") and its answer is not 401.
    void note(const Request &request, int32_t status, uint32_t now);
    std::optional<uint32_t> last_request(const std::string &device) const;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, uint32_t> last_;
};

} // namespace vexo_cloud

#endif

/// Last request times of the devices.
#include "device_activity.h"

namespace vexo_cloud {

namespace {
constexpr int32_t kUnauthorized = 401;
/// Bounds the map against a client inventing device ids; a real fleet stays far below.
constexpr size_t kMaxDevices = 100000;
} // namespace

void DeviceActivity::note(const Request &request, int32_t status, uint32_t now) {
    const auto it = request.headers.find("x-vexo-device");
    if (it == request.headers.end() || status == kUnauthorized || !valid_device_id(it->second)) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (last_.size() >= kMaxDevices && last_.count(it->second) == 0) {
        return;
    }
    last_[it->second] = now;
}

std::optional<uint32_t> DeviceActivity::last_request(const std::string &device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = last_.find(device);
    return it == last_.end() ? std::nullopt : std::optional<uint32_t>(it->second);
}

} // namespace vexo_cloud

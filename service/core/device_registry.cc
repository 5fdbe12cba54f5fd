/// The known devices, in the metadata store.
#include <stdexcept>

#include "service_core.h"

namespace vexo_cloud {

// ---- exported calls ------------------------------------------------------------------------

std::optional<DeviceState> find_device(const ServiceCore &core, const std::string &device) {
    return core.metadata->device(device);
}

DeviceState known_device(const ServiceCore &core, const std::string &device) {
    std::optional<DeviceState> state = core.metadata->device(device);
    if (!state) {
        throw std::out_of_range("unknown device " + device);
    }
    return std::move(*state);
}

void create_device(ServiceCore &core, const std::string &device, const Order &order) {
    DeviceState state;
    state.order = order;
    core.metadata->put_device(device, state);
}

bool room_for_device(const ServiceCore &core) {
    return core.options.max_devices == 0 ||
           core.metadata->device_count() < core.options.max_devices;
}

} // namespace vexo_cloud

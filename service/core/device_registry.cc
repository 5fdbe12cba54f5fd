/// The known devices: read back from the data directory at start, and created on disk when
/// an admin call or a token names a new one.
#include <filesystem>

#include "alarm_store.h"
#include "durable_file.h"
#include "gap_store.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- exported calls ------------------------------------------------------------------------

void load_devices(ServiceCore &core) {
    namespace fs = std::filesystem;
    const std::string &data_dir = core.options.data_dir;
    std::error_code ec;
    for (fs::directory_iterator it(data_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string device = it->path().filename().string();
        const std::string dir = core.device_dir(device);
        std::error_code file_ec;
        // A device is a directory with a device file; anything else is not the service's.
        if (!valid_device_id(device) || !fs::is_regular_file(dir + "/" + kDeviceFile, file_ec)) {
            continue;
        }
        DeviceEntry entry;
        entry.state = load_device_state(dir);
        entry.recordings = load_recording_index(dir);
        entry.gaps = load_gaps(dir, device);
        entry.next_alarm = next_alarm_sequence(dir + "/" + kAlarmsDirectory);
        core.devices[device] = std::move(entry);
    }
    if (ec) {
        throw FileError("cannot list " + data_dir + ": " + ec.message(), ec.value());
    }
}

DeviceEntry &create_device(ServiceCore &core, const std::string &device, const Order &order) {
    const std::string dir = core.device_dir(device);
    make_directory(dir);
    DeviceEntry entry;
    entry.state.order = order;
    save_device_state(dir, entry.state);
    return core.devices[device] = std::move(entry);
}

} // namespace vexo_cloud

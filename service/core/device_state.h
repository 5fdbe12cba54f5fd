/// What the service keeps per device besides its recordings: the order, the current key with
/// its history, and today's allowance count; kept in <data>/<device>/device.json.
#ifndef VEXO_CLOUD_DEVICE_STATE_H
#define VEXO_CLOUD_DEVICE_STATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "order_rules.h"

namespace vexo_cloud {

constexpr char kDeviceFile[] = "device.json";

/// A key as it was issued to a device.
struct KeyRecord {
    std::string key;
    std::string md5;
    uint32_t issued = 0; ///< service time of issue
};

struct DeviceState {
    Order order;
    std::string key; ///< empty until the first start notification
    std::string key_md5;
    std::vector<KeyRecord> key_history; ///< oldest first; the last one is the current key
    Allowance allowance;
};

/// Gives the device a new key when it has none; true when one was issued.
bool issue_key_if_missing(DeviceState *state, uint32_t now);

/// The key of the device's history whose md5 text is md5; nullptr when it never had one.
const KeyRecord *key_with_md5(const DeviceState &state, const std::string &md5);

/// Writes device_dir/device.json atomically; throws FileError.
void save_device_state(const std::string &device_dir, const DeviceState &state);

/// Reads device_dir/device.json; throws FileError when unreadable and std::runtime_error
/// naming the file when its content is not a device state.
DeviceState load_device_state(const std::string &device_dir);

} // namespace vexo_cloud

#endif

/// What the service keeps per device besides its recordings: the order, the current key with
/// its history, and today's allowance count (DeviceState, kept in the metadata store). Also
/// reads the device.json of the JSON layout older services wrote.
#ifndef VEXO_CLOUD_DEVICE_STATE_H
#define VEXO_CLOUD_DEVICE_STATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "order_rules.h"
#include "records.h"

namespace vexo_cloud {

constexpr char kDeviceFile[] = "device.json";

/// Gives the device a new key when it has none; true when one was issued.
bool issue_key_if_missing(DeviceState *state, uint32_t now);

/// The key of the device's history whose md5 text is md5; nullptr when it never had one.
const KeyRecord *key_with_md5(const DeviceState &state, const std::string &md5);

/// True when a stored device state can be used as it is: its order in range and its keys
/// those of their md5 texts; *reason says what is wrong otherwise.
bool valid_device_state(const DeviceState &state, std::string *reason);

/// Reads device_dir/device.json; throws FileError when unreadable and std::runtime_error
/// naming the file when its content is not a device state.
DeviceState load_device_state(const std::string &device_dir);

} // namespace vexo_cloud

#endif

/// What the parts of the service share: the state behind one mutex, and the request
/// handlers the router dispatches to once it has checked the device and its credentials.
#ifndef VEXO_CLOUD_SERVICE_CORE_H
#define VEXO_CLOUD_SERVICE_CORE_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "device_state.h"
#include "recording_index.h"

namespace vexo_cloud {

constexpr char kAlarmsDirectory[] = "alarms";
constexpr char kEventsFile[] = "events.jsonl";

/// A known device: its state as on disk, its recordings index, the gaps it reported and its
/// next alarm number.
struct DeviceEntry {
    DeviceState state;
    std::map<uint32_t, RecordingState> recordings;
    std::vector<Gap> gaps; ///< by time
    uint64_t next_alarm = 1;
};

struct ServiceCore {
    Options options;
    /// Guards devices and every file write below a device directory except media uploads
    /// and alarm files, which are written to names no one else writes.
    mutable std::mutex mutex;
    std::map<std::string, DeviceEntry> devices;

    uint32_t now() const { return options.clock(); }
    /// One line of the service's log, to options.log or else stderr. Call it without the
    /// mutex: options.log is the embedder's code.
    void log(const std::string &line) const;
    std::string device_dir(const std::string &device) const {
        return options.data_dir + "/" + device;
    }
};

/// The service's state behind the public class.
struct Service::Impl {
    ServiceCore core;
};

// ---- the device registry (the caller holds core.mutex) ----

/// Reads every device directory of the data directory into core.devices; throws
/// std::runtime_error naming a file that cannot be read.
void load_devices(ServiceCore &core);

/// Makes a new device with order, on disk first; throws FileError.
DeviceEntry &create_device(ServiceCore &core, const std::string &device, const Order &order);

// ---- request handlers: the device is valid, known and authenticated ----
// Each takes the mutex itself; FileError and other exceptions reach the router.

/// GET storage/config and storage/restriction.
Response answer_storage_config(ServiceCore &core, const std::string &device);
Response answer_storage_restriction(ServiceCore &core, const std::string &device);

/// POST /v1/api/<api_name>?<query> for device. replayed: the request was kept by the device
/// through an outage and is sent late ("x-vexo-replay: 1").
Response answer_api_call(ServiceCore &core, const std::string &device, const std::string &api,
                         const std::string &query, const std::string &body, bool replayed);

/// PUT media/<file_name>, the body already read.
Response store_media_upload(ServiceCore &core, const std::string &device,
                            const std::string &file_name, const std::string &body);

/// PUT media/<file_name>, the body read as it is stored: nothing shows under the file's name
/// unless exactly content_length bytes arrived and were stored.
Response stream_media_upload(ServiceCore &core, const std::string &device,
                             const std::string &file_name, uint64_t content_length,
                             const BodyReader &read_body);

/// POST alarms.
Response store_alarm_request(ServiceCore &core, const std::string &device, const std::string &body);

/// POST gaps: stored once, however often the same gap is posted.
Response store_gap_request(ServiceCore &core, const std::string &device, const std::string &body);

} // namespace vexo_cloud

#endif

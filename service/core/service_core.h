/// What the parts of the service share: the stores behind one mutex, and the request
/// handlers the router dispatches to once it has checked the device and its credentials.
#ifndef VEXO_CLOUD_SERVICE_CORE_H
#define VEXO_CLOUD_SERVICE_CORE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "cloud_service.h"
#include "data_lock.h"
#include "device_state.h"
#include "media_store.h"
#include "metadata_store.h"
#include "repeating_task.h"

namespace vexo_cloud {

struct ServiceCore {
    Options options;
    /// Held for the service's life: no other program writes the data directory meanwhile.
    /// Declared first, so it is let go last.
    std::unique_ptr<DataLock> lock;
    /// Guards metadata. Media bytes are written outside it, to temporary
    /// objects of their own; only their commit takes it.
    mutable std::mutex mutex;
    std::unique_ptr<MetadataStore> metadata;
    std::unique_ptr<MediaStore> media;

    uint32_t now() const { return options.clock(); }
    /// One line of the service's log, to options.log or else stderr. Call it without the
    /// mutex: options.log is the embedder's code.
    void log(const std::string &line) const;
};

/// A number no other Service object of this process had (PlaybackSource::service_id).
uint64_t next_service_id();

/// The service's state behind the public class.
struct Service::Impl {
    const uint64_t id = next_service_id();
    ServiceCore core;
    /// Runs retention now and then; declared last, so it stops before the core goes.
    std::unique_ptr<RepeatingTask> retention;
};

// ---- start-up (the constructor runs them in this order) ----

/// Imports a data directory of the JSON layout into the metadata store, once: what cannot
/// be read is quarantined and logged, the rest imported.
void import_json_layout(ServiceCore &core);

/// Quarantines stored rows that do not read back, and repairs a device whose stored order
/// is out of range (it gets the default order); each logged.
void quarantine_damaged_state(ServiceCore &core);

/// Removes temporary media objects, adopts media files that were committed but whose row
/// was not, and drops the rows of media files that are gone; each logged.
void reconcile_media(ServiceCore &core);

// ---- the device registry (the caller holds core.mutex) ----

/// The device's state; nullopt for an unknown device.
std::optional<DeviceState> find_device(const ServiceCore &core, const std::string &device);

/// The state of a device the router found known; throws std::out_of_range otherwise.
DeviceState known_device(const ServiceCore &core, const std::string &device);

/// Makes a new device with order.
void create_device(ServiceCore &core, const std::string &device, const Order &order);

/// False when options.max_devices devices are known already.
bool room_for_device(const ServiceCore &core);

// ---- limits (the caller holds core.mutex) ----

/// The limits in force for a device: its own where set, else the default limits.
DeviceLimits limits_in_force(const ServiceCore &core, const std::string &device);

/// A device's alarms of the service clock's local day.
uint64_t alarms_today(const ServiceCore &core, const std::string &device);

// ---- retention (each takes the mutex itself) ----

/// Service::expire_recordings.
uint64_t expire_all_recordings(ServiceCore &core);

/// One run of the retention thread: expire_all_recordings, a failure logged, never thrown.
/// Skipped while another service sharing the metadata runs it (MetadataStore::try_lead).
void run_retention(ServiceCore &core);

// ---- request handlers: the device is valid, known and authenticated ----
// Each takes the mutex itself; FileError, StoreError and other exceptions reach the router.

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

/// PUT media/<file_name>, the body read as it is stored: only for a recording whose start
/// was notified; nothing shows under the file's name unless exactly content_length bytes
/// arrived and were stored; a name stored already takes only the same bytes again.
Response stream_media_upload(ServiceCore &core, const std::string &device,
                             const std::string &file_name, uint64_t content_length,
                             const BodyReader &read_body);

/// POST alarms.
Response store_alarm_request(ServiceCore &core, const std::string &device, const std::string &body);

/// POST gaps: stored once, however often the same gap is posted.
Response store_gap_request(ServiceCore &core, const std::string &device, const std::string &body);

} // namespace vexo_cloud

#endif

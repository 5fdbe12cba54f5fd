/// What the cloud service keeps about devices, as plain values: the metadata store reads and
/// writes these, whatever database holds them.
#ifndef VEXO_CLOUD_RECORDS_H
#define VEXO_CLOUD_RECORDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloud_service.h"

namespace vexo_cloud {

/// Events of today counted against an order's daily allowance.
struct Allowance {
    int32_t day = 0;            ///< local date as yyyymmdd the count belongs to; 0 never
    int32_t events_started = 0; ///< event-mode recordings started on that day
};

/// A key as it was issued to a device.
struct KeyRecord {
    std::string key;
    std::string md5;
    uint32_t issued = 0; ///< service time of issue
};

/// A device's order, current key with its history, and today's allowance count.
struct DeviceState {
    Order order;
    std::string key; ///< empty until the first start notification
    std::string key_md5;
    std::vector<KeyRecord> key_history; ///< oldest first; the last one is the current key
    Allowance allowance;
};

/// A recording as the start and stop notifications described it.
struct RecordingRow {
    std::string device;
    uint32_t start_time = 0;
    uint32_t end_time = 0; ///< 0 while open
    /// False for a recording known only by its media files (imported from a directory whose
    /// recording.json was missing or damaged): the members below are empty then.
    bool announced = true;
    std::string payload_info; ///< the exact text the device sent
    int32_t mtu = 0;          ///< slice duration, seconds
    std::string announced_md5;
    std::string key;
    std::string key_md5;
};

/// A media file of a recording, committed to the media store.
struct MediaRow {
    std::string device;
    uint32_t start_time = 0;
    std::string name; ///< "<start>_<index>.media"
    uint64_t bytes = 0;
    std::string sha256;  ///< hex; empty when not known yet (a file imported or adopted)
    std::string object;  ///< its name in the media store
    uint32_t stored = 0; ///< service time it was committed
};

struct AlarmRow {
    int64_t id = 0;
    std::string device;
    uint32_t time = 0;
    bool with_picture = false;
    std::string extra;
    std::string picture_object; ///< its name in the media store; empty without a picture
    uint32_t received = 0;
};

struct DeviceUsage {
    uint64_t bytes = 0;
    uint64_t files = 0;
};

/// A recording with what its media files take.
struct RecordingUsage {
    uint32_t start_time = 0;
    uint32_t end_time = 0;
    uint64_t bytes = 0;
    uint64_t files = 0;
};

/// Something the service could not use and set aside instead: a damaged file of an imported
/// directory, a row that does not read back, a media file that went missing.
struct QuarantineRow {
    int64_t id = 0;
    std::string kind;        ///< "recording", "device", "alarm", "gaps", "media", ...
    std::string device;      ///< empty when not known
    uint32_t start_time = 0; ///< the recording concerned, 0 for none
    std::string item;        ///< what it was: a file name relative to the data directory, a row
    std::string reason;
    std::string content; ///< the row's values or the file's path under quarantine/
    uint32_t at = 0;     ///< service time
};

} // namespace vexo_cloud

#endif

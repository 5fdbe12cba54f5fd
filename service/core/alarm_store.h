/// Alarms a device raised (a remote trigger's picture and extra data): one JSON record per
/// alarm under <data>/<device>/alarms/, with the picture beside it as a .jpg.
#ifndef VEXO_CLOUD_ALARM_STORE_H
#define VEXO_CLOUD_ALARM_STORE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloud_service.h"

namespace vexo_cloud {

/// An alarm as a device posted it, the picture decoded.
struct AlarmPost {
    uint32_t time = 0;
    bool with_picture = false;
    std::string extra;
    std::string picture; ///< JPEG bytes; empty without a picture
};

/// The alarm a request body holds; nullopt with *error when the body is not one.
std::optional<AlarmPost> parse_alarm_post(const std::string &body, std::string *error);

/// Stores an alarm as number sequence (unique per device) in alarms_dir, which exists: the
/// picture first, then the record that names it. Throws FileError.
void store_alarm(const std::string &alarms_dir, uint64_t sequence, const AlarmPost &alarm);

/// The number after the highest alarm number in alarms_dir (1 when there is none).
uint64_t next_alarm_sequence(const std::string &alarms_dir);

/// The alarms in alarms_dir, by time then number; throws std::runtime_error naming a record
/// that cannot be read.
std::vector<Alarm> read_alarms(const std::string &alarms_dir, const std::string &device);

} // namespace vexo_cloud

#endif

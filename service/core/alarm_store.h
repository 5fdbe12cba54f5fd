/// Alarms a device raised (a remote trigger's picture and extra data): a posted alarm read,
/// and the alarm records of the JSON layout older services wrote (one JSON record per alarm
/// under <data>/<device>/alarms/, the picture beside it as a .jpg).
#ifndef VEXO_CLOUD_ALARM_STORE_H
#define VEXO_CLOUD_ALARM_STORE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "records.h"

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

/// An alarm record file of the JSON layout, "alarm-<sequence>.json".
struct AlarmFile {
    uint64_t sequence = 0;
    std::string name;
};

/// The alarm record files in alarms_dir, by sequence; empty when there is no such folder.
std::vector<AlarmFile> alarm_files(const std::string &alarms_dir);

/// The alarm a record's text describes, its picture_object the bare picture file name (empty
/// without one); nullopt with *reason when it is not an alarm record of this layout.
std::optional<AlarmRow> parse_alarm_record(const std::string &text, std::string *reason);

} // namespace vexo_cloud

#endif

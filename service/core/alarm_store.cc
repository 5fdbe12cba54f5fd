/// Alarm records: parsing a posted alarm, and reading the JSON layout's records.
#include "alarm_store.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "base64.h"
#include "json_fields.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

constexpr char kAlarmPrefix[] = "alarm-";
constexpr char kRecordSuffix[] = ".json";
constexpr char kPictureSuffix[] = ".jpg";
constexpr size_t kMaxSequenceDigits = 19;

// ---- helpers -------------------------------------------------------------------------------

/// The number of an alarm file name "alarm-<n><suffix>"; nullopt for any other name.
std::optional<uint64_t> alarm_sequence(const std::string &name, const std::string &suffix) {
    const size_t prefix_length = sizeof kAlarmPrefix - 1;
    if (name.size() <= prefix_length + suffix.size() ||
        name.compare(0, prefix_length, kAlarmPrefix) != 0 ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    const std::string digits =
        name.substr(prefix_length, name.size() - prefix_length - suffix.size());
    if (digits.size() > kMaxSequenceDigits || digits[0] == '0' ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return std::stoull(digits);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<AlarmPost> parse_alarm_post(const std::string &body, std::string *error) {
    const std::optional<Json> json = parse_body(body, error);
    AlarmPost alarm;
    if (!json) {
        return std::nullopt;
    }
    if (!get_u32(*json, "time", &alarm.time)) {
        *error = "time must be a time in seconds";
        return std::nullopt;
    }
    if (!get_flag(*json, "withPicture", &alarm.with_picture)) {
        *error = "withPicture must be 0 or 1";
        return std::nullopt;
    }
    if (json->contains("extra") && !get_text(*json, "extra", &alarm.extra)) {
        *error = "extra must be a text";
        return std::nullopt;
    }
    std::string picture_text;
    if (json->contains("picture") && !get_text(*json, "picture", &picture_text)) {
        *error = "picture must be a base64 text";
        return std::nullopt;
    }
    std::optional<std::string> picture = base64_decode(picture_text);
    if (!picture) {
        *error = "picture is not valid base64";
        return std::nullopt;
    }
    alarm.picture = std::move(*picture);
    return alarm;
}

std::vector<AlarmFile> alarm_files(const std::string &alarms_dir) {
    std::vector<AlarmFile> files;
    std::error_code ec;
    for (fs::directory_iterator it(alarms_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (const std::optional<uint64_t> sequence = alarm_sequence(name, kRecordSuffix)) {
            files.push_back(AlarmFile{*sequence, name});
        }
    }
    std::sort(files.begin(), files.end(),
              [](const AlarmFile &a, const AlarmFile &b) { return a.sequence < b.sequence; });
    return files;
}

std::optional<AlarmRow> parse_alarm_record(const std::string &text, std::string *reason) {
    const std::optional<Json> json = parse_object(text);
    AlarmRow alarm;
    if (!json || !get_u32(*json, "time", &alarm.time) ||
        !get_flag(*json, "withPicture", &alarm.with_picture) ||
        !get_text(*json, "extra", &alarm.extra) ||
        !get_text(*json, "picture", &alarm.picture_object)) {
        *reason = "not an alarm record";
        return std::nullopt;
    }
    // Only a picture name of this layout is followed, never a path out of the folder.
    if (!alarm.picture_object.empty() && !alarm_sequence(alarm.picture_object, kPictureSuffix)) {
        *reason = "bad picture name";
        return std::nullopt;
    }
    return alarm;
}

} // namespace vexo_cloud

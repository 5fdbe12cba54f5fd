/// Alarm records: parsing a posted alarm, writing it, and reading the alarms back.
#include "alarm_store.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "base64.h"
#include "durable_file.h"
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

std::string alarm_name(uint64_t sequence, const char *suffix) {
    return kAlarmPrefix + std::to_string(sequence) + suffix;
}

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

Alarm load_alarm(const std::string &alarms_dir, const std::string &name,
                 const std::string &device) {
    const std::string path = alarms_dir + "/" + name;
    const std::optional<Json> json = parse_object(read_file(path));
    Alarm alarm;
    alarm.device = device;
    std::string picture;
    if (!json || !get_u32(*json, "time", &alarm.time) ||
        !get_flag(*json, "withPicture", &alarm.with_picture) ||
        !get_text(*json, "extra", &alarm.extra) || !get_text(*json, "picture", &picture)) {
        throw std::runtime_error(path + ": not an alarm record");
    }
    // Only a picture name of this store is followed, never a path out of the directory.
    if (!picture.empty()) {
        if (!alarm_sequence(picture, kPictureSuffix)) {
            throw std::runtime_error(path + ": bad picture name");
        }
        alarm.picture_path = alarms_dir + "/" + picture;
    }
    return alarm;
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

void store_alarm(const std::string &alarms_dir, uint64_t sequence, const AlarmPost &alarm) {
    std::string picture_name;
    if (!alarm.picture.empty()) {
        picture_name = alarm_name(sequence, kPictureSuffix);
        write_file_atomic(alarms_dir, picture_name, alarm.picture);
    }
    const Json record{{"time", alarm.time},
                      {"withPicture", alarm.with_picture ? 1 : 0},
                      {"extra", alarm.extra},
                      {"picture", picture_name}};
    write_file_atomic(alarms_dir, alarm_name(sequence, kRecordSuffix), to_text(record) + "\n");
}

uint64_t next_alarm_sequence(const std::string &alarms_dir) {
    uint64_t highest = 0;
    std::error_code ec;
    for (fs::directory_iterator it(alarms_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        for (const char *suffix : {kRecordSuffix, kPictureSuffix}) {
            const std::optional<uint64_t> sequence = alarm_sequence(name, suffix);
            if (sequence) {
                highest = std::max(highest, *sequence);
            }
        }
    }
    return highest + 1;
}

std::vector<Alarm> read_alarms(const std::string &alarms_dir, const std::string &device) {
    std::vector<std::pair<uint64_t, Alarm>> found;
    std::error_code ec;
    for (fs::directory_iterator it(alarms_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        const std::optional<uint64_t> sequence = alarm_sequence(name, kRecordSuffix);
        if (sequence) {
            found.emplace_back(*sequence, load_alarm(alarms_dir, name, device));
        }
    }
    std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) {
        return a.second.time != b.second.time ? a.second.time < b.second.time : a.first < b.first;
    });
    std::vector<Alarm> alarms;
    for (auto &item : found) {
        alarms.push_back(std::move(item.second));
    }
    return alarms;
}

} // namespace vexo_cloud

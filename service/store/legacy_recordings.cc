/// Recording directories: their names, their recording.json, and reading them back with the
/// media files they hold.
#include "recording_index.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <vector>

#include "cloud_service.h"
#include "durable_file.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

constexpr char kMediaSuffix[] = ".media";
constexpr size_t kMaxStartDigits = 10;
constexpr size_t kMaxIndexDigits = 10;

// ---- helpers -------------------------------------------------------------------------------

bool all_digits(const std::string &text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The two numbers of a media file name "<start>_<index>.media".
struct MediaName {
    uint32_t start;
    uint64_t elapsed;
};

std::optional<MediaName> split_media_name(const std::string &name) {
    const size_t suffix_length = sizeof kMediaSuffix - 1;
    if (name.size() <= suffix_length ||
        name.compare(name.size() - suffix_length, suffix_length, kMediaSuffix) != 0) {
        return std::nullopt;
    }
    const std::string stem = name.substr(0, name.size() - suffix_length);
    const size_t underscore = stem.find('_');
    if (underscore == std::string::npos) {
        return std::nullopt;
    }
    const std::string index = stem.substr(underscore + 1);
    if (!all_digits(index) || index.size() > kMaxIndexDigits) {
        return std::nullopt;
    }
    const std::optional<uint32_t> start = parse_start_name(stem.substr(0, underscore));
    if (!start) {
        return std::nullopt;
    }
    return MediaName{*start, std::stoull(index)};
}

[[noreturn]] void corrupt(const std::string &path, const std::string &what) {
    throw std::runtime_error(path + ": " + what);
}

Json recording_to_json(const RecordingState &recording) {
    return Json{{"startTime", recording.start_time},
                {"endTime", recording.end_time},
                {"payloadInfo", recording.payload_info},
                {"payload", recording.payload},
                {"mtu", recording.mtu},
                {"enKeyMd5", recording.announced_md5},
                {"key", recording.key},
                {"keyMd5", recording.key_md5}};
}

/// The recording a recording.json text describes; nullopt with *reason when it is not one.
std::optional<RecordingState> parse_recording(const std::string &text, uint32_t start_time,
                                              std::string *reason) {
    const std::optional<Json> json = parse_object(text);
    if (!json) {
        *reason = "not a JSON object";
        return std::nullopt;
    }
    RecordingState recording;
    if (!get_u32(*json, "startTime", &recording.start_time) ||
        !get_u32(*json, "endTime", &recording.end_time) ||
        !get_text(*json, "payloadInfo", &recording.payload_info) ||
        !get_i32(*json, "mtu", &recording.mtu) ||
        !get_text(*json, "enKeyMd5", &recording.announced_md5) ||
        !get_text(*json, "key", &recording.key) || !get_text(*json, "keyMd5", &recording.key_md5)) {
        *reason = "a member is missing or of the wrong type";
        return std::nullopt;
    }
    if (recording.start_time != start_time) {
        *reason = "startTime differs from the directory name";
        return std::nullopt;
    }
    recording.payload = Json::parse(recording.payload_info, nullptr, false);
    if (recording.payload.is_discarded()) {
        *reason = "payloadInfo is not JSON";
        return std::nullopt;
    }
    return recording;
}

RecordingState load_recording(const std::string &path, uint32_t start_time) {
    std::string reason;
    std::optional<RecordingState> recording = parse_recording(read_file(path), start_time, &reason);
    if (!recording) {
        corrupt(path, reason);
    }
    return std::move(*recording);
}

/// A recording's recording.json. With damaged null a damaged or unreadable file throws as
/// load_recording does; otherwise it is nullopt and "<path>: <reason>" goes to *damaged.
std::optional<RecordingState> read_metadata(const std::string &path, uint32_t start_time,
                                            std::vector<std::string> *damaged) {
    if (damaged == nullptr) {
        return load_recording(path, start_time);
    }
    std::string text;
    try {
        text = read_file(path);
    } catch (const FileError &e) {
        damaged->push_back(path + ": cannot be read: " + std::strerror(e.error_number()));
        return std::nullopt;
    }
    std::string reason;
    std::optional<RecordingState> recording = parse_recording(text, start_time, &reason);
    if (!recording) {
        damaged->push_back(path + ": " + reason);
    }
    return recording;
}

/// The recording directories under a device directory, by start time.
std::map<uint32_t, std::string> recording_directories(const std::string &device_dir) {
    std::map<uint32_t, std::string> found;
    std::error_code ec;
    for (fs::directory_iterator it(device_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::optional<uint32_t> start = parse_start_name(it->path().filename().string());
        std::error_code type_ec;
        if (start && it->is_directory(type_ec)) {
            found[*start] = it->path().string();
        }
    }
    if (ec) {
        throw FileError("cannot list " + device_dir + ": " + ec.message(), ec.value());
    }
    return found;
}

/// The media files of a recording directory with their sizes, by name; temporary files and
/// anything else that is not a media file name are left out.
std::vector<MediaFileInfo> media_files(const std::string &dir) {
    std::vector<MediaFileInfo> files;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::error_code file_ec;
        if (!parse_media_name(name) || !it->is_regular_file(file_ec)) {
            continue;
        }
        const uintmax_t bytes = it->file_size(file_ec);
        if (!file_ec) {
            files.push_back(MediaFileInfo{name, static_cast<uint64_t>(bytes)});
        }
    }
    if (ec) {
        throw FileError("cannot list " + dir + ": " + ec.message(), ec.value());
    }
    std::sort(files.begin(), files.end(),
              [](const MediaFileInfo &a, const MediaFileInfo &b) { return a.name < b.name; });
    return files;
}

/// A device's recordings: every recording directory, with its recording.json when there is
/// one (a directory that only received uploads has none) and is sound (see read_metadata).
void read_device_recordings(const std::string &device_dir, const std::string &device,
                            std::vector<std::string> *damaged, std::vector<Recording> *out) {
    for (const auto &[start, dir] : recording_directories(device_dir)) {
        Recording recording;
        recording.device = device;
        recording.start_time = start;
        recording.directory = dir;
        const std::string path = dir + "/" + kRecordingFile;
        std::error_code ec;
        const std::optional<RecordingState> state =
            fs::exists(path, ec) ? read_metadata(path, start, damaged) : std::nullopt;
        if (state) {
            recording.end_time = state->end_time;
            recording.payload_info = state->payload_info;
            recording.mtu = state->mtu;
            recording.announced_md5 = state->announced_md5;
            recording.key = state->key;
            recording.key_md5 = state->key_md5;
        }
        recording.files = media_files(dir);
        out->push_back(std::move(recording));
    }
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<uint32_t> parse_start_name(const std::string &text) {
    if (!all_digits(text) || text.size() > kMaxStartDigits || text[0] == '0') {
        return std::nullopt;
    }
    const uint64_t value = std::stoull(text);
    if (value > std::numeric_limits<uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

std::optional<uint32_t> parse_media_name(const std::string &name) {
    const std::optional<MediaName> parts = split_media_name(name);
    return parts ? std::optional<uint32_t>(parts->start) : std::nullopt;
}

std::optional<uint64_t> parse_media_elapsed(const std::string &name) {
    const std::optional<MediaName> parts = split_media_name(name);
    return parts ? std::optional<uint64_t>(parts->elapsed) : std::nullopt;
}

void save_recording(const std::string &recording_dir, const RecordingState &recording) {
    write_file_atomic(recording_dir, kRecordingFile,
                      to_text(recording_to_json(recording), 2) + "\n");
}

std::map<uint32_t, RecordingState> load_recording_index(const std::string &device_dir) {
    std::map<uint32_t, RecordingState> index;
    for (const auto &[start, dir] : recording_directories(device_dir)) {
        const std::string path = dir + "/" + kRecordingFile;
        std::error_code ec;
        if (fs::exists(path, ec)) {
            index[start] = load_recording(path, start);
        }
    }
    return index;
}

std::vector<std::string> device_directories(const std::string &data_dir) {
    std::vector<std::string> devices;
    std::error_code ec;
    for (fs::directory_iterator it(data_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::error_code type_ec;
        if (valid_device_id(name) && it->is_directory(type_ec)) {
            devices.push_back(name);
        }
    }
    if (ec) {
        throw FileError("cannot list " + data_dir + ": " + ec.message(), ec.value());
    }
    std::sort(devices.begin(), devices.end());
    return devices;
}

std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device) {
    return read_recordings(data_dir, device, nullptr);
}

std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device,
                                       std::vector<std::string> *damaged) {
    if (!device.empty() && !valid_device_id(device)) {
        throw std::invalid_argument("invalid device id: " + device);
    }
    std::error_code ec;
    if (!fs::is_directory(data_dir, ec)) {
        throw FileError("not a directory: " + data_dir, ENOTDIR);
    }
    std::vector<Recording> recordings;
    if (!device.empty()) {
        const std::string device_dir = data_dir + "/" + device;
        if (fs::is_directory(device_dir, ec)) {
            read_device_recordings(device_dir, device, damaged, &recordings);
        }
        return recordings;
    }
    for (const std::string &name : device_directories(data_dir)) {
        read_device_recordings(data_dir + "/" + name, name, damaged, &recordings);
    }
    return recordings;
}

} // namespace vexo_cloud

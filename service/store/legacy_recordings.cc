/// Recording directories of the JSON layout: their recording.json and their media files.
#include "legacy_recordings.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "durable_file.h"
#include "json_fields.h"
#include "media_names.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

/// A recording's recording.json. With damaged null a damaged or unreadable file throws;
/// otherwise it is nullopt and "<path>: <reason>" goes to *damaged.
std::optional<RecordingRow> read_metadata(const std::string &path, uint32_t start_time,
                                          std::vector<std::string> *damaged) {
    std::string text;
    try {
        text = read_file(path);
    } catch (const FileError &e) {
        if (damaged == nullptr) {
            throw;
        }
        damaged->push_back(path + ": cannot be read: " + std::strerror(e.error_number()));
        return std::nullopt;
    }
    std::string reason;
    std::optional<RecordingRow> recording = parse_recording_file(text, start_time, &reason);
    if (!recording) {
        if (damaged == nullptr) {
            throw std::runtime_error(path + ": " + reason);
        }
        damaged->push_back(path + ": " + reason);
    }
    return recording;
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
        const std::optional<RecordingRow> row =
            fs::exists(path, ec) ? read_metadata(path, start, damaged) : std::nullopt;
        if (row) {
            recording.end_time = row->end_time;
            recording.payload_info = row->payload_info;
            recording.mtu = row->mtu;
            recording.announced_md5 = row->announced_md5;
            recording.key = row->key;
            recording.key_md5 = row->key_md5;
        }
        recording.files = media_files_in(dir);
        out->push_back(std::move(recording));
    }
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<RecordingRow> parse_recording_file(const std::string &text, uint32_t start_time,
                                                 std::string *reason) {
    const std::optional<Json> json = parse_object(text);
    if (!json) {
        *reason = "not a JSON object";
        return std::nullopt;
    }
    RecordingRow recording;
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
    if (!parse_object(recording.payload_info)) {
        *reason = "payloadInfo is not JSON";
        return std::nullopt;
    }
    return recording;
}

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

std::vector<MediaFileInfo> media_files_in(const std::string &dir) {
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

std::vector<Recording> read_legacy_recordings(const std::string &data_dir,
                                              const std::string &device,
                                              std::vector<std::string> *damaged) {
    std::vector<Recording> recordings;
    if (!device.empty()) {
        const std::string device_dir = data_dir + "/" + device;
        std::error_code ec;
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

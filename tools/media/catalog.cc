// Finding recordings and their files in a cloud data directory.
#include "catalog.h"

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "open_metadata_store.h"
#include "store_views.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

/// Elapsed seconds of a "<start>_<elapsed>.media" name; nullopt for other names.
std::optional<uint64_t> elapsed_of(const std::string &name) {
    const std::string suffix = ".media";
    const size_t underscore = name.rfind('_');
    if (underscore == std::string::npos || name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    const std::string digits =
        name.substr(underscore + 1, name.size() - suffix.size() - underscore - 1);
    if (digits.empty() || digits.size() > 9 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return std::stoull(digits);
}

std::optional<uint32_t> parse_epoch(const std::string &text) {
    if (text.empty() || text.size() > 10 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    const uint64_t value = std::stoull(text);
    if (value > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

/// The metadata store of a --db URL; a URL of the wrong kind is the user's error.
std::unique_ptr<vexo_cloud::MetadataStore> open_store(const std::string &db_url,
                                                      const std::string &data_dir) {
    std::string error;
    if (!vexo_cloud::valid_metadata_url(db_url, &error)) {
        throw ToolError("--db: " + error);
    }
    return vexo_cloud::open_metadata_store(db_url, data_dir);
}

} // namespace

std::vector<Recording> load_recordings(const std::string &data_dir, const std::string &device,
                                       std::vector<std::string> *damaged,
                                       const std::string &db_url) {
    if (!device.empty() && !vexo_cloud::valid_device_id(device)) {
        throw ToolError("not a device id: '" + device + "'");
    }
    std::error_code error;
    if (db_url.empty() && !std::filesystem::is_directory(data_dir, error)) {
        throw ToolError("no data directory " + data_dir);
    }
    std::vector<Recording> recordings;
    try {
        if (db_url.empty()) {
            recordings = vexo_cloud::read_recordings(data_dir, device, damaged);
        } else {
            const auto store = open_store(db_url, data_dir);
            recordings = vexo_cloud::recordings_of(*store, data_dir, device, damaged);
        }
    } catch (const std::exception &e) {
        throw ToolError("cannot read the recordings of " + data_dir + ": " + e.what());
    }
    std::sort(recordings.begin(), recordings.end(), [](const Recording &a, const Recording &b) {
        return std::tie(a.device, a.start_time) < std::tie(b.device, b.start_time);
    });
    return recordings;
}

std::vector<Gap> load_gaps(const std::string &data_dir, const std::string &device,
                           std::vector<std::string> *damaged, const std::string &db_url) {
    try {
        if (!db_url.empty()) {
            return open_store(db_url, data_dir)->gaps(device);
        }
        return vexo_cloud::read_gaps(data_dir, device, damaged);
    } catch (const std::exception &e) {
        throw ToolError("cannot read the gaps of " + data_dir + ": " + e.what());
    }
}

std::optional<std::string> metadata_damage(const Recording &recording,
                                           const std::vector<std::string> &damaged) {
    const std::string prefix = metadata_path(recording) + ": ";
    for (const std::string &line : damaged) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return line.substr(prefix.size());
        }
    }
    return std::nullopt;
}

std::string metadata_path(const Recording &recording) {
    return recording.directory + "/recording.json";
}

std::vector<Recording> select_starts(const std::vector<Recording> &all,
                                     const std::vector<std::string> &starts) {
    std::vector<Recording> chosen;
    for (const std::string &text : starts) {
        const std::optional<uint32_t> start = parse_epoch(text);
        if (!start) {
            throw ToolError("not a start time (seconds since the epoch): '" + text + "'");
        }
        bool found = false;
        for (const Recording &recording : all) {
            if (recording.start_time == *start) {
                chosen.push_back(recording);
                found = true;
            }
        }
        if (!found) {
            throw ToolError("no recording starts at " + text);
        }
    }
    return chosen;
}

std::vector<std::string> media_paths(const Recording &recording) {
    std::vector<std::pair<uint64_t, std::string>> named;
    for (const vexo_cloud::MediaFileInfo &file : recording.files) {
        if (const std::optional<uint64_t> elapsed = elapsed_of(file.name)) {
            named.emplace_back(*elapsed, file.name);
        }
    }
    std::sort(named.begin(), named.end());
    std::vector<std::string> paths;
    for (const auto &[elapsed, name] : named) {
        paths.push_back((std::filesystem::path(recording.directory) / name).string());
    }
    return paths;
}

std::optional<vexo_media::Key> recording_key(const Recording &recording,
                                             const std::optional<std::string> &key_text) {
    vexo_media::Key key{};
    if (key_text) {
        if (!vexo_media::key_from_text(*key_text, &key)) {
            throw ToolError("--key must be 16 characters, got " + std::to_string(key_text->size()));
        }
        return key;
    }
    if (vexo_media::key_from_text(recording.key, &key)) {
        return key;
    }
    return std::nullopt;
}

std::string base_name(const std::string &path) {
    return std::filesystem::path(path).filename().string();
}

} // namespace vexo_tool

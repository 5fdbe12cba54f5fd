/// Device ids, recording directory names and media file names.
#include "media_names.h"

#include <algorithm>
#include <filesystem>
#include <limits>

#include "durable_file.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxDeviceId = 64;
constexpr char kMediaSuffix[] = ".media";
constexpr size_t kMaxStartDigits = 10;
constexpr size_t kMaxIndexDigits = 10;
/// Names beside the device directories that belong to the service.
const char *const kReservedNames[] = {kQuarantineDirectory, kImportedDirectory, kDatabaseFile,
                                      kLockFile};

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

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool valid_device_id(const std::string &device) {
    if (device.empty() || device.size() > kMaxDeviceId || device == "." || device == "..") {
        return false;
    }
    for (const char *reserved : kReservedNames) {
        if (device == reserved) {
            return false;
        }
    }
    for (char c : device) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) {
            return false;
        }
    }
    return true;
}

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

} // namespace vexo_cloud

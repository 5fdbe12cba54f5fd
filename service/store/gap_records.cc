/// Gap reports: parsing a posted gap, and gaps files of the JSON layout read back.
#include "gap_records.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "durable_file.h"
#include "json_fields.h"
#include "media_names.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

/// A reason is a short label, not a message: the kit sends "spool full" or "too old", and a
/// later kit may name a cause of its own, which is kept rather than refused.
constexpr size_t kMaxReasonLength = 64;

// ---- helpers -------------------------------------------------------------------------------

bool valid_reason(const std::string &reason) {
    return !reason.empty() && reason.size() <= kMaxReasonLength &&
           std::all_of(reason.begin(), reason.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

bool earlier(const Gap &a, const Gap &b) {
    return std::tie(a.from, a.to, a.reason, a.bytes) < std::tie(b.from, b.to, b.reason, b.bytes);
}

/// The gap a JSON object describes; nullopt with *error naming what is wrong.
std::optional<Gap> gap_from_json(const Json &json, std::string *error) {
    Gap gap;
    if (!get_u32(json, "from", &gap.from) || gap.from == 0) {
        *error = "from must be a time in seconds";
        return std::nullopt;
    }
    if (!get_u32(json, "to", &gap.to)) {
        *error = "to must be a time in seconds";
        return std::nullopt;
    }
    if (gap.to < gap.from) {
        *error = "to is before from";
        return std::nullopt;
    }
    if (!get_text(json, "reason", &gap.reason) || !valid_reason(gap.reason)) {
        *error = "reason must be a text of 1 to 64 printable ASCII characters, such as "
                 "\"spool full\" or \"too old\"";
        return std::nullopt;
    }
    if (!get_u64(json, "bytes", &gap.bytes)) {
        *error = "bytes must be a whole number of bytes, 0 or more";
        return std::nullopt;
    }
    return gap;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<Gap> parse_gap_post(const std::string &body, std::string *error) {
    const std::optional<Json> json = parse_body(body, error);
    if (!json) {
        return std::nullopt;
    }
    return gap_from_json(*json, error);
}

bool same_gap(const Gap &a, const Gap &b) {
    return !earlier(a, b) && !earlier(b, a);
}

std::vector<Gap> load_gaps(const std::string &device_dir, const std::string &device) {
    const std::string path = device_dir + "/" + kGapsFile;
    std::string text;
    try {
        text = read_file(path);
    } catch (const FileError &e) {
        if (e.error_number() == ENOENT) {
            return {}; // no gap reported yet
        }
        throw;
    }
    const std::optional<Json> json = parse_object(text);
    if (!json || !json->contains("gaps") || !json->at("gaps").is_array()) {
        throw std::runtime_error(path + ": not a list of gaps");
    }
    std::vector<Gap> gaps;
    for (const Json &item : json->at("gaps")) {
        std::string error = "not an object";
        std::optional<Gap> gap = item.is_object() ? gap_from_json(item, &error) : std::nullopt;
        if (!gap) {
            throw std::runtime_error(path + ": gap " + std::to_string(gaps.size() + 1) + ": " +
                                     error);
        }
        gap->device = device;
        gaps.push_back(std::move(*gap));
    }
    std::sort(gaps.begin(), gaps.end(), earlier);
    return gaps;
}

std::vector<Gap> read_legacy_gaps(const std::string &data_dir, const std::string &device,
                                  std::vector<std::string> *damaged) {
    const std::vector<std::string> devices =
        device.empty() ? device_directories(data_dir) : std::vector<std::string>{device};
    std::vector<Gap> gaps;
    for (const std::string &name : devices) {
        std::vector<Gap> found;
        try {
            found = load_gaps(data_dir + "/" + name, name);
        } catch (const FileError &e) {
            if (damaged == nullptr) {
                throw;
            }
            damaged->push_back(data_dir + "/" + name + "/" + kGapsFile +
                               ": cannot be read: " + std::strerror(e.error_number()));
        } catch (const std::runtime_error &e) {
            if (damaged == nullptr) {
                throw;
            }
            damaged->push_back(e.what()); // names the file
        }
        gaps.insert(gaps.end(), found.begin(), found.end());
    }
    return gaps;
}

} // namespace vexo_cloud

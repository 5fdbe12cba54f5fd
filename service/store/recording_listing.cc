/// The open/closed rule of recordings, and the texts of listings.
#include "recording_listing.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

#include "media_names.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

/// A recording device uploads a file per slice, each after the slice ended; it is over when
/// nothing newer came for this many slices, plus a margin for a slow upload.
constexpr uint64_t kQuietSlices = 3;
constexpr uint64_t kQuietMarginS = 60;

} // namespace

// ---- exported calls ------------------------------------------------------------------------

RecordingStatus recording_status(const Recording &recording, bool later_recording, uint32_t now) {
    if (recording.end_time != 0) {
        return RecordingStatus::kClosed;
    }
    if (later_recording) {
        return RecordingStatus::kLeftOpen;
    }
    uint64_t newest = recording.start_time;
    for (const MediaFileInfo &file : recording.files) {
        if (const std::optional<uint64_t> elapsed = parse_media_elapsed(file.name)) {
            newest = std::max(newest, recording.start_time + *elapsed);
        }
    }
    const uint64_t slice = recording.mtu > 0 ? static_cast<uint64_t>(recording.mtu) : 0;
    const uint64_t quiet = kQuietSlices * slice + kQuietMarginS;
    return now > newest + quiet ? RecordingStatus::kLeftOpen : RecordingStatus::kOpen;
}

std::vector<RecordingStatus> recording_statuses(const std::vector<Recording> &recordings,
                                                uint32_t now) {
    std::map<std::string, uint32_t> last_start;
    for (const Recording &r : recordings) {
        uint32_t &last = last_start[r.device];
        last = std::max(last, r.start_time);
    }
    std::vector<RecordingStatus> statuses;
    statuses.reserve(recordings.size());
    for (const Recording &r : recordings) {
        statuses.push_back(recording_status(r, last_start[r.device] > r.start_time, now));
    }
    return statuses;
}

const char *recording_status_text(RecordingStatus status) {
    switch (status) {
    case RecordingStatus::kClosed:
        return "closed";
    case RecordingStatus::kOpen:
        return "open";
    case RecordingStatus::kLeftOpen:
        return "left open by the camera";
    }
    return "?";
}

std::string local_time_text(uint32_t epoch) {
    const std::time_t time = epoch;
    std::tm local{};
    if (localtime_r(&time, &local) == nullptr) {
        return "?";
    }
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string duration_text(uint64_t seconds) {
    char text[64];
    const auto h = static_cast<unsigned long long>(seconds / 3600);
    const auto min = static_cast<unsigned long long>(seconds / 60 % 60);
    const auto s = static_cast<unsigned long long>(seconds % 60);
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%llu s", s);
    } else if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%llu min %02llu s", min, s);
    } else {
        std::snprintf(text, sizeof text, "%llu h %02llu min %02llu s", h, min, s);
    }
    return text;
}

std::string byte_size_text(uint64_t bytes) {
    static const char *const kUnits[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    double value = static_cast<double>(bytes) / 1000;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string gap_text(const Gap &gap) {
    return "gap  " + local_time_text(gap.from) + " - " + local_time_text(gap.to) + "  " +
           gap.reason + "  " + byte_size_text(gap.bytes) + " dropped";
}

} // namespace vexo_cloud

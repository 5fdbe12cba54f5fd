/// How listings of a cloud directory show recordings and gaps: whether a recording is still
/// being recorded, and the texts of times, sizes and gaps. The service's admin interface,
/// vexo-cloud and vexo-media all show recordings this way.
#ifndef VEXO_CLOUD_RECORDING_LISTING_H
#define VEXO_CLOUD_RECORDING_LISTING_H

#include <cstdint>
#include <string>
#include <vector>

#include "cloud_service.h"

namespace vexo_cloud {

enum class RecordingStatus {
    kClosed,   ///< the device said when it ended
    kOpen,     ///< no end yet, and the device may still be recording it
    kLeftOpen, ///< no end, and clearly over: the device will not close it any more
};

/// A recording's status at now (seconds since the epoch). Without an end time a recording is
/// left open when a later recording of the same device exists (later_recording), or when
/// its newest media file began (or, without files, it started) more than 3 slice lengths
/// (its mtu) + 60 s before now; else it is open. Times of files come from their names, so
/// they are the device's own clock, as the start time is.
RecordingStatus recording_status(const Recording &recording, bool later_recording, uint32_t now);

/// The status of each recording of a list (any order, any devices), at now.
std::vector<RecordingStatus> recording_statuses(const std::vector<Recording> &recordings,
                                                uint32_t now);

/// "closed", "open" or "left open by the camera".
const char *recording_status_text(RecordingStatus status);

/// "2024-05-01 12:00:00" in local time.
std::string local_time_text(uint32_t epoch);

/// "45 s", "2 min 05 s" or "1 h 02 min 03 s".
std::string duration_text(uint64_t seconds);

/// "512 bytes", "12.3 kB", "1.2 MB", "3.4 GB" (powers of 1000).
std::string byte_size_text(uint64_t bytes);

/// "gap  <from> - <to>  <reason>  <size> dropped", times in local time.
std::string gap_text(const Gap &gap);

} // namespace vexo_cloud

#endif

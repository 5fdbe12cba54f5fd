/// Retention: the closed recordings a device's limits let go are deleted, media objects
/// first and rows last, so that a crash in between leaves rows whose files are gone (which
/// start-up drops) and never files nobody lists.
#include <limits>

#include "limit_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

constexpr char kRetentionJob[] = "retention";

struct Expired {
    uint64_t recordings = 0;
    uint64_t bytes = 0;
};

/// Deletes what retention picks of one device; the caller holds the mutex.
Expired expire_device(ServiceCore &core, const std::string &device) {
    const DeviceLimits limits = limits_in_force(core, device);
    Expired expired;
    if (!limits.retention_days && !limits.retention_bytes) {
        return expired;
    }
    const std::vector<RecordingUsage> recordings =
        core.metadata->oldest_recordings(device, std::numeric_limits<int64_t>::max());
    const std::vector<uint32_t> starts = recordings_to_expire(limits, recordings, core.now());
    if (starts.empty()) {
        return expired;
    }
    const std::vector<MediaRow> media = core.metadata->media_files(device);
    for (const uint32_t start : starts) {
        for (const MediaRow &row : media) {
            if (row.start_time == start) {
                core.media->remove(row.object);
                expired.bytes += row.bytes;
            }
        }
        core.metadata->remove_recording(device, start);
        ++expired.recordings;
    }
    return expired;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

uint64_t Service::expire_recordings() {
    return expire_all_recordings(impl_->core);
}

void run_retention(ServiceCore &core) {
    try {
        {
            std::lock_guard<std::mutex> lock(core.mutex);
            if (!core.metadata->try_lead(kRetentionJob)) {
                return; // another service sharing the metadata runs it now
            }
        }
        struct EndLead {
            ServiceCore &core;
            ~EndLead() {
                std::lock_guard<std::mutex> lock(core.mutex);
                core.metadata->end_lead(kRetentionJob);
            }
        } end_lead{core};
        expire_all_recordings(core);
    } catch (const std::exception &e) {
        // Tried again at the next run; the detail may name server paths, so only the log has it.
        core.log("retention failed: " + std::string(e.what()));
    }
}

uint64_t expire_all_recordings(ServiceCore &core) {
    std::vector<std::string> devices;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        devices = core.metadata->device_ids();
    }
    uint64_t total = 0;
    for (const std::string &device : devices) {
        Expired expired;
        {
            // One device at a time: uploads of the others go on meanwhile.
            std::lock_guard<std::mutex> lock(core.mutex);
            expired = expire_device(core, device);
        }
        if (expired.recordings > 0) {
            core.log("retention: " + device + ": deleted " + std::to_string(expired.recordings) +
                     " recordings, " + std::to_string(expired.bytes) + " bytes");
        }
        total += expired.recordings;
    }
    return total;
}

} // namespace vexo_cloud

/// What the service checks at start, before it answers anything: rows that do not read back
/// are quarantined, and the media store is brought in line with the media rows. An upload is
/// acknowledged only after its file is durable under its name and its row committed, so a
/// killed service can leave: temporary files (removed), a file under its name without its
/// row (adopted: it is whole, and the device, never told, sends the same bytes again), but
/// never an acknowledged row without its file. A row whose file is gone anyway (removed by
/// hand, a disk replaced) is dropped to the quarantine table.
#include <set>

#include "media_names.h"
#include "open_metadata_store.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr char kAlarmsFolder[] = "alarms";
constexpr char kPictureSuffix[] = ".jpg";

// ---- helpers -------------------------------------------------------------------------------

std::vector<std::string> split3(const std::string &name) {
    const size_t first = name.find('/');
    const size_t second = name.find('/', first + 1);
    if (first == std::string::npos || second == std::string::npos) {
        return {};
    }
    return {name.substr(0, first), name.substr(first + 1, second - first - 1),
            name.substr(second + 1)};
}

/// True for the picture name alarms of this service get, "<device>/alarms/<id>.jpg".
bool alarm_picture_name(const std::vector<std::string> &parts) {
    const std::string &file = parts[2];
    const size_t suffix = sizeof kPictureSuffix - 1;
    return parts[1] == kAlarmsFolder && file.size() > suffix &&
           file.compare(file.size() - suffix, suffix, kPictureSuffix) == 0 &&
           parse_start_name(file.substr(0, file.size() - suffix)).has_value();
}

/// A media file name under its recording's folder, "<device>/<start>/<start>_<index>.media".
bool media_file_name(const std::vector<std::string> &parts) {
    const std::optional<uint32_t> start = parse_media_name(parts[2]);
    return start && std::to_string(*start) == parts[1];
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

void quarantine_damaged_state(ServiceCore &core) {
    std::vector<std::string> lines;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        MetadataStore &metadata = *core.metadata;
        for (const QuarantineRow &row : metadata.quarantine_damaged_rows(core.now())) {
            lines.push_back("quarantined " + row.kind + " of " + row.device +
                            (row.start_time != 0 ? " at " + std::to_string(row.start_time) : "") +
                            ": " + row.reason);
        }
        for (const std::string &device : metadata.device_ids()) {
            DeviceState state = known_device(core, device);
            std::string reason;
            if (valid_device_state(state, &reason)) {
                continue;
            }
            // The device keeps its keys (its files need them) and allowance; an order out of
            // range gives way to the default one, and a key that is not its md5's is not used.
            metadata.transaction([&] {
                QuarantineRow row;
                row.kind = "device";
                row.device = device;
                row.item = "device row";
                row.reason = reason;
                row.content = "storeMode " + state.order.store_mode + ", key md5 " + state.key_md5;
                row.at = core.now();
                metadata.quarantine(row);
                std::string order_problem;
                if (!validate_order(state.order, &order_problem)) {
                    state.order = core.options.default_order;
                }
                if (!state.key.empty() && state.key_history.empty()) {
                    state.key.clear();
                    state.key_md5.clear();
                }
                metadata.put_device(device, state);
            });
            lines.push_back("quarantined device row of " + device + ": " + reason);
        }
    }
    for (const std::string &line : lines) {
        core.log(line);
    }
}

namespace {

/// reconcile_media's work, with what it did appended to *lines.
void check_media(ServiceCore &core, std::vector<std::string> *lines_out) {
    std::vector<std::string> &lines = *lines_out;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        MetadataStore &metadata = *core.metadata;
        MediaStore &media = *core.media;
        if (const size_t swept = media.sweep_temporary()) {
            lines.push_back("removed " + std::to_string(swept) +
                            " temporary files of uploads that never ended");
        }
        std::set<std::string> rows;
        for (const MediaRow &row : metadata.media_files("")) {
            rows.insert(row.object);
        }
        std::set<std::string> pictures;
        for (const std::string &device : metadata.device_ids()) {
            for (const AlarmRow &alarm : metadata.alarms(device)) {
                pictures.insert(alarm.picture_object);
            }
        }
        std::set<std::string> objects;
        size_t unknown = 0;
        // With metadata other services share, its rows may name files of theirs. When each
        // has a media store of its own, this one does not hold them: rows without a file
        // here are kept. When the media store is shared too, it holds every service's
        // files, so a row without its file lost it, as with one service; but the others
        // may be storing uploads meanwhile: a file without its row may be one whose row is
        // on its way (left alone), and a row whose file was not listed may have come with
        // its file since (looked up again).
        const bool others = shared_metadata_url(core.options.metadata_url);
        const bool elsewhere_media = others && !media.shared();
        const bool concurrent_media = others && media.shared();
        size_t elsewhere = 0;
        size_t in_flight = 0;
        metadata.transaction([&] {
            for (const MediaObject &object : media.list()) {
                objects.insert(object.name);
                const std::vector<std::string> parts = split3(object.name);
                if (parts.empty() || rows.count(object.name) != 0 ||
                    pictures.count(object.name) != 0) {
                    continue;
                }
                if (concurrent_media && (alarm_picture_name(parts) || media_file_name(parts))) {
                    ++in_flight;
                    continue;
                }
                if (alarm_picture_name(parts)) {
                    // Its alarm was never acknowledged: kept aside, not served.
                    lines.push_back("alarm picture without its alarm moved to " +
                                    media.set_aside(object.name));
                    continue;
                }
                if (!media_file_name(parts)) {
                    continue; // not a name this service gives: a file of someone else's
                }
                const uint32_t start = *parse_media_name(parts[2]);
                const std::optional<RecordingRow> recording = metadata.recording(parts[0], start);
                if (!recording) {
                    ++unknown;
                    continue;
                }
                MediaRow row;
                row.device = parts[0];
                row.start_time = start;
                row.name = parts[2];
                row.bytes = object.bytes;
                row.object = object.name;
                row.stored = core.now();
                metadata.put_media(row);
                lines.push_back("adopted " + object.name + ", stored but not acknowledged (" +
                                std::to_string(object.bytes) + " bytes)");
            }
            for (const MediaRow &row : metadata.media_files("")) {
                if (objects.count(row.object) != 0) {
                    continue;
                }
                if (elsewhere_media) {
                    ++elsewhere;
                    continue;
                }
                if (concurrent_media && media.size(row.object)) {
                    continue; // stored by another service since the listing
                }
                QuarantineRow gone;
                gone.kind = "media";
                gone.device = row.device;
                gone.start_time = row.start_time;
                gone.item = row.object;
                gone.reason = "its file is gone";
                gone.content = std::to_string(row.bytes) + " bytes, sha256 " + row.sha256;
                gone.at = core.now();
                metadata.quarantine(gone);
                metadata.remove_media(row.device, row.name);
                lines.push_back("media row " + row.object + " dropped: its file is gone");
            }
        });
        if (elsewhere > 0) {
            lines.push_back(std::to_string(elsewhere) +
                            " media rows name files this service does not have; kept, as the "
                            "metadata is shared with other services");
        }
        if (in_flight > 0) {
            lines.push_back(std::to_string(in_flight) +
                            " media files without their rows left alone, as other services "
                            "sharing the media may be storing them");
        }
        if (unknown > 0) {
            lines.push_back(std::to_string(unknown) +
                            " media files of recordings the service does not know left alone");
        }
    }
}

} // namespace

void reconcile_media(ServiceCore &core) {
    constexpr char kJob[] = "media check";
    std::vector<std::string> lines;
    bool lead = false;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        lead = core.metadata->try_lead(kJob);
    }
    if (lead) {
        try {
            check_media(core, &lines);
        } catch (...) {
            std::lock_guard<std::mutex> lock(core.mutex);
            core.metadata->end_lead(kJob);
            throw;
        }
        std::lock_guard<std::mutex> lock(core.mutex);
        core.metadata->end_lead(kJob);
    } else {
        // Its rows are those of every service sharing the metadata: one check at a time.
        lines.push_back("media check skipped: another service sharing the metadata runs it");
    }
    for (const std::string &line : lines) {
        core.log(line);
    }
}

} // namespace vexo_cloud

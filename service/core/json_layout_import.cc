/// Importing a data directory of the JSON layout older services wrote (device.json, each
/// recording.json, alarm records, gaps.json, events.jsonl) into the metadata store, once.
/// Everything goes in one transaction with the mark that it was done. The files stay where
/// they are, media files included; a file that cannot be read is quarantined instead (a row
/// saying why, the file moved under quarantine/ once the import is committed) and logged.
#include <cstring>
#include <filesystem>

#include "alarm_store.h"
#include "durable_file.h"
#include "gap_records.h"
#include "legacy_recordings.h"
#include "media_names.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

constexpr char kImportedSetting[] = "json-layout-imported";
constexpr char kEventsFile[] = "events.jsonl";
constexpr char kAlarmsFolder[] = "alarms";

// ---- helpers -------------------------------------------------------------------------------

/// What one import does besides its rows: files to move aside and lines to log, both once
/// the rows are committed.
struct ImportRun {
    ServiceCore &core;
    std::vector<std::string> set_aside; ///< paths relative to the data directory
    std::vector<std::string> lines;
    size_t devices = 0;
    size_t recordings = 0;
    size_t alarms = 0;

    std::string path(const std::string &relative) const {
        return core.options.data_dir + "/" + relative;
    }

    /// A file that could not be imported: a quarantine row, and the file moved aside later.
    void quarantine(const std::string &kind, const std::string &device, uint32_t start,
                    const std::string &relative, const std::string &reason) {
        QuarantineRow row;
        row.kind = kind;
        row.device = device;
        row.start_time = start;
        row.item = relative;
        row.reason = reason;
        row.content = std::string(kQuarantineDirectory) + "/" + flat_name(relative);
        row.at = core.now();
        core.metadata->quarantine(row);
        set_aside.push_back(relative);
        lines.push_back("import: " + relative + " quarantined: " + reason);
    }

    static std::string flat_name(const std::string &relative) {
        std::string flat = relative;
        for (char &c : flat) {
            c = c == '/' ? '-' : c;
        }
        return flat;
    }
};

/// The text of a file, or nullopt with *reason.
std::optional<std::string> read_text(const std::string &path, std::string *reason) {
    try {
        return read_file(path);
    } catch (const FileError &e) {
        *reason = std::string("cannot be read: ") + std::strerror(e.error_number());
        return std::nullopt;
    }
}

void import_device_state(ImportRun &run, const std::string &device) {
    const std::string relative = device + "/" + kDeviceFile;
    DeviceState state;
    try {
        state = load_device_state(run.path(device));
    } catch (const std::exception &e) {
        // Its recordings keep their keys; the device starts over with the default order
        // and gets a new key at its next start.
        std::string reason = e.what();
        const std::string prefix = run.path(relative) + ": ";
        if (reason.compare(0, prefix.size(), prefix) == 0) {
            reason = reason.substr(prefix.size());
        }
        run.quarantine("device", device, 0, relative, reason);
        state = DeviceState{};
        state.order = run.core.options.default_order;
    }
    run.core.metadata->put_device(device, state);
    ++run.devices;
}

void import_recordings(ImportRun &run, const std::string &device) {
    for (const auto &[start, dir] : recording_directories(run.path(device))) {
        const std::string relative = device + "/" + std::to_string(start) + "/" + kRecordingFile;
        RecordingRow row;
        row.announced = false; // a directory that only received uploads, until shown otherwise
        std::error_code ec;
        if (fs::exists(run.path(relative), ec)) {
            std::string reason;
            const std::optional<std::string> text = read_text(run.path(relative), &reason);
            std::optional<RecordingRow> parsed =
                text ? parse_recording_file(*text, start, &reason) : std::nullopt;
            if (parsed) {
                row = std::move(*parsed);
                row.announced = true;
            } else {
                run.quarantine("recording", device, start, relative, reason);
            }
        }
        row.device = device;
        row.start_time = start;
        run.core.metadata->put_recording(row);
        for (const MediaFileInfo &file : media_files_in(dir)) {
            MediaRow media;
            media.device = device;
            media.start_time = start;
            media.name = file.name;
            media.bytes = file.bytes;
            media.object = device + "/" + std::to_string(start) + "/" + file.name;
            media.stored = run.core.now();
            run.core.metadata->put_media(media); // its digest is taken when first needed
        }
        ++run.recordings;
    }
}

void import_alarms(ImportRun &run, const std::string &device) {
    const std::string folder = device + "/" + kAlarmsFolder;
    for (const AlarmFile &file : alarm_files(run.path(folder))) {
        const std::string relative = folder + "/" + file.name;
        std::string reason;
        const std::optional<std::string> text = read_text(run.path(relative), &reason);
        std::optional<AlarmRow> alarm = text ? parse_alarm_record(*text, &reason) : std::nullopt;
        if (!alarm) {
            run.quarantine("alarm", device, 0, relative, reason);
            continue;
        }
        alarm->id = run.core.metadata->next_alarm_id();
        alarm->device = device;
        alarm->received = alarm->time;
        if (!alarm->picture_object.empty()) {
            alarm->picture_object = folder + "/" + alarm->picture_object;
        }
        run.core.metadata->add_alarm(*alarm);
        ++run.alarms;
    }
}

void import_gaps(ImportRun &run, const std::string &device) {
    const std::string relative = device + "/" + kGapsFile;
    try {
        for (const Gap &gap : load_gaps(run.path(device), device)) {
            run.core.metadata->add_gap(gap);
        }
    } catch (const FileError &e) {
        run.quarantine("gaps", device, 0, relative,
                       std::string("cannot be read: ") + std::strerror(e.error_number()));
    } catch (const std::runtime_error &e) {
        const std::string prefix = run.path(relative) + ": ";
        const std::string what = e.what();
        run.quarantine("gaps", device, 0, relative,
                       what.compare(0, prefix.size(), prefix) == 0 ? what.substr(prefix.size())
                                                                   : what);
    }
}

void import_events(ImportRun &run, const std::string &device) {
    std::string reason;
    std::error_code ec;
    const std::string path = run.path(device + "/" + kEventsFile);
    if (!fs::exists(path, ec)) {
        return;
    }
    const std::optional<std::string> text = read_text(path, &reason);
    if (!text) {
        run.quarantine("events", device, 0, device + "/" + kEventsFile, reason);
        return;
    }
    size_t pos = 0;
    while (pos < text->size()) {
        const size_t end = std::min(text->find('\n', pos), text->size());
        if (end > pos) {
            run.core.metadata->add_event(device, 0, text->substr(pos, end - pos));
        }
        pos = end + 1;
    }
}

/// Moves a quarantined file under quarantine/, keeping it for someone to look at.
void move_aside(ImportRun &run, const std::string &relative) {
    const std::string folder = run.path(kQuarantineDirectory);
    make_directory(folder);
    std::error_code ec;
    fs::rename(run.path(relative), folder + "/" + ImportRun::flat_name(relative), ec);
    if (ec) {
        run.lines.push_back("import: cannot move " + relative + " to " + kQuarantineDirectory +
                            "/: " + ec.message());
        return;
    }
    sync_directory(folder);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

void import_json_layout(ServiceCore &core) {
    ImportRun run{core, {}, {}};
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        MetadataStore &metadata = *core.metadata;
        if (metadata.setting(kImportedSetting)) {
            return;
        }
        std::vector<std::string> devices;
        for (const std::string &device : device_directories(core.options.data_dir)) {
            std::error_code ec;
            // A device of that layout is a directory with a device file; anything else was
            // not the service's.
            if (fs::is_regular_file(run.path(device + "/" + kDeviceFile), ec)) {
                devices.push_back(device);
            }
        }
        metadata.transaction([&] {
            for (const std::string &device : devices) {
                import_device_state(run, device);
                import_recordings(run, device);
                import_alarms(run, device);
                import_gaps(run, device);
                import_events(run, device);
            }
            metadata.put_setting(kImportedSetting, std::to_string(core.now()));
        });
        for (const std::string &relative : run.set_aside) {
            move_aside(run, relative);
        }
    }
    if (run.devices > 0) {
        run.lines.push_back("import: " + std::to_string(run.devices) + " devices, " +
                            std::to_string(run.recordings) + " recordings, " +
                            std::to_string(run.alarms) + " alarms taken from " +
                            core.options.data_dir);
    }
    for (const std::string &line : run.lines) {
        core.log(line);
    }
}

} // namespace vexo_cloud

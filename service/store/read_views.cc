/// The read-only views of a data directory for tools (read_recordings, read_gaps): from its
/// database when the service made one, else from the JSON layout of older services. Readers
/// take no lock: SQLite's WAL mode lets them read while the service writes.
#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "cloud_service.h"
#include "durable_file.h"
#include "gap_records.h"
#include "legacy_recordings.h"
#include "media_names.h"
#include "sqlite_metadata_store.h"
#include "store_views.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

/// Checks the arguments every view takes; true when the directory has a database.
bool check_view(const std::string &data_dir, const std::string &device) {
    if (!device.empty() && !valid_device_id(device)) {
        throw std::invalid_argument("invalid device id: " + device);
    }
    std::error_code ec;
    if (!fs::is_directory(data_dir, ec)) {
        throw FileError("not a directory: " + data_dir, ENOTDIR);
    }
    return fs::exists(data_dir + "/" + kDatabaseFile, ec);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::vector<Recording> recordings_of(MetadataStore &store, const std::string &data_dir,
                                     const std::string &device, std::vector<std::string> *damaged) {
    std::map<std::pair<std::string, uint32_t>, std::vector<MediaFileInfo>> files;
    for (const MediaRow &row : store.media_files(device)) {
        files[{row.device, row.start_time}].push_back(MediaFileInfo{row.name, row.bytes});
    }
    std::map<std::pair<std::string, uint32_t>, std::string> reasons;
    if (damaged != nullptr) {
        for (const QuarantineRow &row : store.quarantined()) {
            if (row.kind == "recording" && (device.empty() || row.device == device)) {
                reasons[{row.device, row.start_time}] = row.reason;
            }
        }
    }
    std::vector<Recording> recordings;
    for (const RecordingRow &row : store.recordings(device)) {
        Recording recording;
        recording.device = row.device;
        recording.start_time = row.start_time;
        recording.end_time = row.end_time;
        recording.payload_info = row.payload_info;
        recording.mtu = row.mtu;
        recording.announced_md5 = row.announced_md5;
        recording.key = row.key;
        recording.key_md5 = row.key_md5;
        recording.directory = data_dir + "/" + row.device + "/" + std::to_string(row.start_time);
        recording.files = std::move(files[{row.device, row.start_time}]);
        const auto reason = reasons.find({row.device, row.start_time});
        if (!row.announced && reason != reasons.end()) {
            damaged->push_back(recording.directory + "/" + kRecordingFile + ": " + reason->second);
        }
        recordings.push_back(std::move(recording));
    }
    return recordings;
}

std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device) {
    return read_recordings(data_dir, device, nullptr);
}

std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device,
                                       std::vector<std::string> *damaged) {
    if (!check_view(data_dir, device)) {
        return read_legacy_recordings(data_dir, device, damaged);
    }
    SqliteMetadataStore store(data_dir + "/" + kDatabaseFile, true);
    return recordings_of(store, data_dir, device, damaged);
}

std::vector<Gap> read_gaps(const std::string &data_dir, const std::string &device,
                           std::vector<std::string> *damaged) {
    if (!check_view(data_dir, device)) {
        return read_legacy_gaps(data_dir, device, damaged);
    }
    SqliteMetadataStore store(data_dir + "/" + kDatabaseFile, true);
    return store.gaps(device);
}

} // namespace vexo_cloud

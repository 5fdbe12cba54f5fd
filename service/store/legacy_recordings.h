/// The recordings of a data directory in the JSON layout the service wrote before it kept a
/// database: one directory per recording, <data>/<device>/<start>/, holding its media files
/// and its recording.json. Read to import such a directory, and by tools on a directory that
/// was never imported.
#ifndef VEXO_CLOUD_LEGACY_RECORDINGS_H
#define VEXO_CLOUD_LEGACY_RECORDINGS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "records.h"

namespace vexo_cloud {

constexpr char kRecordingFile[] = "recording.json";

/// The recording a recording.json text describes (device left empty); nullopt with *reason
/// when it is not one or names another start time than start_time.
std::optional<RecordingRow> parse_recording_file(const std::string &text, uint32_t start_time,
                                                 std::string *reason);

/// The recording directories under a device directory, by start time; throws FileError
/// when it cannot be listed.
std::map<uint32_t, std::string> recording_directories(const std::string &device_dir);

/// The media files of a recording directory with their sizes, by name; temporary files and
/// anything else that is not a media file name are left out. Throws FileError.
std::vector<MediaFileInfo> media_files_in(const std::string &dir);

/// read_recordings on a data directory without a database: every recording directory, with
/// its recording.json when there is one and it is sound. A damaged or unreadable one throws
/// std::runtime_error naming the file when damaged is null; otherwise the recording is listed
/// without its metadata and "<path>: <reason>" appended to *damaged.
std::vector<Recording> read_legacy_recordings(const std::string &data_dir,
                                              const std::string &device,
                                              std::vector<std::string> *damaged);

} // namespace vexo_cloud

#endif

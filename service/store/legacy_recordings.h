/// The recordings index: one directory per recording, <data>/<device>/<start>/, holding the
/// recording's media files and its recording.json (what the start and stop notifications
/// said, and the key its files are encrypted with).
#ifndef VEXO_CLOUD_RECORDING_INDEX_H
#define VEXO_CLOUD_RECORDING_INDEX_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "json_fields.h"

namespace vexo_cloud {

constexpr char kRecordingFile[] = "recording.json";

struct RecordingState {
    uint32_t start_time = 0;
    uint32_t end_time = 0; ///< 0 while open
    std::string payload_info;
    Json payload; ///< payload_info parsed
    int32_t mtu = 0;
    std::string announced_md5;
    std::string key;
    std::string key_md5;
};

/// The start time a recording directory is named after: a decimal number 1..4294967295
/// without leading zeros, so that each recording has exactly one directory name.
std::optional<uint32_t> parse_start_name(const std::string &text);

/// The recording start of a media file name "<start>_<index>.media" (start as above, index
/// 1..10 digits); nullopt for any other name.
std::optional<uint32_t> parse_media_name(const std::string &name);

/// The index of a media file name as above: the seconds from the recording's start to the
/// file's first frame. nullopt for any other name.
std::optional<uint64_t> parse_media_elapsed(const std::string &name);

/// Writes recording_dir/recording.json atomically; throws FileError.
void save_recording(const std::string &recording_dir, const RecordingState &recording);

/// The names of the directories of data_dir that are device ids, sorted; throws FileError
/// when data_dir cannot be listed.
std::vector<std::string> device_directories(const std::string &data_dir);

/// Every recording.json under a device directory, by start time; throws std::runtime_error
/// naming the file when one is not a recording.
std::map<uint32_t, RecordingState> load_recording_index(const std::string &device_dir);

} // namespace vexo_cloud

#endif

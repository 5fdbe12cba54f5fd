/// Names in a cloud data directory: device ids, recording start directories and media file
/// names. A device id is also a directory name, so a few names the service keeps for itself
/// beside the device directories are not device ids.
#ifndef VEXO_CLOUD_MEDIA_NAMES_H
#define VEXO_CLOUD_MEDIA_NAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vexo_cloud {

/// Folders and files of the data directory that are the service's own, never a device's.
constexpr char kQuarantineDirectory[] = "quarantine";
constexpr char kImportedDirectory[] = "imported";
constexpr char kDatabaseFile[] = "vexo-cloud.db";
constexpr char kLockFile[] = "vexo-cloud.lock";
/// Where uploads are written until they are whole; '~' is not in any device id.
constexpr char kIncomingDirectory[] = ".incoming~";

/// True when a device id is 1..64 characters of A-Z a-z 0-9 . _ - and neither "." nor "..",
/// which would name a directory other than the device's own, nor one of the names above.
bool valid_device_id(const std::string &device);

/// The start time a recording directory is named after: a decimal number 1..4294967295
/// without leading zeros, so that each recording has exactly one directory name.
std::optional<uint32_t> parse_start_name(const std::string &text);

/// The recording start of a media file name "<start>_<index>.media" (start as above, index
/// 1..10 digits); nullopt for any other name.
std::optional<uint32_t> parse_media_name(const std::string &name);

/// The index of a media file name as above: the seconds from the recording's start to the
/// file's first frame. nullopt for any other name.
std::optional<uint64_t> parse_media_elapsed(const std::string &name);

/// The names of the directories of data_dir that are device ids, sorted; throws FileError
/// when data_dir cannot be listed.
std::vector<std::string> device_directories(const std::string &data_dir);

} // namespace vexo_cloud

#endif

// The recordings of a cloud data directory as the commands see them: selection by device and
// start time, their media files in order, their keys, and time texts.
#ifndef VEXO_MEDIA_CATALOG_H
#define VEXO_MEDIA_CATALOG_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media_format.h"
#include "service/core/cloud_service.h"

namespace vexo_tool {

using vexo_cloud::Gap;
using vexo_cloud::Recording;

constexpr const char *kDefaultDataDir = "./vexo-data/cloud";

/// Every recording under data_dir (of one device when device is not empty), ordered by device
/// and start time. A recording whose recording.json is damaged or unreadable is listed without
/// its metadata, and "<path>: <reason>" is appended to *damaged for it. db_url, when not
/// empty, is the service's --db: the metadata come from that database instead of data_dir's.
/// Throws ToolError when the directory or the database cannot be read or device is not a
/// valid device id.
std::vector<Recording> load_recordings(const std::string &data_dir, const std::string &device,
                                       std::vector<std::string> *damaged,
                                       const std::string &db_url = "");

/// The gaps reported by the devices under data_dir (one device when device is not empty),
/// ordered by device and time. A gaps file that is damaged or unreadable is skipped, and
/// "<path>: <reason>" is appended to *damaged for it. Throws ToolError when the directory
/// cannot be read or device is not a valid device id.
std::vector<Gap> load_gaps(const std::string &data_dir, const std::string &device,
                           std::vector<std::string> *damaged, const std::string &db_url = "");

/// Why a recording's recording.json could not be used, taken from the lines load_recordings
/// gave; nullopt when the file is sound or absent.
std::optional<std::string> metadata_damage(const Recording &recording,
                                           const std::vector<std::string> &damaged);

/// The path of a recording's recording.json.
std::string metadata_path(const Recording &recording);

/// The recordings whose start time is one of starts (epoch seconds as text). Throws ToolError
/// for a start that is not a number or that matches no recording.
std::vector<Recording> select_starts(const std::vector<Recording> &all,
                                     const std::vector<std::string> &starts);

/// Full paths of a recording's media files, ordered by the elapsed seconds in their names.
std::vector<std::string> media_paths(const Recording &recording);

/// The key to decrypt a recording with: key_text when given, else the recording's own key.
/// nullopt when neither is there; throws ToolError when the text given is not 16 characters.
std::optional<vexo_media::Key> recording_key(const Recording &recording,
                                             const std::optional<std::string> &key_text);

/// The last path component.
std::string base_name(const std::string &path);

} // namespace vexo_tool

#endif

// A recording's media files as an export reads them: their names in elapsed order and a way
// to read one whole, whether they lie on disk or in the cloud service's media store.
#ifndef VEXO_MEDIA_EXPORT_MEDIA_FILES_H
#define VEXO_MEDIA_EXPORT_MEDIA_FILES_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "media_format.h"

namespace vexo_tool {

struct MediaFiles {
    /// Names faults are reported under (a path, or a media object's name), in elapsed order.
    std::vector<std::string> names;
    /// Reads file index whole into *bytes; false with *fault (at the offset where it failed)
    /// when it cannot be read.
    std::function<bool(size_t index, std::vector<uint8_t> *bytes, vexo_media::Fault *fault)> read;
};

/// Files on disk, read with vexo_media::read_bytes.
MediaFiles files_on_disk(const std::vector<std::string> &paths);

/// Reads and parses file index: false with *fault when it could not be read or parsed whole
/// (the entries before the fault stay in *entries).
bool read_entries(const MediaFiles &files, size_t index, std::vector<vexo_media::Entry> *entries,
                  vexo_media::Fault *fault);

} // namespace vexo_tool

#endif

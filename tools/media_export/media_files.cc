// Reading the media files of an export.
#include "media_files.h"

namespace vexo_tool {

MediaFiles files_on_disk(const std::vector<std::string> &paths) {
    MediaFiles files;
    files.names = paths;
    files.read = [paths](size_t index, std::vector<uint8_t> *bytes, vexo_media::Fault *fault) {
        return vexo_media::read_bytes(paths.at(index), bytes, fault);
    };
    return files;
}

bool read_entries(const MediaFiles &files, size_t index, std::vector<vexo_media::Entry> *entries,
                  vexo_media::Fault *fault) {
    std::vector<uint8_t> bytes;
    return files.read(index, &bytes, fault) &&
           vexo_media::parse(files.names.at(index), bytes, entries, fault);
}

} // namespace vexo_tool

// Splitting the bytes of a media file into frame entries, with the faults named by file.
#include "media_format.h"

namespace vexo_media {

std::string Fault::text() const {
    return file + ": offset " + std::to_string(offset) + ": " + message;
}

bool parse(const std::string &file_name, const std::vector<uint8_t> &bytes,
           std::vector<Entry> *entries, Fault *fault) {
    if (kitcommon::parse_media_entries(bytes, entries, &fault->offset, &fault->message)) {
        return true;
    }
    fault->file = file_name;
    return false;
}

} // namespace vexo_media

/// Uploaded media files: a parser of their frame entries and a check of every entry against
/// the frame the test kit produced.
#ifndef VEXO_KIT_MEDIA_FILE_H
#define VEXO_KIT_MEDIA_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "test_kit.h"

namespace media_file {

/// The fixed AES-128-CBC initialisation vector of every encrypted entry.
extern const uint8_t kIv[16];

struct Entry {
    uint32_t type;
    uint32_t length;
    uint64_t timestamp; // ms
    uint64_t pts;
    std::vector<uint8_t> payload;
};

/// Splits a file into entries (24-byte little-endian header type/length/timestamp/pts, then
/// the payload); false with a message when a header or payload runs past the end.
bool parse(const std::vector<uint8_t> &file, std::vector<Entry> *entries, std::string *error);

/// "" when the upload is well formed, begins with an audio or key frame, and every entry equals
/// the kit's frame of that stream and time stamp (pts, bytes: key frames and audio decrypted
/// with key and kIv, other video frames in clear); else the first fault. Fills entries.
std::string verify(const tk::Upload &upload, const uint8_t key[16],
                   std::vector<Entry> *entries = nullptr);

} // namespace media_file

#endif

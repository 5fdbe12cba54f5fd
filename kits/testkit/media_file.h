/// Uploaded media files: a parser of their frame entries and a check of every entry against
/// the frame the test kit produced.
#ifndef VEXO_KIT_MEDIA_FILE_H
#define VEXO_KIT_MEDIA_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/media_entry.h"
#include "test_kit.h"

namespace media_file {

using Entry = kitcommon::MediaEntry;

/// Splits a file into entries (common/media_entry.h); false with the fault and its offset.
bool parse(const std::vector<uint8_t> &file, std::vector<Entry> *entries, std::string *error);

/// "" when the upload is well formed, begins with an audio or key frame, and every entry equals
/// the kit's frame of that stream and time stamp (pts, bytes: key frames and audio decrypted
/// with key and kitcommon::kMediaIv, other video frames in clear); else the first fault. Fills
/// entries.
std::string verify(const tk::Upload &upload, const uint8_t key[16],
                   std::vector<Entry> *entries = nullptr);

} // namespace media_file

#endif

/// The media-file entry format, written by the module and read by the kits, the tools and the
/// tests: a media file is a sequence of frame entries, each a 24-byte little-endian header
/// (type u32, payload length u32, time stamp ms u64, pts u64) and its payload. Key frames and
/// audio are stored AES-128-CBC encrypted (PKCS#7) with the recording's key and kMediaIv;
/// other video frames are in the clear.
#ifndef VEXO_KIT_COMMON_MEDIA_ENTRY_H
#define VEXO_KIT_COMMON_MEDIA_ENTRY_H

#include <cstdint>
#include <string>
#include <vector>

namespace kitcommon {

constexpr uint32_t kMediaEntryHeaderSize = 24;
constexpr uint32_t kMediaTypeP = 0;
constexpr uint32_t kMediaTypeKey = 1;
constexpr uint32_t kMediaTypeAudio = 3;
/// Largest payload accepted in one entry (a sanity bound against hostile lengths).
constexpr uint32_t kMediaMaxPayload = 16u << 20;

/// The fixed initialisation vector of every encrypted entry.
extern const uint8_t kMediaIv[16];

struct MediaEntry {
    uint32_t type = 0;
    uint32_t length = 0;    // payload bytes as stored (cipher text for encrypted entries)
    uint64_t timestamp = 0; // ms
    uint64_t pts = 0;
    uint64_t offset = 0; // of the header within the file
    std::vector<uint8_t> payload;
};

/// True for the types that are stored encrypted (key frames and audio).
bool media_entry_encrypted(uint32_t type);

/// Appends one entry: its header, then payload as given.
void append_media_entry(uint32_t type, const std::vector<uint8_t> &payload, uint64_t timestamp,
                        uint64_t pts, std::vector<uint8_t> *out);

/// Splits the bytes of one file into entries, every read bounded by the bytes present. Stops
/// at the first fault (header cut short, unknown type, length over kMediaMaxPayload, payload
/// past the end) with its byte offset and a message; the entries before it stay in *entries.
/// True when the whole file parsed.
bool parse_media_entries(const std::vector<uint8_t> &bytes, std::vector<MediaEntry> *entries,
                         uint64_t *fault_offset, std::string *fault);

} // namespace kitcommon

#endif

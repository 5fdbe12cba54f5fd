/// Uploaded media files: reading, checking and decrypting them. The entry layout and the IV
/// are the kits' (common/media_entry.h); this adds the file names, whole files on disk,
/// decryption and the checks of a recording.
///
/// Files come from the network: every reader here bounds its reads by the bytes present and
/// reports a fault with the file and the byte offset where it was found.
#ifndef VEXO_MEDIA_FORMAT_H
#define VEXO_MEDIA_FORMAT_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/media_entry.h"

namespace vexo_media {

constexpr uint32_t kHeaderSize = kitcommon::kMediaEntryHeaderSize;
constexpr uint32_t kTypeP = kitcommon::kMediaTypeP;
constexpr uint32_t kTypeKey = kitcommon::kMediaTypeKey;
constexpr uint32_t kTypeAudio = kitcommon::kMediaTypeAudio;
constexpr uint32_t kMaxPayload = kitcommon::kMediaMaxPayload;
/// Largest file read into memory; a bigger one is a fault rather than an allocation.
constexpr uint64_t kMaxFileBytes = 1ull << 30;

using Key = std::array<uint8_t, 16>;
using Entry = kitcommon::MediaEntry;

struct Fault {
    std::string file;
    uint64_t offset = 0;
    std::string message;
    /// "<file>: offset <offset>: <message>"
    std::string text() const;
};

/// Splits the bytes of one file into entries. Stops at the first fault (header cut short,
/// payload past the end, length over kMaxPayload, unknown type) and returns it through
/// *fault; the entries before it stay in *entries. True when the whole file parsed.
bool parse(const std::string &file_name, const std::vector<uint8_t> &bytes,
           std::vector<Entry> *entries, Fault *fault);

/// Reads a whole file (at most kMaxFileBytes); a missing, unreadable or oversized file is a
/// fault at offset 0, a file that shrinks while it is read a fault where it ended.
bool read_bytes(const std::string &path, std::vector<uint8_t> *bytes, Fault *fault);

/// Reads and parses a file from disk; a missing or unreadable file is a fault at offset 0.
bool read_file(const std::string &path, std::vector<Entry> *entries, Fault *fault);

/// True for the types that are stored encrypted.
inline bool is_encrypted(uint32_t type) {
    return kitcommon::media_entry_encrypted(type);
}

/// Decrypts one encrypted payload (AES-128-CBC, kitcommon::kMediaIv, PKCS#7). False when the length
/// is not a non-zero multiple of 16 or the padding is wrong.
bool decrypt(const Key &key, const std::vector<uint8_t> &cipher, std::vector<uint8_t> *plain);

/// The plain bytes of an entry: decrypted when encrypted, else the payload as stored.
bool plain_payload(const Key &key, const Entry &entry, std::vector<uint8_t> *plain);

/// Key text (16 characters) to key bytes; false when it is not 16 characters.
bool key_from_text(const std::string &text, Key *key);
/// Lower-case hex md5 of the 16 key bytes.
std::string key_md5(const Key &key);

/// Checks one recording's files (in name order) against the format: parse, cipher lengths
/// (a non-zero multiple of 16 for encrypted entries), first entry of each file an audio or
/// key frame, video and audio time stamps each non-decreasing across the files, and - with a
/// key - every encrypted entry decrypting with valid padding. Returns every fault found
/// (empty: the recording is well formed); counts what it read into the report.
struct VerifyReport {
    uint64_t files = 0;
    uint64_t entries = 0;
    uint64_t video_frames = 0;
    uint64_t key_frames = 0;
    uint64_t audio_frames = 0;
    uint64_t bytes = 0;
    uint64_t first_timestamp = 0; // ms
    uint64_t last_timestamp = 0;  // ms
    std::vector<Fault> faults;
};
VerifyReport verify_files(const std::vector<std::string> &paths, const Key *key);

} // namespace vexo_media

#endif

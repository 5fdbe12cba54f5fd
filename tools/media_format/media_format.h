/// Uploaded media files: reading, checking and decrypting them. A media file is a sequence of
/// frame entries, each a 24-byte little-endian header (type u32, payload length u32, time
/// stamp ms u64, pts u64) and its payload; key frames (type 1) and audio (type 3) are
/// AES-128-CBC encrypted (PKCS#7) with the recording's key and the fixed IV, other video
/// frames (type 0) are in the clear.
///
/// Files come from the network: every reader here bounds its reads by the bytes present and
/// reports a fault with the file and the byte offset where it was found.
#ifndef VEXO_MEDIA_FORMAT_H
#define VEXO_MEDIA_FORMAT_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vexo_media {

constexpr uint32_t kHeaderSize = 24;
constexpr uint32_t kTypeP = 0;
constexpr uint32_t kTypeKey = 1;
constexpr uint32_t kTypeAudio = 3;
/// Largest payload accepted in one entry (a sanity bound against hostile lengths).
constexpr uint32_t kMaxPayload = 16u << 20;
/// Largest file read into memory; a bigger one is a fault rather than an allocation.
constexpr uint64_t kMaxFileBytes = 1ull << 30;

/// The fixed initialisation vector of every encrypted entry.
extern const std::array<uint8_t, 16> kIv;

using Key = std::array<uint8_t, 16>;

struct Entry {
    uint32_t type = 0;
    uint32_t length = 0;    // payload bytes as stored (cipher text for encrypted entries)
    uint64_t timestamp = 0; // ms
    uint64_t pts = 0;
    uint64_t offset = 0; // of the header within the file
    std::vector<uint8_t> payload;
};

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
bool is_encrypted(uint32_t type);

/// Decrypts one encrypted payload (AES-128-CBC, kIv, PKCS#7). False when the length is not a
/// non-zero multiple of 16 or the padding is wrong.
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

/// One item of the outage spool as it lies on disk: a cloud request that waits for the cloud,
/// with what the spool needs to order, group and bound it.
///
/// File "<seq, 20 digits>.item", little-endian:
///   fixed header (52 bytes): magic "VXSP", version u16, kind u16, seq u64, queued kit time
///     ms u64, recording start u32, span begin u32, span end u32, head length u32, body
///     length u32, body crc32 u32, head crc32 u32 (over the 48 bytes before it and the head)
///   head: the request without its body: method, path, query (each u32 length + bytes),
///     time limit u32, header count u32, then each header's name and value
///   drops (version 2): count u32, then each sequence number u64; a gap report names the
///     items it reports as dropped (empty for every other item); also under the head's crc
///   body: the request's body
/// Version 1 files (no drop list) are still read.
/// The head is checked whenever the spool loads an item; the body when it is read for sending.
/// A bearer token is never written: the sender adds the kit's current one.
#ifndef VEXO_HOST_SPOOL_ITEM_H
#define VEXO_HOST_SPOOL_ITEM_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloud_transport.h"

namespace hostkit::spool {

/// What a spooled request is for the cloud.
enum class Kind : uint16_t {
    kStart = 1, ///< a recording's start notification
    kStop = 2,  ///< its stop notification
    kEvent = 3, ///< an event report
    kMedia = 4, ///< a media file of a recording
    kAlarm = 5,
    kGap = 6, ///< a report of footage the spool had to drop
};

/// "start", "stop", ... for log lines.
const char *kind_name(Kind kind);

/// What the spool keeps of an item in memory: everything but the request.
struct ItemInfo {
    uint64_t seq = 0; ///< position in the queue; set by the spool
    Kind kind = Kind::kMedia;
    uint64_t queued_ms = 0; ///< kit time the item was queued; set by the spool
    /// Start time of the recording the item belongs to (start, stop, media); 0 for none.
    uint32_t recording = 0;
    /// Seconds of footage the item covers, for gap reports; 0 when unknown.
    uint32_t span_begin = 0;
    uint32_t span_end = 0;
    uint64_t body_bytes = 0; ///< set by the spool
    uint64_t file_bytes = 0; ///< set by the spool
    std::string what;        ///< "PUT /v1/devices/D/media/X", for log lines; set by the spool
    /// A gap report's dropped items: it is written before they are removed, so a spool that
    /// opens to find any of them still there finishes the drop instead of sending them.
    std::vector<uint64_t> drops;
};

struct Item {
    ItemInfo info;
    CloudRequest request;
};

/// "<seq, 20 digits>.item".
std::string file_name(uint64_t seq);
/// The sequence number of an item file name; nullopt for any other name.
std::optional<uint64_t> seq_of(const std::string &name);

/// The file's bytes for an item (info.seq, kind, queued_ms, recording and span are written).
std::string encode(const ItemInfo &info, const CloudRequest &request);

/// Reads the item in an open file of file_size bytes whose name carries expected_seq. Without
/// with_body only the head is read and checked (the request's body stays empty); with it the
/// body is read and checked too. nullopt with *error saying what is wrong: short file, bad
/// magic, version, kind or checksum, a head that does not parse, a sequence number that is not
/// the file name's.
std::optional<Item> load(int fd, uint64_t file_size, uint64_t expected_seq, bool with_body,
                         std::string *error);

/// CRC-32 (the zlib/PNG polynomial) of data, continuing from crc (0 to begin).
uint32_t crc32(const void *data, size_t len, uint32_t crc = 0);

} // namespace hostkit::spool

#endif

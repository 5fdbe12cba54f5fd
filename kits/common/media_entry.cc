// Writing and splitting media-file entries.
#include "media_entry.h"

#include "vexo_ring_buffer.h"

namespace kitcommon {

static_assert(kMediaTypeP == VEXO_FRAME_P && kMediaTypeKey == VEXO_FRAME_I &&
                  kMediaTypeAudio == VEXO_FRAME_AUDIO,
              "entry types are the ring buffer's frame types");

const uint8_t kMediaIv[16] = {0x5c, 0x1e, 0xa7, 0x33, 0x90, 0xd2, 0x4b, 0x68,
                              0xf1, 0x0a, 0x87, 0xc5, 0x26, 0xe9, 0x7d, 0xb4};

namespace {

uint64_t read_le(const std::vector<uint8_t> &bytes, size_t at, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = (value << 8) | bytes[at + static_cast<size_t>(i)];
    }
    return value;
}

void put_le(uint64_t value, int width, std::vector<uint8_t> *out) {
    for (int i = 0; i < width; ++i) {
        out->push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

bool known_type(uint32_t type) {
    return type == kMediaTypeP || type == kMediaTypeKey || type == kMediaTypeAudio;
}

bool fail(uint64_t *fault_offset, std::string *fault, uint64_t offset, std::string message) {
    *fault_offset = offset;
    *fault = std::move(message);
    return false;
}

} // namespace

bool media_entry_encrypted(uint32_t type) {
    return type == kMediaTypeKey || type == kMediaTypeAudio;
}

void append_media_entry(uint32_t type, const std::vector<uint8_t> &payload, uint64_t timestamp,
                        uint64_t pts, std::vector<uint8_t> *out) {
    put_le(type, 4, out);
    put_le(payload.size(), 4, out);
    put_le(timestamp, 8, out);
    put_le(pts, 8, out);
    out->insert(out->end(), payload.begin(), payload.end());
}

bool parse_media_entries(const std::vector<uint8_t> &bytes, std::vector<MediaEntry> *entries,
                         uint64_t *fault_offset, std::string *fault) {
    const size_t size = bytes.size();
    for (size_t at = 0; at < size;) {
        const size_t left = size - at;
        if (left < kMediaEntryHeaderSize) {
            return fail(fault_offset, fault, at,
                        "entry header cut short (" + std::to_string(left) + " of " +
                            std::to_string(kMediaEntryHeaderSize) + " bytes)");
        }
        MediaEntry entry;
        entry.type = static_cast<uint32_t>(read_le(bytes, at, 4));
        entry.length = static_cast<uint32_t>(read_le(bytes, at + 4, 4));
        entry.timestamp = read_le(bytes, at + 8, 8);
        entry.pts = read_le(bytes, at + 16, 8);
        entry.offset = at;
        if (!known_type(entry.type)) {
            return fail(fault_offset, fault, at,
                        "unknown entry type " + std::to_string(entry.type));
        }
        if (entry.length > kMediaMaxPayload) {
            return fail(fault_offset, fault, at,
                        "payload length " + std::to_string(entry.length) + " over the limit of " +
                            std::to_string(kMediaMaxPayload));
        }
        if (left - kMediaEntryHeaderSize < entry.length) {
            return fail(fault_offset, fault, at,
                        "payload of " + std::to_string(entry.length) +
                            " bytes runs past the end of the file (" +
                            std::to_string(left - kMediaEntryHeaderSize) + " left)");
        }
        const auto payload =
            bytes.begin() + static_cast<std::ptrdiff_t>(at + kMediaEntryHeaderSize);
        entry.payload.assign(payload, payload + entry.length);
        at += kMediaEntryHeaderSize + entry.length;
        entries->push_back(std::move(entry));
    }
    return true;
}

} // namespace kitcommon

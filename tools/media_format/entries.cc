// Splitting the bytes of a media file into frame entries, with every read bounded by the bytes
// present.
#include "media_format.h"

namespace vexo_media {
namespace {

uint64_t read_le(const std::vector<uint8_t> &bytes, size_t at, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = (value << 8) | bytes[at + static_cast<size_t>(i)];
    }
    return value;
}

bool known_type(uint32_t type) {
    return type == kTypeP || type == kTypeKey || type == kTypeAudio;
}

bool fail(Fault *fault, const std::string &file, uint64_t offset, std::string message) {
    fault->file = file;
    fault->offset = offset;
    fault->message = std::move(message);
    return false;
}

} // namespace

std::string Fault::text() const {
    return file + ": offset " + std::to_string(offset) + ": " + message;
}

bool parse(const std::string &file_name, const std::vector<uint8_t> &bytes,
           std::vector<Entry> *entries, Fault *fault) {
    const size_t size = bytes.size();
    for (size_t at = 0; at < size;) {
        const size_t left = size - at;
        if (left < kHeaderSize) {
            return fail(fault, file_name, at,
                        "entry header cut short (" + std::to_string(left) + " of " +
                            std::to_string(kHeaderSize) + " bytes)");
        }
        Entry entry;
        entry.type = static_cast<uint32_t>(read_le(bytes, at, 4));
        entry.length = static_cast<uint32_t>(read_le(bytes, at + 4, 4));
        entry.timestamp = read_le(bytes, at + 8, 8);
        entry.pts = read_le(bytes, at + 16, 8);
        entry.offset = at;
        if (!known_type(entry.type)) {
            return fail(fault, file_name, at, "unknown entry type " + std::to_string(entry.type));
        }
        if (entry.length > kMaxPayload) {
            return fail(fault, file_name, at,
                        "payload length " + std::to_string(entry.length) + " over the limit of " +
                            std::to_string(kMaxPayload));
        }
        if (left - kHeaderSize < entry.length) {
            return fail(fault, file_name, at,
                        "payload of " + std::to_string(entry.length) +
                            " bytes runs past the end of the file (" +
                            std::to_string(left - kHeaderSize) + " left)");
        }
        const auto payload = bytes.begin() + static_cast<std::ptrdiff_t>(at + kHeaderSize);
        entry.payload.assign(payload, payload + entry.length);
        at += kHeaderSize + entry.length;
        entries->push_back(std::move(entry));
    }
    return true;
}

} // namespace vexo_media

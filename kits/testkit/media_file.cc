// Parsing and checking of uploaded media files against the kit's frame history.
#include "media_file.h"

#include "vexo_ring_buffer.h"

namespace media_file {

const uint8_t kIv[16] = {0x5c, 0x1e, 0xa7, 0x33, 0x90, 0xd2, 0x4b, 0x68,
                         0xf1, 0x0a, 0x87, 0xc5, 0x26, 0xe9, 0x7d, 0xb4};

bool parse(const std::vector<uint8_t> &file, std::vector<Entry> *entries, std::string *error) {
    auto le = [&file](size_t at, int bytes) {
        uint64_t v = 0;
        for (int i = bytes - 1; i >= 0; --i) {
            v = (v << 8) | file[at + static_cast<size_t>(i)];
        }
        return v;
    };
    for (size_t at = 0; at < file.size();) {
        if (file.size() - at < 24) {
            *error = "truncated header at offset " + std::to_string(at);
            return false;
        }
        Entry e{static_cast<uint32_t>(le(at, 4)),
                static_cast<uint32_t>(le(at + 4, 4)),
                le(at + 8, 8),
                le(at + 16, 8),
                {}};
        if (file.size() - at - 24 < e.length) {
            *error = "payload runs past the end at offset " + std::to_string(at);
            return false;
        }
        const auto payload = file.begin() + static_cast<std::ptrdiff_t>(at + 24);
        e.payload.assign(payload, payload + e.length);
        at += 24 + e.length;
        entries->push_back(std::move(e));
    }
    return true;
}

std::string verify(const tk::Upload &upload, const uint8_t key[16], std::vector<Entry> *entries) {
    std::vector<Entry> parsed;
    std::string error;
    if (!parse(upload.bytes, &parsed, &error)) {
        return error;
    }
    if (parsed.empty() || (parsed[0].type != VEXO_FRAME_I && parsed[0].type != VEXO_FRAME_AUDIO)) {
        return "the file does not begin with a key frame or an audio frame";
    }
    for (const Entry &e : parsed) {
        const std::string at = "entry of type " + std::to_string(e.type) + " at " +
                               std::to_string(e.timestamp) + " ms: ";
        const bool audio = e.type == VEXO_FRAME_AUDIO;
        auto source = tk::frame_at(audio ? VEXO_STREAM_AUDIO : VEXO_STREAM_MAIN, e.timestamp);
        if (!source || source->type != e.type || source->pts != e.pts) {
            return at + "no such frame was produced";
        }
        auto plain = e.type == VEXO_FRAME_I || audio ? tk::aes_cbc_decrypt(key, kIv, e.payload)
                                                     : std::make_optional(e.payload);
        if (!plain) {
            return at + "does not decrypt";
        }
        if (*plain != tk::frame_bytes(*source)) {
            return at + "bytes differ from the frame";
        }
    }
    if (entries != nullptr) {
        *entries = std::move(parsed);
    }
    return "";
}

} // namespace media_file

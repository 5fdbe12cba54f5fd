// Parsing and checking of uploaded media files against the kit's frame history.
#include "media_file.h"

#include "vexo_ring_buffer.h"

namespace media_file {

bool parse(const std::vector<uint8_t> &file, std::vector<Entry> *entries, std::string *error) {
    uint64_t offset = 0;
    std::string fault;
    if (kitcommon::parse_media_entries(file, entries, &offset, &fault)) {
        return true;
    }
    *error = fault + " at offset " + std::to_string(offset);
    return false;
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
        auto plain = e.type == VEXO_FRAME_I || audio
                         ? tk::aes_cbc_decrypt(key, kitcommon::kMediaIv, e.payload)
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

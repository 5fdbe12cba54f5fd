// ADTS headers for AAC: reading the AudioSpecificConfig bit by bit, recognising frames that
// carry a header already and writing the 7-byte header in front of those that do not.
#include "adts.h"

#include <cstring>

namespace camsim {
namespace {

constexpr size_t kAdtsHeaderSize = 7;
constexpr size_t kAdtsMaxFrame = 8191; // 13-bit frame length field
constexpr uint32_t kAdtsSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                         22050, 16000, 12000, 11025, 8000,  7350};

class BitReader {
  public:
    BitReader(const uint8_t *data, size_t size) : data_(data), bits_(size * 8) {}
    bool read(int count, uint32_t *value) {
        if (bits_ - pos_ < static_cast<size_t>(count)) {
            return false;
        }
        uint32_t v = 0;
        for (int i = 0; i < count; ++i, ++pos_) {
            v = (v << 1) | ((data_[pos_ / 8] >> (7 - pos_ % 8)) & 1u);
        }
        *value = v;
        return true;
    }

  private:
    const uint8_t *data_;
    size_t bits_;
    size_t pos_ = 0;
};

bool read_object_type(BitReader *bits, uint32_t *type) {
    if (!bits->read(5, type)) {
        return false;
    }
    uint32_t extended = 0;
    if (*type == 31) {
        if (!bits->read(6, &extended)) {
            return false;
        }
        *type = 32 + extended;
    }
    return true;
}

// The 4-bit index, or an explicit 24-bit rate that must be one ADTS can name.
bool read_rate_index(BitReader *bits, uint32_t *index) {
    if (!bits->read(4, index)) {
        return false;
    }
    if (*index != 15) {
        return *index < sizeof kAdtsSampleRates / sizeof kAdtsSampleRates[0];
    }
    uint32_t rate = 0;
    if (!bits->read(24, &rate)) {
        return false;
    }
    for (uint32_t i = 0; i < sizeof kAdtsSampleRates / sizeof kAdtsSampleRates[0]; ++i) {
        if (kAdtsSampleRates[i] == rate) {
            *index = i;
            return true;
        }
    }
    return false;
}

size_t adts_frame_length(const uint8_t *data) {
    return (static_cast<size_t>(data[3] & 0x03) << 11) | (static_cast<size_t>(data[4]) << 3) |
           (data[5] >> 5);
}

bool is_adts_frame(const uint8_t *data, size_t size) {
    return size >= kAdtsHeaderSize && data[0] == 0xFF && (data[1] & 0xF6) == 0xF0 &&
           adts_frame_length(data) == size;
}

// 7-byte header without CRC, MPEG-4, buffer fullness 0x7FF (variable rate), one raw block.
void write_adts_header(const AdtsConfig &config, size_t frame_length, uint8_t *header) {
    header[0] = 0xFF;
    header[1] = 0xF1;
    header[2] = static_cast<uint8_t>((config.profile << 6) | (config.rate_index << 2) |
                                     (config.channel_config >> 2));
    header[3] = static_cast<uint8_t>(((config.channel_config & 3) << 6) | (frame_length >> 11));
    header[4] = static_cast<uint8_t>((frame_length >> 3) & 0xFF);
    header[5] = static_cast<uint8_t>(((frame_length & 7) << 5) | 0x1F);
    header[6] = 0xFC;
}

} // namespace

bool parse_audio_config(const uint8_t *data, size_t size, AdtsConfig *config, std::string *error) {
    BitReader bits(data, size);
    uint32_t type = 0;
    uint32_t rate_index = 0;
    uint32_t channels = 0;
    if (!read_object_type(&bits, &type) || !read_rate_index(&bits, &rate_index) ||
        !bits.read(4, &channels)) {
        *error = "the AAC configuration is cut short or names a sample rate ADTS cannot carry";
        return false;
    }
    if (type == 5 || type == 29) {
        uint32_t extension_rate = 0;
        if (!read_rate_index(&bits, &extension_rate) || !read_object_type(&bits, &type)) {
            *error = "the HE-AAC configuration is cut short";
            return false;
        }
    }
    if (type < 1 || type > 4) {
        *error = "AAC object type " + std::to_string(type) + " cannot be carried in ADTS";
        return false;
    }
    if (channels < 1 || channels > 7) {
        *error =
            "AAC channel configuration " + std::to_string(channels) + " cannot be carried in ADTS";
        return false;
    }
    config->profile = type - 1;
    config->rate_index = rate_index;
    config->channel_config = channels;
    return true;
}

bool to_adts_frame(const uint8_t *data, size_t size, const AdtsConfig *config,
                   std::vector<uint8_t> *out, std::string *why) {
    if (is_adts_frame(data, size)) {
        out->assign(data, data + size);
        return true;
    }
    if (config == nullptr) {
        *why = "has neither an ADTS header nor a codec configuration";
        return false;
    }
    if (size + kAdtsHeaderSize > kAdtsMaxFrame) {
        *why = "is too large for ADTS";
        return false;
    }
    out->resize(kAdtsHeaderSize + size);
    write_adts_header(*config, out->size(), out->data());
    std::memcpy(out->data() + kAdtsHeaderSize, data, size);
    return true;
}

} // namespace camsim

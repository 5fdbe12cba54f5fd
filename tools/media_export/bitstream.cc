// Annex-B NAL unit splitting and ADTS header reading, bounded by the bytes given.
#include "bitstream.h"

namespace vexo_tool {
namespace {

constexpr int kH264Sps = 7;
constexpr int kH264Pps = 8;
constexpr int kHevcVps = 32;
constexpr int kHevcSps = 33;
constexpr int kHevcPps = 34;

constexpr int kAdtsRates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                16000, 12000, 11025, 8000,  7350,  0,     0,     0};

/// Position of the next 00 00 01 at or after from, or size when there is none.
size_t next_start_code(const std::vector<uint8_t> &bytes, size_t from) {
    for (size_t i = from; i + 3 <= bytes.size(); ++i) {
        if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) {
            return i;
        }
    }
    return bytes.size();
}

bool is_parameter_set(uint8_t first_byte, bool hevc) {
    if (hevc) {
        const int type = (first_byte >> 1) & 0x3f;
        return type == kHevcVps || type == kHevcSps || type == kHevcPps;
    }
    const int type = first_byte & 0x1f;
    return type == kH264Sps || type == kH264Pps;
}

} // namespace

std::vector<NalUnit> split_annexb(const std::vector<uint8_t> &access_unit) {
    std::vector<NalUnit> units;
    size_t code = next_start_code(access_unit, 0);
    while (code < access_unit.size()) {
        const size_t begin = code + 3;
        const size_t next = next_start_code(access_unit, begin);
        size_t end = next;
        // A four-byte start code (and any zero bytes trailing a unit) belong to no unit.
        while (end > begin && access_unit[end - 1] == 0) {
            --end;
        }
        if (end > begin) {
            units.push_back(NalUnit{begin, end - begin});
        }
        code = next;
    }
    return units;
}

std::vector<uint8_t> parameter_sets(const std::vector<uint8_t> &access_unit, bool hevc) {
    std::vector<uint8_t> sets;
    for (const NalUnit &unit : split_annexb(access_unit)) {
        if (is_parameter_set(access_unit[unit.offset], hevc)) {
            sets.insert(sets.end(), {0, 0, 0, 1});
            const auto begin = access_unit.begin() + static_cast<std::ptrdiff_t>(unit.offset);
            sets.insert(sets.end(), begin, begin + static_cast<std::ptrdiff_t>(unit.size));
        }
    }
    return sets;
}

std::optional<AdtsHeader> read_adts(const std::vector<uint8_t> &frame) {
    if (frame.size() < 7 || frame[0] != 0xff || (frame[1] & 0xf6) != 0xf0) {
        return std::nullopt;
    }
    AdtsHeader header;
    header.profile = frame[2] >> 6;
    header.sample_rate_index = (frame[2] >> 2) & 0x0f;
    header.sample_rate = kAdtsRates[header.sample_rate_index];
    header.channel_config = ((frame[2] & 0x01) << 2) | (frame[3] >> 6);
    header.frame_length = (static_cast<size_t>(frame[3] & 0x03) << 11) |
                          (static_cast<size_t>(frame[4]) << 3) | (frame[5] >> 5);
    if (header.sample_rate == 0 || header.frame_length < 7) {
        return std::nullopt;
    }
    return header;
}

} // namespace vexo_tool

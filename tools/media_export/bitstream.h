// What the export needs to know about the frame contents: Annex-B NAL units and their
// parameter sets, and the fixed header of ADTS frames.
#ifndef VEXO_MEDIA_BITSTREAM_H
#define VEXO_MEDIA_BITSTREAM_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vexo_tool {

/// One NAL unit inside an access unit, without its start code.
struct NalUnit {
    size_t offset = 0;
    size_t size = 0;
};

/// The NAL units of an Annex-B access unit (start codes 00 00 01 or 00 00 00 01). Bytes before
/// the first start code are ignored; empty when there is no start code.
std::vector<NalUnit> split_annexb(const std::vector<uint8_t> &access_unit);

/// The parameter-set NAL units of an access unit (H.264 SPS and PPS; H.265 VPS, SPS and PPS),
/// each with a 4-byte start code, in the order they appear; empty when there are none.
std::vector<uint8_t> parameter_sets(const std::vector<uint8_t> &access_unit, bool hevc);

/// The fixed part of an ADTS header.
struct AdtsHeader {
    int profile = 0; // audio object type - 1
    int sample_rate_index = 0;
    int sample_rate = 0;
    int channel_config = 0;  // 0: given by a program config element
    size_t frame_length = 0; // header included
};

/// The ADTS header at the start of frame; nullopt when frame does not begin with one.
std::optional<AdtsHeader> read_adts(const std::vector<uint8_t> &frame);

} // namespace vexo_tool

#endif

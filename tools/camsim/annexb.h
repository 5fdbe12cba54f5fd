/// H.264 and H.265 access units as a camera's encoder delivers them: Annex-B with 4-byte start
/// codes, no access unit delimiters, and the parameter sets (SPS and PPS, for H.265 VPS, SPS and
/// PPS) in front of every key frame so that a recording cut at any key frame decodes on its own.
#ifndef VEXO_CAMSIM_ANNEXB_H
#define VEXO_CAMSIM_ANNEXB_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace camsim {

enum class VideoCodec { h264, h265 };

/// Rewrites access units into what a camera delivers. On a key frame the parameter sets go
/// first: the frame's own, else the latest ones seen in the stream or in the codec
/// configuration.
class AccessUnitWriter {
  public:
    explicit AccessUnitWriter(VideoCodec codec) : codec_(codec) {}

    /// Remembers the parameter sets of an Annex-B blob (the codec configuration). Anything
    /// else (null, length-prefixed data) is ignored.
    void learn(const uint8_t *data, size_t size);

    /// Rewrites one Annex-B access unit (3- or 4-byte start codes) into *out and tells whether
    /// it is a key frame (IDR for H.264, IRAP for H.265). False when it holds no NAL unit.
    bool rewrite(const uint8_t *data, size_t size, std::vector<uint8_t> *out, bool *key);

  private:
    VideoCodec codec_;
    // The latest parameter sets by their place in front of a key frame: VPS, SPS, PPS.
    std::array<std::vector<std::vector<uint8_t>>, 3> sets_;
};

} // namespace camsim

#endif

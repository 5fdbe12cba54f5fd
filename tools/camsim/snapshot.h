/// Snapshots for the camera simulator: keeps the video since the latest key frame and, when
/// asked, decodes it and encodes the newest picture as a JPEG, as a camera's snapshot call
/// would return it.
///
/// Thread-safe: feed() runs on the thread that feeds the media, jpeg() on any other.
#ifndef VEXO_CAMSIM_SNAPSHOT_H
#define VEXO_CAMSIM_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "media_source.h"

namespace camsim {

class SnapshotEncoder {
  public:
    /// The codec is told from the first key frame fed (its leading parameter set).
    SnapshotEncoder() = default;
    /// video_codec: VEXO_CODEC_H264 or VEXO_CODEC_H265 (StreamParams::video_codec).
    explicit SnapshotEncoder(uint32_t video_codec) : video_codec_(video_codec) {}

    /// Keeps a video frame: a key frame starts a new group, other frames join the current
    /// one; audio frames and frames before the first key frame are ignored. One copy of the
    /// frame and a short lock, no decoding.
    void feed(const MediaFrame &frame);

    /// The newest picture fed, as a JPEG (baseline, 4:2:0). False with *error when no key
    /// frame was fed yet or nothing could be decoded.
    bool jpeg(std::vector<uint8_t> *out, std::string *error) const;

  private:
    using Unit = std::shared_ptr<const std::vector<uint8_t>>;

    mutable std::mutex mutex_;
    uint32_t video_codec_ = 0; // 0: not known yet
    std::vector<Unit> group_;  // access units from the latest key frame on
    size_t group_bytes_ = 0;
};

} // namespace camsim

#endif

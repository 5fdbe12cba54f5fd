// One stream of the host kit's media ring buffer: the frames of the last few seconds of stream
// time, each at a position of an ever-increasing index. Not locked: ring_buffer.cc holds its
// mutex around every call.
#ifndef VEXO_HOST_RING_STREAM_H
#define VEXO_HOST_RING_STREAM_H

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "vexo_ring_buffer.h"

namespace hostkit::ring {

/// Bytes one stream may hold, frame bytes plus kFrameOverhead per frame: a producer that
/// pushes faster than its time stamps advance cannot grow the kit without bound.
constexpr uint64_t kMaxStreamBytes = uint64_t{64} << 20;
/// What a frame costs beside its bytes, so that empty frames count too.
constexpr uint64_t kFrameOverhead = 64;

/// A frame as the ring keeps it. Shared with the readers that were handed it, so the ring can
/// drop a frame while a reader's caller still looks at its bytes.
struct Frame {
    uint32_t type = 0;
    uint32_t seq = 0;
    uint64_t pts = 0;
    uint64_t timestamp_ms = 0;
    uint32_t size = 0;
    /// At least one byte, so a reader never hands out a null pointer.
    std::unique_ptr<uint8_t[]> bytes;
};
using FramePtr = std::shared_ptr<const Frame>;

/// The longest pre-record the module accepts on a ring of ring_seconds: it refuses values from
/// the ring length minus two seconds up.
constexpr uint64_t longest_pre_record_ms(uint32_t ring_seconds) {
    return ring_seconds > 3 ? (uint64_t{ring_seconds} - 3) * 1000 : 0;
}

/// How far (ms of stream time) a reader's next frame may lag the newest before if_delay
/// reports it, when the options leave it open. Half a second short of the ring: a reader
/// anchored for the longest pre-record and stepped back to its key frame stays below it as
/// long as the stream's key frames are less than 2.5 s apart, so an event start is never
/// taken for a lag.
constexpr uint64_t default_lag_limit_ms(uint32_t ring_seconds) {
    const uint64_t span_ms = uint64_t{ring_seconds} * 1000;
    return span_ms >= 2000 ? span_ms - 500 : span_ms / 2;
}

class Stream {
  public:
    /// A stream holding at most span_ms of stream time (newest minus oldest time stamp).
    explicit Stream(uint64_t span_ms) : span_ms_(span_ms) {}

    /// Position of the oldest frame held; equals live_end() while the stream is empty.
    uint64_t oldest() const { return base_; }
    /// Position the next pushed frame gets.
    uint64_t live_end() const { return base_ + frames_.size(); }
    bool empty() const { return frames_.empty(); }
    /// The frame at a position in [oldest(), live_end()).
    const FramePtr &at(uint64_t position) const { return frames_[position - base_]; }
    /// The frame pushed last; the stream must not be empty.
    const Frame &newest() const { return *frames_.back(); }

    /// Appends a frame (its seq is set here) and drops what falls out at the old end: frames
    /// more than span_ms older than the newest, then the oldest while over kMaxStreamBytes.
    /// Time stamps that go backwards keep the older frames until the byte cap drops them.
    void push(std::unique_ptr<Frame> frame) {
        // The seq is the position cut to 32 bits: a stream's frames count up by one.
        frame->seq = static_cast<uint32_t>(live_end());
        bytes_ += cost(*frame);
        frames_.push_back(FramePtr(std::move(frame)));
        const uint64_t newest_ms = frames_.back()->timestamp_ms;
        while (frames_.size() > 1) {
            const uint64_t oldest_ms = frames_.front()->timestamp_ms;
            const bool too_old = newest_ms > oldest_ms && newest_ms - oldest_ms > span_ms_;
            if (!too_old && bytes_ <= kMaxStreamBytes) {
                break;
            }
            bytes_ -= cost(*frames_.front());
            frames_.pop_front();
            ++base_;
        }
    }

    /// The key frame at or before position (clamped to the frames held); when none is held
    /// there, the oldest key frame held. Nothing when the stream holds no key frame.
    std::optional<uint64_t> key_frame_near(uint64_t position) const {
        if (frames_.empty()) {
            return std::nullopt;
        }
        uint64_t from = position < base_ ? 0 : position - base_;
        if (from >= frames_.size()) {
            from = frames_.size() - 1;
        }
        for (uint64_t i = from + 1; i-- > 0;) {
            if (frames_[i]->type == VEXO_FRAME_I) {
                return base_ + i;
            }
        }
        for (uint64_t i = from + 1; i < frames_.size(); ++i) {
            if (frames_[i]->type == VEXO_FRAME_I) {
                return base_ + i;
            }
        }
        return std::nullopt;
    }

    /// Where a reader that fell behind is moved: the newest key frame held (in an audio stream
    /// every frame stands on its own, so its newest frame); live_end() when there is none.
    uint64_t catch_up_point() const {
        for (uint64_t i = frames_.size(); i-- > 0;) {
            const uint32_t type = frames_[i]->type;
            if (type == VEXO_FRAME_I || type == VEXO_FRAME_AUDIO) {
                return base_ + i;
            }
        }
        return live_end();
    }

    /// The first position whose frame is not older than timestamp_ms; live_end() when none.
    uint64_t first_not_older(uint64_t timestamp_ms) const {
        for (uint64_t i = 0; i < frames_.size(); ++i) {
            if (frames_[i]->timestamp_ms >= timestamp_ms) {
                return base_ + i;
            }
        }
        return live_end();
    }

    /// Set by ring_declare: until then the stream reports no buffer length.
    bool declared = false;
    /// The largest frame the producer said it pushes; -1 unknown.
    int32_t max_frame_size = -1;

  private:
    static uint64_t cost(const Frame &frame) { return uint64_t{frame.size} + kFrameOverhead; }

    uint64_t span_ms_;
    uint64_t base_ = 0;
    uint64_t bytes_ = 0;
    std::deque<FramePtr> frames_;
};

} // namespace hostkit::ring

#endif

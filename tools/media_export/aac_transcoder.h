// G.711 and PCM audio re-encoded as AAC with libavcodec's built-in encoder, for containers
// that cannot hold them (MP4). Time stamps follow the entries: a gap in the input becomes
// silence, so audio stays in step with the video.
#ifndef VEXO_MEDIA_AAC_TRANSCODER_H
#define VEXO_MEDIA_AAC_TRANSCODER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace vexo_tool {

class AacTranscoder {
  public:
    /// Receives each encoded packet, its times in encoder()->time_base.
    using Sink = std::function<void(AVPacket *packet)>;

    /// source_codec: kAudioPcm, kAudioMulaw or kAudioAlaw. Throws ToolError when the codecs
    /// cannot be set up (unknown code, rate or channel count out of range).
    AacTranscoder(int source_codec, int sample_rate, int channels, bool global_header);
    ~AacTranscoder();
    AacTranscoder(const AacTranscoder &) = delete;
    AacTranscoder &operator=(const AacTranscoder &) = delete;

    const AVCodecContext *encoder() const;

    /// Adds the samples of one entry that starts at pts_ms (relative to the recording). False
    /// when the bytes could not be decoded (the entry is skipped).
    bool push(const std::vector<uint8_t> &bytes, int64_t pts_ms, const Sink &sink);
    /// Encodes what is left and drains the encoder.
    void finish(const Sink &sink);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace vexo_tool

#endif

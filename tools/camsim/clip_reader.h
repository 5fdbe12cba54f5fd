/// One pass through a clip with libavformat: its video and audio packets as the frames a
/// camera's encoder would give (see annexb.h and adts.h), with their times on the file's clock.
/// Video is H.264 or H.265, audio AAC, G.711 (mu-law, A-law) or PCM s16le.
#ifndef VEXO_CAMSIM_CLIP_READER_H
#define VEXO_CAMSIM_CLIP_READER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct AVFormatContext;
struct AVStream;

namespace camsim {

constexpr int64_t kUsPerSecond = 1000000;

/// One frame of the clip.
struct ClipPacket {
    bool video = false;
    bool key = false;
    std::vector<uint8_t> data;
    int64_t time_us = 0; // presentation time in the file's clock
    int64_t duration_us = 0;
};

/// Bits per sample of an audio codec (VEXO_CODEC_*) as a camera reports them.
uint32_t audio_sample_bits(uint32_t code);

class ClipReader {
  public:
    /// Opens the clip and its video stream, and its audio stream unless use_audio is false.
    /// Null with *error set when the file cannot be opened or a stream is one a camera would
    /// not deliver.
    static std::unique_ptr<ClipReader> open(const std::string &path, bool use_audio,
                                            std::string *error);
    ~ClipReader();
    ClipReader(const ClipReader &) = delete;
    ClipReader &operator=(const ClipReader &) = delete;

    const AVFormatContext *format() const;
    const AVStream *video() const;
    /// Null when the clip has no audio or it is not used.
    const AVStream *audio() const;
    /// The audio stream's VEXO_CODEC_* code; 0 without audio.
    uint32_t audio_codec() const;

    /// The next frame of this pass. False at the end of the pass, with *damage saying why when
    /// the file could not be read to its end. Video before the first key frame is skipped.
    bool read(ClipPacket *packet, std::string *damage);

  private:
    class Impl;
    explicit ClipReader(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace camsim

#endif

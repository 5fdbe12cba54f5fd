/// The camera simulator's media input: reads a media file with libavformat and hands out its
/// frames the way a camera's encoder delivers them, looping the file forever.
///
/// Video is H.264 or H.265 as Annex-B access units (4-byte start codes); every key frame
/// starts with its parameter sets (SPS and PPS, for H.265 VPS, SPS and PPS) so that a
/// recording cut at any key frame decodes on its own. Access unit delimiters are dropped.
/// Audio is AAC as one ADTS frame per frame, or G.711 (mu-law, A-law) or PCM s16le as raw
/// bytes. The clip must not have B-frames: frames are handed out in presentation order.
///
/// Not thread-safe: one MediaSource is read by one thread.
#ifndef VEXO_CAMSIM_MEDIA_SOURCE_H
#define VEXO_CAMSIM_MEDIA_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vexo_media_info.h"

namespace camsim {

/// What a camera would report about its streams, measured on the clip when it is opened.
struct StreamParams {
    uint32_t video_codec = 0;  // VEXO_CODEC_H264 or VEXO_CODEC_H265
    uint32_t fps = 0;          // rounded frame rate
    uint32_t gop = 0;          // frames from one key frame to the next (the most common gap)
    uint32_t bitrate_kbps = 0; // video bytes x 8 / video duration, in 1000 bit/s, rounded up
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t duration_ms = 0;  // one pass through the clip; each loop adds this to the time
    uint64_t video_frames = 0; // frames handed out per pass
    uint64_t audio_frames = 0;
    uint32_t max_video_frame = 0; // bytes of the largest frame handed out, per stream
    uint32_t max_audio_frame = 0;

    bool has_audio = false;
    uint32_t audio_codec = 0;     // VEXO_CODEC_AAC, _G711U, _G711A or _PCM
    uint32_t sample_rate = 0;     // Hz
    uint32_t bits_per_sample = 0; // 16 for PCM and AAC, 8 for G.711
    uint32_t channels = 0;
    uint32_t audio_frame_ms = 0; // the most common audio frame duration, rounded
    uint32_t audio_fps = 0;      // audio frames per second, rounded

    /// Empty for a clean file. For a damaged one (cut short, unreadable packets), why the
    /// clip ends before the end of the file: the usable part before the fault is played.
    std::string damage;
};

/// One frame as the camera's encoder delivers it.
struct MediaFrame {
    bool video = false;
    bool key = false; // video key frame (IDR for H.264, IRAP for H.265)
    std::vector<uint8_t> data;
    /// The packet's presentation time stamp in ms from the start of the first pass; each
    /// loop adds the clip's duration, so time stamps keep increasing across loops. Strictly
    /// increasing within each stream.
    uint64_t time_ms = 0;
    /// The same instant on the 90 kHz clock (video_freq), for both streams.
    uint64_t pts = 0;
};

class MediaSource {
  public:
    /// Opens the clip and reads it once to measure its parameters. With use_audio false an
    /// audio stream is ignored (and so may be of any codec). Returns null with *error set
    /// when the file cannot be read, has no usable video or uses a codec a camera would not.
    static std::unique_ptr<MediaSource> open(const std::string &path, std::string *error,
                                             bool use_audio = true);
    ~MediaSource();
    MediaSource(const MediaSource &) = delete;
    MediaSource &operator=(const MediaSource &) = delete;

    const StreamParams &params() const;

    /// The next frame, video and audio merged in time order (video first on equal times).
    /// At the end of the clip it starts over from the beginning. False with *error set when
    /// the file can no longer be read.
    bool next(MediaFrame *frame, std::string *error);

  private:
    struct Impl;
    explicit MediaSource(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

/// Fills the record given to the module's init: main stream at index 0, audio channel at
/// index 9 (enabled only when there is audio). Other entries are zeroed.
void fill_media_info(const StreamParams &params, vexo_ipc_media_info_t *info);

} // namespace camsim

#endif

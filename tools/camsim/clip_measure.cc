// Clip measurement: frame rate from the container or the frame count, group of pictures and
// audio frame duration as the most common values, bit rate from the video bytes over the video
// duration, and the loop length from the earliest frame to the end of the latest.
#include "clip_measure.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include "vexo_media_info.h"

namespace camsim {
namespace {

constexpr uint32_t kMaxFps = 240;

// The most common value; on a tie the largest.
template <typename T> T most_common(const std::map<T, uint64_t> &counts) {
    T best{};
    uint64_t best_count = 0;
    for (const auto &entry : counts) {
        if (entry.second >= best_count) {
            best = entry.first;
            best_count = entry.second;
        }
    }
    return best;
}

/// What one pass through the clip counts, beside the largest frames and the audio frame
/// count that go straight into StreamParams.
struct Pass {
    uint64_t video_bytes = 0;
    uint64_t video_frames = 0;
    uint64_t last_key = 0;
    std::map<uint64_t, uint64_t> key_gaps;       // frames between key frames -> times seen
    std::map<int64_t, uint64_t> audio_durations; // us -> times seen
    int64_t start_us = INT64_MAX;
    int64_t end_us = INT64_MIN;
    int64_t video_start_us = INT64_MAX;
    int64_t video_end_us = INT64_MIN;
    int64_t last_video_us = INT64_MIN;

    int64_t video_us() const { return video_end_us - video_start_us; }
};

/// Counts one video frame; false with *error when it comes before the frame before it.
bool count_video(const ClipPacket &packet, const std::string &path, Pass *pass,
                 std::string *error) {
    if (packet.time_us < pass->last_video_us) {
        *error = path + ": video frames are not in presentation order (B-frames?); a camera "
                        "sends none (re-encode with -bf 0)";
        return false;
    }
    pass->last_video_us = packet.time_us;
    pass->video_start_us = std::min(pass->video_start_us, packet.time_us);
    pass->video_end_us = std::max(pass->video_end_us, packet.time_us + packet.duration_us);
    pass->video_bytes += packet.data.size();
    if (packet.key && pass->video_frames > 0) {
        ++pass->key_gaps[pass->video_frames - pass->last_key];
    }
    if (packet.key) {
        pass->last_key = pass->video_frames;
    }
    ++pass->video_frames;
    return true;
}

/// Reads the rest of the pass; false with *error when it holds no usable video.
bool read_pass(ClipReader *reader, const std::string &path, StreamParams *params, Pass *pass,
               std::string *error) {
    ClipPacket packet;
    while (reader->read(&packet, &params->damage)) {
        pass->start_us = std::min(pass->start_us, packet.time_us);
        pass->end_us = std::max(pass->end_us, packet.time_us + packet.duration_us);
        uint32_t size = static_cast<uint32_t>(std::min<size_t>(packet.data.size(), UINT32_MAX));
        uint32_t &largest = packet.video ? params->max_video_frame : params->max_audio_frame;
        largest = std::max(largest, size);
        if (!packet.video) {
            ++params->audio_frames;
            ++pass->audio_durations[packet.duration_us];
        } else if (!count_video(packet, path, pass, error)) {
            return false;
        }
    }
    if (pass->video_frames == 0) {
        *error = params->damage.empty() ? "no video key frame in " + path
                                        : "cannot read " + path + ": " + params->damage;
        return false;
    }
    return true;
}

/// The container's frame rate, or else frames over the video's duration (0 when neither).
double frame_rate(const AVStream *video, const Pass &pass) {
    const AVRational rate = video->avg_frame_rate.num > 0 && video->avg_frame_rate.den > 0
                                ? video->avg_frame_rate
                                : video->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) {
        return av_q2d(rate);
    }
    const int64_t video_us = pass.video_us();
    return video_us > 0 ? static_cast<double>(pass.video_frames) * kUsPerSecond / video_us : 0.0;
}

/// Video bytes over the video's duration, or else what the stream or the container declares.
uint64_t video_bits_per_second(const ClipReader &reader, const Pass &pass) {
    const int64_t video_us = pass.video_us();
    if (video_us > 0) {
        return (pass.video_bytes * 8 * kUsPerSecond + video_us - 1) / video_us;
    }
    if (reader.video()->codecpar->bit_rate > 0) {
        return static_cast<uint64_t>(reader.video()->codecpar->bit_rate);
    }
    if (reader.format()->bit_rate > 0) {
        return static_cast<uint64_t>(reader.format()->bit_rate);
    }
    return 0;
}

void set_video_params(const ClipReader &reader, const Pass &pass, double fps,
                      StreamParams *params) {
    const AVStream *video = reader.video();
    params->fps = static_cast<uint32_t>(std::lround(fps));
    params->gop = pass.key_gaps.empty() ? static_cast<uint32_t>(pass.video_frames)
                                        : static_cast<uint32_t>(most_common(pass.key_gaps));
    params->bitrate_kbps = static_cast<uint32_t>(
        std::min<uint64_t>((video_bits_per_second(reader, pass) + 999) / 1000, UINT32_MAX));
    params->video_codec =
        video->codecpar->codec_id == AV_CODEC_ID_H264 ? VEXO_CODEC_H264 : VEXO_CODEC_H265;
    params->width = static_cast<uint32_t>(video->codecpar->width);
    params->height = static_cast<uint32_t>(video->codecpar->height);
}

void set_audio_params(const ClipReader &reader, const Pass &pass, StreamParams *params) {
    const AVStream *audio = reader.audio();
    params->has_audio = audio != nullptr && params->audio_frames > 0;
    if (!params->has_audio) {
        return;
    }
    params->audio_codec = reader.audio_codec();
    params->sample_rate = static_cast<uint32_t>(audio->codecpar->sample_rate);
    params->bits_per_sample = audio_sample_bits(params->audio_codec);
    params->channels = static_cast<uint32_t>(audio->codecpar->ch_layout.nb_channels);
    const int64_t frame_us = std::max<int64_t>(most_common(pass.audio_durations), 1);
    params->audio_frame_ms =
        static_cast<uint32_t>(std::max<long>(1, std::lround(frame_us / 1000.0)));
    params->audio_fps =
        static_cast<uint32_t>(std::max<long>(1, std::lround(1e6 / static_cast<double>(frame_us))));
}

} // namespace

bool measure_clip(ClipReader *reader, const std::string &path, StreamParams *params,
                  ClipTimeline *timeline, std::string *error) {
    Pass pass;
    if (!read_pass(reader, path, params, &pass, error)) {
        return false;
    }
    params->video_frames = pass.video_frames;
    const double fps = frame_rate(reader->video(), pass);
    if (!(fps >= 0.5 && fps <= kMaxFps)) {
        *error = path + ": frame rate " + std::to_string(fps) + " is out of range";
        return false;
    }
    set_video_params(*reader, pass, fps, params);
    set_audio_params(*reader, pass, params);
    timeline->start_us = pass.start_us;
    // A clip of one frame without a duration still takes one frame's time per loop.
    timeline->loop_us =
        std::max<int64_t>(pass.end_us - pass.start_us, std::lround(kUsPerSecond / fps));
    params->duration_ms = static_cast<uint64_t>(timeline->loop_us / 1000);
    return true;
}

} // namespace camsim

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

} // namespace

bool measure_clip(ClipReader *reader, const std::string &path, StreamParams *params,
                  ClipTimeline *timeline, std::string *error) {
    uint64_t video_bytes = 0;
    uint64_t video_index = 0;
    uint64_t last_key = 0;
    std::map<uint64_t, uint64_t> key_gaps;
    std::map<int64_t, uint64_t> audio_durations;
    int64_t start_us = INT64_MAX;
    int64_t end_us = INT64_MIN;
    int64_t video_start_us = INT64_MAX;
    int64_t video_end_us = INT64_MIN;
    int64_t last_video_us = INT64_MIN;

    ClipPacket packet;
    while (reader->read(&packet, &params->damage)) {
        start_us = std::min(start_us, packet.time_us);
        end_us = std::max(end_us, packet.time_us + packet.duration_us);
        uint32_t size = static_cast<uint32_t>(std::min<size_t>(packet.data.size(), UINT32_MAX));
        uint32_t &largest = packet.video ? params->max_video_frame : params->max_audio_frame;
        largest = std::max(largest, size);
        if (!packet.video) {
            ++params->audio_frames;
            ++audio_durations[packet.duration_us];
            continue;
        }
        if (packet.time_us < last_video_us) {
            *error = path + ": video frames are not in presentation order (B-frames?); a camera "
                            "sends none (re-encode with -bf 0)";
            return false;
        }
        last_video_us = packet.time_us;
        video_start_us = std::min(video_start_us, packet.time_us);
        video_end_us = std::max(video_end_us, packet.time_us + packet.duration_us);
        video_bytes += packet.data.size();
        if (packet.key && video_index > 0) {
            ++key_gaps[video_index - last_key];
        }
        if (packet.key) {
            last_key = video_index;
        }
        ++video_index;
    }
    if (video_index == 0) {
        *error = params->damage.empty() ? "no video key frame in " + path
                                        : "cannot read " + path + ": " + params->damage;
        return false;
    }
    params->video_frames = video_index;

    const AVStream *video = reader->video();
    AVRational rate = video->avg_frame_rate.num > 0 && video->avg_frame_rate.den > 0
                          ? video->avg_frame_rate
                          : video->r_frame_rate;
    int64_t video_us = video_end_us - video_start_us;
    double fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate)
                 : video_us > 0 ? static_cast<double>(video_index) * kUsPerSecond / video_us
                                : 0.0;
    if (!(fps >= 0.5 && fps <= kMaxFps)) {
        *error = path + ": frame rate " + std::to_string(fps) + " is out of range";
        return false;
    }
    params->fps = static_cast<uint32_t>(std::lround(fps));
    params->gop = key_gaps.empty() ? static_cast<uint32_t>(video_index)
                                   : static_cast<uint32_t>(most_common(key_gaps));
    uint64_t bits_per_second = 0;
    if (video_us > 0) {
        bits_per_second = (video_bytes * 8 * kUsPerSecond + video_us - 1) / video_us;
    } else if (video->codecpar->bit_rate > 0) {
        bits_per_second = static_cast<uint64_t>(video->codecpar->bit_rate);
    } else if (reader->format()->bit_rate > 0) {
        bits_per_second = static_cast<uint64_t>(reader->format()->bit_rate);
    }
    params->bitrate_kbps =
        static_cast<uint32_t>(std::min<uint64_t>((bits_per_second + 999) / 1000, UINT32_MAX));
    params->video_codec =
        video->codecpar->codec_id == AV_CODEC_ID_H264 ? VEXO_CODEC_H264 : VEXO_CODEC_H265;
    params->width = static_cast<uint32_t>(video->codecpar->width);
    params->height = static_cast<uint32_t>(video->codecpar->height);

    const AVStream *audio = reader->audio();
    params->has_audio = audio != nullptr && params->audio_frames > 0;
    if (params->has_audio) {
        params->audio_codec = reader->audio_codec();
        params->sample_rate = static_cast<uint32_t>(audio->codecpar->sample_rate);
        params->bits_per_sample = audio_sample_bits(params->audio_codec);
        params->channels = static_cast<uint32_t>(audio->codecpar->ch_layout.nb_channels);
        int64_t frame_us = std::max<int64_t>(most_common(audio_durations), 1);
        params->audio_frame_ms =
            static_cast<uint32_t>(std::max<long>(1, std::lround(frame_us / 1000.0)));
        params->audio_fps = static_cast<uint32_t>(
            std::max<long>(1, std::lround(1e6 / static_cast<double>(frame_us))));
    }

    timeline->start_us = start_us;
    // A clip of one frame without a duration still takes one frame's time per loop.
    timeline->loop_us = std::max<int64_t>(end_us - start_us, std::lround(kUsPerSecond / fps));
    params->duration_ms = static_cast<uint64_t>(timeline->loop_us / 1000);
    return true;
}

} // namespace camsim

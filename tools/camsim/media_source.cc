// The source plays the clip over and over: one pass through the file per loop, each loop's
// times shifted by the clip's duration, video and audio merged in time order. At open the clip
// is read once to measure what a camera would report.
#include "media_source.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>

#include "clip_measure.h"
#include "clip_reader.h"
#include "vexo_ring_buffer.h"

namespace camsim {
namespace {

// Frames held back while waiting for a frame of the other stream, so that the two streams come
// out in time order even when the file interleaves them loosely.
constexpr size_t kMaxQueued = 1024;
constexpr uint32_t kVideoClockHz = 90000;

} // namespace

struct MediaSource::Impl {
    std::string path;
    bool use_audio = true;
    StreamParams params;
    ClipTimeline timeline;
    std::unique_ptr<ClipReader> input;
    uint64_t loop = 0;
    uint64_t frames_this_pass = 0;
    bool pass_ended = false;
    std::deque<MediaFrame> video_queue;
    std::deque<MediaFrame> audio_queue;
    int64_t last_video_ms = -1;
    int64_t last_audio_ms = -1;

    // Turns a packet into a frame on the source's clock: from the clip's first frame, plus
    // one clip duration per loop, strictly increasing within each stream.
    void push(ClipPacket *packet) {
        int64_t us = std::max<int64_t>(packet->time_us - timeline.start_us, 0) +
                     static_cast<int64_t>(loop) * timeline.loop_us;
        int64_t ms = us / 1000;
        int64_t &last = packet->video ? last_video_ms : last_audio_ms;
        if (ms <= last) {
            ms = last + 1;
            us = ms * 1000;
        }
        last = ms;
        MediaFrame frame;
        frame.video = packet->video;
        frame.key = packet->key;
        frame.data = std::move(packet->data);
        frame.time_ms = static_cast<uint64_t>(ms);
        frame.pts = static_cast<uint64_t>(us) * kVideoClockHz / kUsPerSecond;
        (packet->video ? video_queue : audio_queue).push_back(std::move(frame));
        ++frames_this_pass;
    }

    // Reads ahead until both streams have a frame waiting (or the pass ends).
    void fill() {
        while (!pass_ended && (video_queue.empty() || (params.has_audio && audio_queue.empty())) &&
               video_queue.size() + audio_queue.size() < kMaxQueued) {
            ClipPacket packet;
            std::string damage;
            if (!input->read(&packet, &damage)) {
                pass_ended = true;
                break;
            }
            if (packet.video || params.has_audio) {
                push(&packet);
            }
        }
    }

    bool start_next_pass(std::string *error) {
        if (frames_this_pass == 0) {
            *error = path + " gave no frames on this pass";
            return false;
        }
        std::string why;
        input = ClipReader::open(path, use_audio, &why);
        if (!input) {
            *error = "cannot read " + path + " again: " + why;
            return false;
        }
        ++loop;
        frames_this_pass = 0;
        pass_ended = false;
        return true;
    }
};

MediaSource::MediaSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

MediaSource::~MediaSource() = default;

std::unique_ptr<MediaSource> MediaSource::open(const std::string &path, std::string *error,
                                               bool use_audio) {
    auto impl = std::make_unique<Impl>();
    impl->path = path;
    impl->use_audio = use_audio;
    std::unique_ptr<ClipReader> scan = ClipReader::open(path, use_audio, error);
    if (!scan || !measure_clip(scan.get(), path, &impl->params, &impl->timeline, error)) {
        return nullptr;
    }
    impl->input = ClipReader::open(path, use_audio, error);
    if (!impl->input) {
        return nullptr;
    }
    return std::unique_ptr<MediaSource>(new MediaSource(std::move(impl)));
}

const StreamParams &MediaSource::params() const {
    return impl_->params;
}

bool MediaSource::next(MediaFrame *frame, std::string *error) {
    for (;;) {
        impl_->fill();
        auto &video = impl_->video_queue;
        auto &audio = impl_->audio_queue;
        if (!video.empty() && (audio.empty() || video.front().time_ms <= audio.front().time_ms)) {
            *frame = std::move(video.front());
            video.pop_front();
            return true;
        }
        if (!audio.empty()) {
            *frame = std::move(audio.front());
            audio.pop_front();
            return true;
        }
        if (!impl_->start_next_pass(error)) {
            return false;
        }
    }
}

void fill_media_info(const StreamParams &params, vexo_ipc_media_info_t *info) {
    std::memset(info, 0, sizeof *info);
    info->channel_enable[VEXO_STREAM_MAIN] = 1;
    info->video_fps[VEXO_STREAM_MAIN] = params.fps;
    info->video_gop[VEXO_STREAM_MAIN] = params.gop;
    info->video_bitrate[VEXO_STREAM_MAIN] = params.bitrate_kbps;
    info->video_width[VEXO_STREAM_MAIN] = params.width;
    info->video_height[VEXO_STREAM_MAIN] = params.height;
    info->video_freq[VEXO_STREAM_MAIN] = kVideoClockHz;
    info->video_codec[VEXO_STREAM_MAIN] = params.video_codec;
    if (!params.has_audio) {
        return;
    }
    info->channel_enable[VEXO_STREAM_AUDIO] = 1;
    info->audio_codec[VEXO_STREAM_AUDIO] = params.audio_codec;
    info->audio_fps[VEXO_STREAM_AUDIO] = params.audio_fps;
    info->audio_sample[VEXO_STREAM_AUDIO] = params.sample_rate;
    info->audio_databits[VEXO_STREAM_AUDIO] = params.bits_per_sample;
    info->audio_channel[VEXO_STREAM_AUDIO] = params.channels;
}

} // namespace camsim

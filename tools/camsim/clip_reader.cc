// Demuxing a clip with libavformat. Video of MP4/MKV input (length-prefixed) goes through the
// mp4toannexb filters first, then every access unit through the Annex-B rewrite; AAC is wrapped
// in ADTS headers; G.711 and PCM pass as they are. Packets without time stamps (raw streams)
// follow the previous packet of their stream.
#include "clip_reader.h"

#include <climits>
#include <deque>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include "adts.h"
#include "annexb.h"
#include "libav_handles.h"
#include "vexo_media_info.h"

namespace camsim {
namespace {

constexpr AVRational kUsTimeBase = {1, 1000000};
constexpr int64_t kNoTimestamp = INT64_MIN; // AV_NOPTS_VALUE
// Time stamps beyond about 35 years are damage; the bound keeps all time arithmetic in range.
constexpr int64_t kMaxTimeUs = int64_t{1} << 50;

using FormatPtr = libav::InputPtr;
using libav::BsfPtr;
using libav::PacketPtr;

uint32_t audio_codec_code(AVCodecID id) {
    switch (id) {
    case AV_CODEC_ID_AAC:
        return VEXO_CODEC_AAC;
    case AV_CODEC_ID_PCM_MULAW:
        return VEXO_CODEC_G711U;
    case AV_CODEC_ID_PCM_ALAW:
        return VEXO_CODEC_G711A;
    case AV_CODEC_ID_PCM_S16LE:
        return VEXO_CODEC_PCM;
    default:
        return 0;
    }
}

} // namespace

class ClipReader::Impl {
  public:
    const AVFormatContext *format() const { return format_.get(); }
    const AVStream *video() const { return video_; }
    const AVStream *audio() const { return audio_; }
    uint32_t audio_code() const { return audio_code_; }

    bool read(ClipPacket *packet, std::string *damage) {
        while (ready_.empty() && !ended_) {
            int rc = av_read_frame(format_.get(), packet_.get());
            if (rc < 0) {
                if (rc != AVERROR_EOF) {
                    fail("read error: " + libav::error_text(rc));
                } else {
                    take_video(nullptr);
                }
                ended_ = true;
                continue;
            }
            if ((packet_->flags & AV_PKT_FLAG_CORRUPT) != 0) {
                fail("corrupt packet at byte " + std::to_string(packet_->pos));
            } else if (video_ != nullptr && packet_->stream_index == video_->index) {
                take_video(packet_.get());
            } else if (audio_ != nullptr && packet_->stream_index == audio_->index) {
                take_audio(packet_.get());
            }
            av_packet_unref(packet_.get());
        }
        *damage = damage_;
        if (ready_.empty()) {
            return false;
        }
        *packet = std::move(ready_.front());
        ready_.pop_front();
        return true;
    }

    bool setup(const std::string &path, bool use_audio, std::string *error) {
        AVFormatContext *raw = nullptr;
        int rc = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
        if (rc < 0) {
            *error = "cannot open " + path + ": " + libav::error_text(rc);
            return false;
        }
        format_.reset(raw);
        rc = avformat_find_stream_info(format_.get(), nullptr);
        if (rc < 0) {
            *error = "cannot read the streams of " + path + ": " + libav::error_text(rc);
            return false;
        }
        packet_.reset(av_packet_alloc());
        if (!packet_) {
            *error = "out of memory";
            return false;
        }
        if (!setup_video(path, error) || (use_audio && !setup_audio(path, error))) {
            return false;
        }
        for (unsigned i = 0; i < format_->nb_streams; ++i) {
            AVStream *stream = format_->streams[i];
            if (stream != video_ && stream != audio_) {
                stream->discard = AVDISCARD_ALL;
            }
        }
        return true;
    }

  private:
    bool setup_video(const std::string &path, std::string *error) {
        int index = av_find_best_stream(format_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (index < 0) {
            *error = "no video stream in " + path;
            return false;
        }
        video_ = format_->streams[index];
        const AVCodecParameters *par = video_->codecpar;
        if (par->codec_id != AV_CODEC_ID_H264 && par->codec_id != AV_CODEC_ID_HEVC) {
            *error = "unsupported video codec " + std::string(avcodec_get_name(par->codec_id)) +
                     " in " + path + " (a camera delivers h264 or hevc)";
            return false;
        }
        if (par->width <= 0 || par->height <= 0) {
            *error = "the video stream of " + path + " has no picture size";
            return false;
        }
        codec_ = par->codec_id == AV_CODEC_ID_H264 ? VideoCodec::h264 : VideoCodec::h265;
        writer_ = AccessUnitWriter(codec_);
        AVRational rate = video_->avg_frame_rate.num > 0 && video_->avg_frame_rate.den > 0
                              ? video_->avg_frame_rate
                              : video_->r_frame_rate;
        if (rate.num > 0 && rate.den > 0) {
            frame_us_ = av_rescale_q(1, av_inv_q(rate), kUsTimeBase);
        }
        // Length-prefixed input (MP4, MKV) has an avcC/hvcC configuration starting with 1.
        if (par->extradata_size >= 7 && par->extradata[0] == 1) {
            return setup_filter(path, error);
        }
        writer_.learn(par->extradata, static_cast<size_t>(par->extradata_size));
        return true;
    }

    bool setup_filter(const std::string &path, std::string *error) {
        const char *name = codec_ == VideoCodec::h264 ? "h264_mp4toannexb" : "hevc_mp4toannexb";
        const AVBitStreamFilter *filter = av_bsf_get_by_name(name);
        AVBSFContext *raw = nullptr;
        int rc = filter != nullptr ? av_bsf_alloc(filter, &raw) : AVERROR_BSF_NOT_FOUND;
        bsf_.reset(raw);
        if (rc >= 0) {
            rc = avcodec_parameters_copy(bsf_->par_in, video_->codecpar);
        }
        if (rc >= 0) {
            bsf_->time_base_in = video_->time_base;
            rc = av_bsf_init(bsf_.get());
        }
        if (rc < 0) {
            *error = std::string("cannot convert the video of ") + path + " with " + name + ": " +
                     libav::error_text(rc);
            return false;
        }
        writer_.learn(bsf_->par_out->extradata, static_cast<size_t>(bsf_->par_out->extradata_size));
        return true;
    }

    bool setup_audio(const std::string &path, std::string *error) {
        int index =
            av_find_best_stream(format_.get(), AVMEDIA_TYPE_AUDIO, -1, video_->index, nullptr, 0);
        if (index < 0) {
            return true;
        }
        audio_ = format_->streams[index];
        const AVCodecParameters *par = audio_->codecpar;
        audio_code_ = audio_codec_code(par->codec_id);
        if (audio_code_ == 0) {
            *error = "unsupported audio codec " + std::string(avcodec_get_name(par->codec_id)) +
                     " in " + path +
                     " (a camera delivers aac, pcm_mulaw, pcm_alaw or pcm_s16le; "
                     "or leave the audio out)";
            return false;
        }
        if (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0) {
            *error = "the audio stream of " + path + " has no sample rate or channel count";
            return false;
        }
        if (audio_code_ == VEXO_CODEC_AAC && par->extradata_size > 0) {
            std::string why;
            if (!parse_audio_config(par->extradata, static_cast<size_t>(par->extradata_size),
                                    &adts_, &why)) {
                *error = path + ": " + why;
                return false;
            }
            have_adts_config_ = true;
        }
        return true;
    }

    void fail(const std::string &why) {
        if (damage_.empty()) {
            damage_ = why;
        }
        ended_ = true;
    }

    // Presentation time of a packet; when the file has none (raw streams), the previous
    // packet's time plus its duration. False (and the pass ends) for a time stamp or duration
    // out of any sane range, which only a damaged or hostile file has.
    bool stamp(const AVPacket *pkt, const AVStream *stream, int64_t fallback_duration_us,
               int64_t *next_us, ClipPacket *out) {
        int64_t ts = pkt->pts != kNoTimestamp ? pkt->pts : pkt->dts;
        out->time_us =
            ts != kNoTimestamp ? av_rescale_q(ts, stream->time_base, kUsTimeBase) : *next_us;
        out->duration_us = pkt->duration > 0
                               ? av_rescale_q(pkt->duration, stream->time_base, kUsTimeBase)
                               : fallback_duration_us;
        if (out->time_us < -kMaxTimeUs || out->time_us > kMaxTimeUs || out->duration_us < 0 ||
            out->duration_us > kMaxTimeUs) {
            fail("time stamp out of range at byte " + std::to_string(pkt->pos));
            return false;
        }
        *next_us = out->time_us + out->duration_us;
        return true;
    }

    // Passes a video packet (null: the end of the file) through the filter, if any.
    void take_video(AVPacket *pkt) {
        if (!bsf_) {
            if (pkt != nullptr) {
                emit_video(pkt);
            }
            return;
        }
        int64_t pos = pkt != nullptr ? pkt->pos : -1;
        int rc = av_bsf_send_packet(bsf_.get(), pkt);
        AVPacket *out = packet_.get();
        while (rc >= 0) {
            rc = av_bsf_receive_packet(bsf_.get(), out);
            if (rc >= 0) {
                emit_video(out);
                av_packet_unref(out);
            }
        }
        if (rc != AVERROR(EAGAIN) && rc != AVERROR_EOF) {
            fail("video packet at byte " + std::to_string(pos) +
                 " cannot be converted: " + libav::error_text(rc));
        }
    }

    void emit_video(const AVPacket *pkt) {
        if (pkt->data == nullptr || pkt->size <= 0) {
            return;
        }
        ClipPacket out;
        out.video = true;
        if (!writer_.rewrite(pkt->data, static_cast<size_t>(pkt->size), &out.data, &out.key)) {
            return;
        }
        if (!stamp(pkt, video_, frame_us_, &next_video_us_, &out) || (!out.key && !seen_key_)) {
            return;
        }
        seen_key_ = true;
        ready_.push_back(std::move(out));
    }

    void take_audio(const AVPacket *pkt) {
        if (pkt->data == nullptr || pkt->size <= 0) {
            return;
        }
        const AVCodecParameters *par = audio_->codecpar;
        size_t size = static_cast<size_t>(pkt->size);
        ClipPacket out;
        int64_t samples = 0;
        if (audio_code_ == VEXO_CODEC_AAC) {
            samples = par->frame_size > 0 ? par->frame_size : 1024;
            std::string why;
            if (!to_adts_frame(pkt->data, size, have_adts_config_ ? &adts_ : nullptr, &out.data,
                               &why)) {
                fail("AAC frame at byte " + std::to_string(pkt->pos) + " " + why);
                return;
            }
        } else {
            uint32_t bytes_per_sample = audio_sample_bits(audio_code_) / 8;
            samples = static_cast<int64_t>(
                size / (bytes_per_sample * static_cast<uint32_t>(par->ch_layout.nb_channels)));
            out.data.assign(pkt->data, pkt->data + size);
        }
        int64_t fallback_us = samples * kUsPerSecond / par->sample_rate;
        if (!stamp(pkt, audio_, fallback_us, &next_audio_us_, &out)) {
            return;
        }
        ready_.push_back(std::move(out));
    }

    FormatPtr format_;
    PacketPtr packet_;
    BsfPtr bsf_;
    AVStream *video_ = nullptr;
    AVStream *audio_ = nullptr;
    VideoCodec codec_ = VideoCodec::h264;
    AccessUnitWriter writer_{VideoCodec::h264};
    uint32_t audio_code_ = 0;
    AdtsConfig adts_;
    bool have_adts_config_ = false;
    int64_t frame_us_ = 40000;
    int64_t next_video_us_ = 0;
    int64_t next_audio_us_ = 0;
    bool seen_key_ = false;
    bool ended_ = false;
    std::string damage_;
    std::deque<ClipPacket> ready_;
};

uint32_t audio_sample_bits(uint32_t code) {
    return code == VEXO_CODEC_G711U || code == VEXO_CODEC_G711A ? 8 : 16;
}

ClipReader::ClipReader(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

ClipReader::~ClipReader() = default;

std::unique_ptr<ClipReader> ClipReader::open(const std::string &path, bool use_audio,
                                             std::string *error) {
    auto impl = std::make_unique<Impl>();
    if (!impl->setup(path, use_audio, error)) {
        return nullptr;
    }
    return std::unique_ptr<ClipReader>(new ClipReader(std::move(impl)));
}

const AVFormatContext *ClipReader::format() const {
    return impl_->format();
}

const AVStream *ClipReader::video() const {
    return impl_->video();
}

const AVStream *ClipReader::audio() const {
    return impl_->audio();
}

uint32_t ClipReader::audio_codec() const {
    return impl_->audio_code();
}

bool ClipReader::read(ClipPacket *packet, std::string *damage) {
    return impl_->read(packet, damage);
}

} // namespace camsim

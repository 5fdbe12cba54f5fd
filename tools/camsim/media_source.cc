// Reads a clip with libavformat and turns its packets into camera frames: video through the
// mp4toannexb filters (for MP4/MKV input) and a rewrite that puts the parameter sets in front
// of every key frame; AAC wrapped in ADTS headers; G.711 and PCM as they are. The clip is read
// once at open to measure what a camera would report, then once per loop.
#include "media_source.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include "vexo_ring_buffer.h"

namespace camsim {
namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr AVRational kUsTimeBase = {1, 1000000};
// Frames held back while waiting for a frame of the other stream, so that the two streams come
// out in time order even when the file interleaves them loosely.
constexpr size_t kMaxQueued = 1024;
constexpr uint32_t kMaxFps = 240;
constexpr uint32_t kVideoClockHz = 90000;
constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
constexpr size_t kAdtsHeaderSize = 7;
constexpr size_t kAdtsMaxFrame = 8191; // 13-bit frame length field
constexpr uint32_t kAdtsSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                         22050, 16000, 12000, 11025, 8000,  7350};
constexpr int64_t kNoTimestamp = INT64_MIN; // AV_NOPTS_VALUE
// Time stamps beyond about 35 years are damage; the bound keeps all time arithmetic in range.
constexpr int64_t kMaxTimeUs = int64_t{1} << 50;

// ---- libav ownership ----

struct FormatCloser {
    void operator()(AVFormatContext *ctx) const { avformat_close_input(&ctx); }
};
struct BsfFreer {
    void operator()(AVBSFContext *ctx) const { av_bsf_free(&ctx); }
};
struct PacketFreer {
    void operator()(AVPacket *pkt) const { av_packet_free(&pkt); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;

std::string av_error_text(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return text;
}

// ---- Annex-B access units ----

enum class VideoCodec { h264, h265 };

// One NAL unit inside a buffer, without its start code.
struct Nal {
    const uint8_t *data;
    size_t size;
};

// Splits an Annex-B byte stream at its 3- and 4-byte start codes. A NAL unit never ends in a
// zero byte, so zeros before a start code are the start code's or trailing padding.
std::vector<Nal> split_annexb(const uint8_t *data, size_t size) {
    std::vector<Nal> nals;
    bool inside = false;
    size_t begin = 0;
    auto close_at = [&](size_t end) {
        while (end > begin && data[end - 1] == 0) {
            --end;
        }
        if (inside && end > begin) {
            nals.push_back({data + begin, end - begin});
        }
    };
    size_t i = 0;
    while (i + 3 <= size) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            close_at(i);
            i += 3;
            begin = i;
            inside = true;
        } else {
            ++i;
        }
    }
    close_at(size);
    return nals;
}

bool looks_like_annexb(const uint8_t *data, size_t size) {
    return (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) ||
           (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1);
}

int nal_type(VideoCodec codec, const Nal &nal) {
    return codec == VideoCodec::h264 ? (nal.data[0] & 0x1F) : ((nal.data[0] >> 1) & 0x3F);
}

// Position of a parameter set in front of a key frame (VPS, SPS, PPS), or -1.
int parameter_set_slot(VideoCodec codec, int type) {
    if (codec == VideoCodec::h264) {
        return type == 7 ? 1 : type == 8 ? 2 : -1;
    }
    return type >= 32 && type <= 34 ? type - 32 : -1;
}

bool is_key_nal(VideoCodec codec, int type) {
    return codec == VideoCodec::h264 ? type == 5 : (type >= 16 && type <= 23);
}

bool is_delimiter(VideoCodec codec, int type) {
    return codec == VideoCodec::h264 ? type == 9 : type == 35;
}

void append_nal(const uint8_t *data, size_t size, std::vector<uint8_t> *out) {
    out->insert(out->end(), kStartCode, kStartCode + sizeof kStartCode);
    out->insert(out->end(), data, data + size);
}

// Rewrites access units into what a camera delivers: 4-byte start codes, no delimiters, and on
// every key frame the parameter sets first: the frame's own, else the latest ones seen in the
// stream or in the codec configuration.
class AccessUnitWriter {
  public:
    explicit AccessUnitWriter(VideoCodec codec) : codec_(codec) {}

    // Remembers the parameter sets of an Annex-B blob (the codec configuration).
    void learn(const uint8_t *data, size_t size) {
        if (data != nullptr && looks_like_annexb(data, size)) {
            remember(split_annexb(data, size));
        }
    }

    // False when the packet holds no NAL unit.
    bool rewrite(const uint8_t *data, size_t size, std::vector<uint8_t> *out, bool *key) {
        std::vector<Nal> nals = split_annexb(data, size);
        if (nals.empty()) {
            return false;
        }
        remember(nals);
        *key = false;
        for (const Nal &nal : nals) {
            *key = *key || is_key_nal(codec_, nal_type(codec_, nal));
        }
        out->clear();
        out->reserve(size + 64);
        if (*key) {
            for (const auto &slot : sets_) {
                for (const auto &set : slot) {
                    append_nal(set.data(), set.size(), out);
                }
            }
        }
        for (const Nal &nal : nals) {
            int type = nal_type(codec_, nal);
            if (is_delimiter(codec_, type) || (*key && parameter_set_slot(codec_, type) >= 0)) {
                continue;
            }
            append_nal(nal.data, nal.size, out);
        }
        return true;
    }

  private:
    void remember(const std::vector<Nal> &nals) {
        std::array<std::vector<std::vector<uint8_t>>, 3> found;
        for (const Nal &nal : nals) {
            int slot = parameter_set_slot(codec_, nal_type(codec_, nal));
            if (slot >= 0) {
                found[slot].emplace_back(nal.data, nal.data + nal.size);
            }
        }
        for (size_t slot = 0; slot < found.size(); ++slot) {
            if (!found[slot].empty()) {
                sets_[slot] = std::move(found[slot]);
            }
        }
    }

    VideoCodec codec_;
    std::array<std::vector<std::vector<uint8_t>>, 3> sets_;
};

// ---- AAC in ADTS ----

class BitReader {
  public:
    BitReader(const uint8_t *data, size_t size) : data_(data), bits_(size * 8) {}
    bool read(int count, uint32_t *value) {
        if (bits_ - pos_ < static_cast<size_t>(count)) {
            return false;
        }
        uint32_t v = 0;
        for (int i = 0; i < count; ++i, ++pos_) {
            v = (v << 1) | ((data_[pos_ / 8] >> (7 - pos_ % 8)) & 1u);
        }
        *value = v;
        return true;
    }

  private:
    const uint8_t *data_;
    size_t bits_;
    size_t pos_ = 0;
};

struct AdtsConfig {
    uint32_t profile = 0;    // audio object type - 1
    uint32_t rate_index = 0; // into kAdtsSampleRates
    uint32_t channel_config = 0;
};

bool read_object_type(BitReader *bits, uint32_t *type) {
    if (!bits->read(5, type)) {
        return false;
    }
    uint32_t extended = 0;
    if (*type == 31) {
        if (!bits->read(6, &extended)) {
            return false;
        }
        *type = 32 + extended;
    }
    return true;
}

// The 4-bit index, or an explicit 24-bit rate that must be one ADTS can name.
bool read_rate_index(BitReader *bits, uint32_t *index) {
    if (!bits->read(4, index)) {
        return false;
    }
    if (*index != 15) {
        return *index < sizeof kAdtsSampleRates / sizeof kAdtsSampleRates[0];
    }
    uint32_t rate = 0;
    if (!bits->read(24, &rate)) {
        return false;
    }
    for (uint32_t i = 0; i < sizeof kAdtsSampleRates / sizeof kAdtsSampleRates[0]; ++i) {
        if (kAdtsSampleRates[i] == rate) {
            *index = i;
            return true;
        }
    }
    return false;
}

// Reads an AudioSpecificConfig (MP4/MKV codec configuration) into the fields of an ADTS
// header. HE-AAC signals its core (AAC-LC) object type, as ADTS streams do.
bool parse_audio_config(const uint8_t *data, size_t size, AdtsConfig *config, std::string *error) {
    BitReader bits(data, size);
    uint32_t type = 0;
    uint32_t rate_index = 0;
    uint32_t channels = 0;
    if (!read_object_type(&bits, &type) || !read_rate_index(&bits, &rate_index) ||
        !bits.read(4, &channels)) {
        *error = "the AAC configuration is cut short or names a sample rate ADTS cannot carry";
        return false;
    }
    if (type == 5 || type == 29) {
        uint32_t extension_rate = 0;
        if (!read_rate_index(&bits, &extension_rate) || !read_object_type(&bits, &type)) {
            *error = "the HE-AAC configuration is cut short";
            return false;
        }
    }
    if (type < 1 || type > 4) {
        *error = "AAC object type " + std::to_string(type) + " cannot be carried in ADTS";
        return false;
    }
    if (channels < 1 || channels > 7) {
        *error =
            "AAC channel configuration " + std::to_string(channels) + " cannot be carried in ADTS";
        return false;
    }
    config->profile = type - 1;
    config->rate_index = rate_index;
    config->channel_config = channels;
    return true;
}

size_t adts_frame_length(const uint8_t *data) {
    return (static_cast<size_t>(data[3] & 0x03) << 11) | (static_cast<size_t>(data[4]) << 3) |
           (data[5] >> 5);
}

bool is_adts_frame(const uint8_t *data, size_t size) {
    return size >= kAdtsHeaderSize && data[0] == 0xFF && (data[1] & 0xF6) == 0xF0 &&
           adts_frame_length(data) == size;
}

// 7-byte header without CRC, MPEG-4, buffer fullness 0x7FF (variable rate), one raw block.
void write_adts_header(const AdtsConfig &config, size_t frame_length, uint8_t *header) {
    header[0] = 0xFF;
    header[1] = 0xF1;
    header[2] = static_cast<uint8_t>((config.profile << 6) | (config.rate_index << 2) |
                                     (config.channel_config >> 2));
    header[3] = static_cast<uint8_t>(((config.channel_config & 3) << 6) | (frame_length >> 11));
    header[4] = static_cast<uint8_t>((frame_length >> 3) & 0xFF);
    header[5] = static_cast<uint8_t>(((frame_length & 7) << 5) | 0x1F);
    header[6] = 0xFC;
}

// ---- codecs ----

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

// Bits per sample as a camera reports them.
uint32_t audio_sample_bits(uint32_t code) {
    return code == VEXO_CODEC_G711U || code == VEXO_CODEC_G711A ? 8 : 16;
}

// ---- one pass through the file ----

struct Packet {
    bool video = false;
    bool key = false;
    std::vector<uint8_t> data;
    int64_t time_us = 0; // presentation time in the file's clock
    int64_t duration_us = 0;
};

class Input {
  public:
    static std::unique_ptr<Input> open(const std::string &path, bool use_audio,
                                       std::string *error) {
        std::unique_ptr<Input> input(new Input());
        return input->setup(path, use_audio, error) ? std::move(input) : nullptr;
    }

    const AVFormatContext *format() const { return format_.get(); }
    const AVStream *video() const { return video_; }
    const AVStream *audio() const { return audio_; }

    // The next frame of this pass. False at the end of the pass, with *damage saying why when
    // the file could not be read to its end. Video before the first key frame is skipped.
    bool read(Packet *packet, std::string *damage) {
        while (ready_.empty() && !ended_) {
            int rc = av_read_frame(format_.get(), packet_.get());
            if (rc < 0) {
                if (rc != AVERROR_EOF) {
                    fail("read error: " + av_error_text(rc));
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

  private:
    Input() = default;

    bool setup(const std::string &path, bool use_audio, std::string *error) {
        AVFormatContext *raw = nullptr;
        int rc = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
        if (rc < 0) {
            *error = "cannot open " + path + ": " + av_error_text(rc);
            return false;
        }
        format_.reset(raw);
        rc = avformat_find_stream_info(format_.get(), nullptr);
        if (rc < 0) {
            *error = "cannot read the streams of " + path + ": " + av_error_text(rc);
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
                     av_error_text(rc);
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
               int64_t *next_us, Packet *out) {
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
                 " cannot be converted: " + av_error_text(rc));
        }
    }

    void emit_video(const AVPacket *pkt) {
        if (pkt->data == nullptr || pkt->size <= 0) {
            return;
        }
        Packet out;
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
        Packet out;
        int64_t samples = 0;
        if (audio_code_ == VEXO_CODEC_AAC) {
            samples = par->frame_size > 0 ? par->frame_size : 1024;
            if (is_adts_frame(pkt->data, size)) {
                out.data.assign(pkt->data, pkt->data + size);
            } else if (!have_adts_config_) {
                fail("AAC frame at byte " + std::to_string(pkt->pos) +
                     " has neither an ADTS header nor a codec configuration");
                return;
            } else if (size + kAdtsHeaderSize > kAdtsMaxFrame) {
                fail("AAC frame at byte " + std::to_string(pkt->pos) + " is too large for ADTS");
                return;
            } else {
                out.data.resize(kAdtsHeaderSize + size);
                write_adts_header(adts_, out.data.size(), out.data.data());
                std::memcpy(out.data.data() + kAdtsHeaderSize, pkt->data, size);
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
    std::deque<Packet> ready_;
};

// ---- measuring the clip ----

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

struct Timeline {
    int64_t start_us = 0; // earliest frame of the clip
    int64_t loop_us = 0;  // from the earliest frame to the end of the latest
};

bool measure(Input *input, const std::string &path, StreamParams *params, Timeline *timeline,
             std::string *error) {
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

    Packet packet;
    while (input->read(&packet, &params->damage)) {
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

    const AVStream *video = input->video();
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
    } else if (input->format()->bit_rate > 0) {
        bits_per_second = static_cast<uint64_t>(input->format()->bit_rate);
    }
    params->bitrate_kbps =
        static_cast<uint32_t>(std::min<uint64_t>((bits_per_second + 999) / 1000, UINT32_MAX));
    params->video_codec =
        video->codecpar->codec_id == AV_CODEC_ID_H264 ? VEXO_CODEC_H264 : VEXO_CODEC_H265;
    params->width = static_cast<uint32_t>(video->codecpar->width);
    params->height = static_cast<uint32_t>(video->codecpar->height);

    const AVStream *audio = input->audio();
    params->has_audio = audio != nullptr && params->audio_frames > 0;
    if (params->has_audio) {
        params->audio_codec = audio_codec_code(audio->codecpar->codec_id);
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

} // namespace

// ---- the source ----

struct MediaSource::Impl {
    std::string path;
    bool use_audio = true;
    StreamParams params;
    Timeline timeline;
    std::unique_ptr<Input> input;
    uint64_t loop = 0;
    uint64_t frames_this_pass = 0;
    bool pass_ended = false;
    std::deque<MediaFrame> video_queue;
    std::deque<MediaFrame> audio_queue;
    int64_t last_video_ms = -1;
    int64_t last_audio_ms = -1;

    // Turns a packet into a frame on the source's clock: from the clip's first frame, plus
    // one clip duration per loop, strictly increasing within each stream.
    void push(Packet *packet) {
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
            Packet packet;
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
        input = Input::open(path, use_audio, &why);
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
    std::unique_ptr<Input> scan = Input::open(path, use_audio, error);
    if (!scan || !measure(scan.get(), path, &impl->params, &impl->timeline, error)) {
        return nullptr;
    }
    impl->input = Input::open(path, use_audio, error);
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

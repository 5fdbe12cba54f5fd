// Decode (pcm_s16le, pcm_mulaw, pcm_alaw) -> resample to the encoder's format and rate
// (libswresample) -> frames of the encoder's size (an audio FIFO) -> AAC.
#include "aac_transcoder.h"

#include <algorithm>
#include <string>

#include "libav_handles.h"
#include "payload_info.h"
#include "tool_error.h"

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace vexo_tool {
namespace {

/// A jump in the input larger than this is filled with silence; a smaller one is jitter.
constexpr int64_t kGapMs = 100;
/// Gaps up to this are filled with silence; beyond it the time stamps jump instead.
constexpr int64_t kMaxFillMs = 10000;

/// Out of memory ends the command; anything else the codecs refuse comes from what the
/// recording announced or holds, a fault of the recording.
void check(int result, const char *what) {
    if (result < 0) {
        throw ToolError(std::string("audio transcoding (") + what +
                            "): " + libav::error_text(result),
                        result == AVERROR(ENOMEM) ? kExitError : kExitFault);
    }
}

AVCodecID decoder_id(int source_codec) {
    switch (source_codec) {
    case kAudioPcm:
        return AV_CODEC_ID_PCM_S16LE;
    case kAudioMulaw:
        return AV_CODEC_ID_PCM_MULAW;
    case kAudioAlaw:
        return AV_CODEC_ID_PCM_ALAW;
    default:
        throw ToolError("audio codec " + std::to_string(source_codec) + " cannot be transcoded",
                        kExitFault);
    }
}

/// The rate itself when the encoder takes it, else the nearest higher rate it takes.
int encoder_rate(const AVCodec *codec, int rate) {
    if (codec->supported_samplerates == nullptr) {
        return rate;
    }
    int best = 0;
    for (const int *r = codec->supported_samplerates; *r != 0; ++r) {
        if (*r == rate) {
            return rate;
        }
        if (*r > rate && (best == 0 || *r < best)) {
            best = *r;
        }
    }
    return best != 0 ? best : 48000;
}

} // namespace

struct AacTranscoder::State {
    libav::CodecPtr decoder;
    libav::CodecPtr encoder;
    libav::ResamplerPtr resampler;
    libav::AudioFifoPtr fifo;
    libav::FramePtr decoded;
    libav::PacketPtr packet;
    bool started = false;
    int64_t next_pts = 0; // encoder samples: time stamp of the first sample in the fifo

    int channels() const { return encoder->ch_layout.nb_channels; }

    void encode(AVFrame *frame, const Sink &sink) {
        check(avcodec_send_frame(encoder.get(), frame), "encode");
        for (;;) {
            const int got = avcodec_receive_packet(encoder.get(), packet.get());
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) {
                return;
            }
            check(got, "encode");
            sink(packet.get());
            av_packet_unref(packet.get());
        }
    }

    /// Encodes whole frames from the fifo; with final, also the short rest.
    void drain_fifo(const Sink &sink, bool final) {
        const int frame_size = encoder->frame_size > 0 ? encoder->frame_size : 1024;
        while (av_audio_fifo_size(fifo.get()) >= frame_size ||
               (final && av_audio_fifo_size(fifo.get()) > 0)) {
            const int count = std::min(frame_size, av_audio_fifo_size(fifo.get()));
            libav::FramePtr frame(av_frame_alloc());
            if (!frame) {
                throw ToolError("out of memory");
            }
            frame->nb_samples = count;
            frame->format = encoder->sample_fmt;
            frame->sample_rate = encoder->sample_rate;
            check(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout), "layout");
            check(av_frame_get_buffer(frame.get(), 0), "frame");
            if (av_audio_fifo_read(fifo.get(), reinterpret_cast<void **>(frame->data), count) !=
                count) {
                throw ToolError("audio transcoding: fifo read");
            }
            frame->pts = next_pts;
            next_pts += count;
            encode(frame.get(), sink);
        }
    }

    void write_silence(int64_t samples) {
        libav::FramePtr silence(av_frame_alloc());
        if (!silence) {
            throw ToolError("out of memory");
        }
        silence->nb_samples = static_cast<int>(samples);
        silence->format = encoder->sample_fmt;
        check(av_channel_layout_copy(&silence->ch_layout, &encoder->ch_layout), "layout");
        check(av_frame_get_buffer(silence.get(), 0), "silence");
        check(av_samples_set_silence(silence->data, 0, silence->nb_samples, channels(),
                                     encoder->sample_fmt),
              "silence");
        check(av_audio_fifo_write(fifo.get(), reinterpret_cast<void **>(silence->data),
                                  silence->nb_samples),
              "fifo");
    }

    /// Lines the fifo up with an entry that starts at pts_ms.
    void align(int64_t pts_ms, const Sink &sink) {
        const int rate = encoder->sample_rate;
        const int64_t wanted = pts_ms * rate / 1000;
        if (!started) {
            next_pts = wanted;
            started = true;
            return;
        }
        const int64_t position = next_pts + av_audio_fifo_size(fifo.get());
        const int64_t gap = wanted - position;
        if (gap <= kGapMs * rate / 1000) {
            return;
        }
        if (gap <= kMaxFillMs * rate / 1000) {
            write_silence(gap);
            return;
        }
        // A long break: finish the current frame with silence and restart the clock.
        const int frame_size = encoder->frame_size > 0 ? encoder->frame_size : 1024;
        const int rest = av_audio_fifo_size(fifo.get()) % frame_size;
        if (rest != 0) {
            write_silence(frame_size - rest);
        }
        drain_fifo(sink, false);
        next_pts = wanted;
    }

    void convert(const AVFrame *in) {
        const int room = swr_get_out_samples(resampler.get(), in != nullptr ? in->nb_samples : 0);
        check(room, "resample");
        if (room == 0) {
            return;
        }
        libav::FramePtr out(av_frame_alloc());
        if (!out) {
            throw ToolError("out of memory");
        }
        out->nb_samples = room;
        out->format = encoder->sample_fmt;
        check(av_channel_layout_copy(&out->ch_layout, &encoder->ch_layout), "layout");
        check(av_frame_get_buffer(out.get(), 0), "resample");
        const int converted =
            swr_convert(resampler.get(), out->data, room,
                        in != nullptr ? const_cast<const uint8_t **>(in->extended_data) : nullptr,
                        in != nullptr ? in->nb_samples : 0);
        check(converted, "resample");
        check(av_audio_fifo_write(fifo.get(), reinterpret_cast<void **>(out->data), converted),
              "fifo");
    }
};

AacTranscoder::AacTranscoder(int source_codec, int sample_rate, int channels, bool global_header)
    : state_(std::make_unique<State>()) {
    if (sample_rate < 1000 || sample_rate > 192000 || channels < 1 || channels > 8) {
        throw ToolError("audio of " + std::to_string(sample_rate) + " Hz and " +
                            std::to_string(channels) + " channels cannot be transcoded",
                        kExitFault);
    }
    State &s = *state_;
    const AVCodec *decoder = avcodec_find_decoder(decoder_id(source_codec));
    const AVCodec *encoder = avcodec_find_encoder_by_name("aac");
    if (decoder == nullptr || encoder == nullptr) {
        throw ToolError("this libavcodec lacks the PCM decoder or the aac encoder");
    }
    s.decoder.reset(avcodec_alloc_context3(decoder));
    s.encoder.reset(avcodec_alloc_context3(encoder));
    s.decoded.reset(av_frame_alloc());
    s.packet.reset(av_packet_alloc());
    if (!s.decoder || !s.encoder || !s.decoded || !s.packet) {
        throw ToolError("out of memory");
    }
    s.decoder->sample_rate = sample_rate;
    av_channel_layout_default(&s.decoder->ch_layout, channels);
    check(avcodec_open2(s.decoder.get(), decoder, nullptr), "decoder");

    s.encoder->sample_rate = encoder_rate(encoder, sample_rate);
    s.encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    av_channel_layout_default(&s.encoder->ch_layout, channels);
    s.encoder->bit_rate = std::min<int64_t>(64000, s.encoder->sample_rate * 4) * channels;
    s.encoder->time_base = AVRational{1, s.encoder->sample_rate};
    if (global_header) {
        s.encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    check(avcodec_open2(s.encoder.get(), encoder, nullptr), "encoder");

    SwrContext *resampler = nullptr;
    check(swr_alloc_set_opts2(&resampler, &s.encoder->ch_layout, s.encoder->sample_fmt,
                              s.encoder->sample_rate, &s.decoder->ch_layout, s.decoder->sample_fmt,
                              sample_rate, 0, nullptr),
          "resampler");
    s.resampler.reset(resampler);
    check(swr_init(resampler), "resampler");
    s.fifo.reset(av_audio_fifo_alloc(s.encoder->sample_fmt, channels, 4096));
    if (!s.fifo) {
        throw ToolError("out of memory");
    }
}

AacTranscoder::~AacTranscoder() = default;

const AVCodecContext *AacTranscoder::encoder() const {
    return state_->encoder.get();
}

bool AacTranscoder::push(const std::vector<uint8_t> &bytes, int64_t pts_ms, const Sink &sink) {
    State &s = *state_;
    const int block = s.decoder->ch_layout.nb_channels *
                      std::max(1, av_get_bits_per_sample(s.decoder->codec_id) / 8);
    const size_t usable = bytes.size() - bytes.size() % static_cast<size_t>(block);
    if (usable == 0) {
        return false;
    }
    s.align(pts_ms, sink);
    libav::PacketPtr packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(usable)) < 0) {
        throw ToolError("out of memory");
    }
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(usable), packet->data);
    if (avcodec_send_packet(s.decoder.get(), packet.get()) < 0) {
        return false;
    }
    for (;;) {
        const int got = avcodec_receive_frame(s.decoder.get(), s.decoded.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) {
            break;
        }
        if (got < 0) {
            return false;
        }
        s.convert(s.decoded.get());
        av_frame_unref(s.decoded.get());
    }
    s.drain_fifo(sink, false);
    return true;
}

void AacTranscoder::finish(const Sink &sink) {
    State &s = *state_;
    s.convert(nullptr);
    s.drain_fifo(sink, true);
    s.encode(nullptr, sink);
}

} // namespace vexo_tool

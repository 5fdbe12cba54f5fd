// Owning handles for FFmpeg objects and FFmpeg's error text, shared by the host tools.
#ifndef VEXO_TOOLS_LIBAV_HANDLES_H
#define VEXO_TOOLS_LIBAV_HANDLES_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace libav {

struct InputCloser {
    void operator()(AVFormatContext *ctx) const { avformat_close_input(&ctx); }
};
struct CodecFreer {
    void operator()(AVCodecContext *ctx) const { avcodec_free_context(&ctx); }
};
struct FrameFreer {
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketFreer {
    void operator()(AVPacket *pkt) const { av_packet_free(&pkt); }
};
struct BsfFreer {
    void operator()(AVBSFContext *ctx) const { av_bsf_free(&ctx); }
};
struct ScalerFreer {
    void operator()(SwsContext *ctx) const { sws_freeContext(ctx); }
};
struct ResamplerFreer {
    void operator()(SwrContext *ctx) const { swr_free(&ctx); }
};
struct AudioFifoFreer {
    void operator()(AVAudioFifo *fifo) const { av_audio_fifo_free(fifo); }
};

/// An opened input (avformat_open_input); closed with avformat_close_input.
using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFreer>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerFreer>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerFreer>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoFreer>;

/// FFmpeg's text for an error code.
inline std::string error_text(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return text;
}

} // namespace libav

#endif

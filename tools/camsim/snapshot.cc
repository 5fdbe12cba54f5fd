// Snapshot pictures: the kept group of pictures is decoded with libavcodec from its key frame
// on, the last picture out of the decoder is converted to full-range 4:2:0 with libswscale and
// encoded with the MJPEG encoder. The decoding runs outside the lock, on a copy of the list of
// access units, so feeding never waits for a snapshot.
#include "snapshot.h"

#include <climits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include "libav_handles.h"

namespace camsim {
namespace {

// A group longer than this (a clip with very rare key frames) stops growing: the snapshot then
// shows the last picture that fitted.
constexpr size_t kMaxGroupBytes = 64u << 20;
// MJPEG quantiser scale: 2 (best) .. 31.
constexpr int kJpegQuantiser = 3;

using libav::CodecPtr;
using libav::FramePtr;
using libav::PacketPtr;
using libav::ScalerPtr;

// Single-threaded codec contexts: a snapshot is one small picture, and libavcodec's own
// threads would only add start-up cost.
CodecPtr open_codec(const AVCodec *codec, void (*configure)(AVCodecContext *, const AVFrame *),
                    const AVFrame *picture, std::string *error) {
    CodecPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) {
        *error = "out of memory";
        return nullptr;
    }
    ctx->thread_count = 1;
    if (configure != nullptr) {
        configure(ctx.get(), picture);
    }
    int rc = avcodec_open2(ctx.get(), codec, nullptr);
    if (rc < 0) {
        *error = std::string("cannot open the ") + codec->name + " codec: " + libav::error_text(rc);
        return nullptr;
    }
    return ctx;
}

// Decodes the group from its key frame on and keeps the last picture that comes out.
template <typename Units>
bool decode_newest(AVCodecID codec_id, const Units &units, AVFrame *newest, std::string *error) {
    const AVCodec *codec = avcodec_find_decoder(codec_id);
    if (codec == nullptr) {
        *error = std::string("no ") + avcodec_get_name(codec_id) + " decoder";
        return false;
    }
    CodecPtr ctx = open_codec(codec, nullptr, nullptr, error);
    if (!ctx) {
        return false;
    }
    PacketPtr pkt(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!pkt || !frame) {
        *error = "out of memory";
        return false;
    }
    bool got = false;
    auto drain = [&]() {
        while (avcodec_receive_frame(ctx.get(), frame.get()) >= 0) {
            av_frame_unref(newest);
            av_frame_move_ref(newest, frame.get());
            got = true;
        }
    };
    for (const auto &unit : units) {
        if (unit->empty() || unit->size() > static_cast<size_t>(INT_MAX)) {
            continue;
        }
        // Not reference-counted: the decoder copies it into a padded buffer of its own.
        pkt->data = const_cast<uint8_t *>(unit->data());
        pkt->size = static_cast<int>(unit->size());
        // A damaged access unit is skipped; the pictures that do decode still count.
        while (avcodec_send_packet(ctx.get(), pkt.get()) == AVERROR(EAGAIN)) {
            drain();
        }
        drain();
    }
    avcodec_send_packet(ctx.get(), nullptr);
    drain();
    if (!got) {
        *error = "no picture could be decoded from the latest key frame on";
    }
    return got;
}

void configure_jpeg(AVCodecContext *ctx, const AVFrame *picture) {
    ctx->width = picture->width;
    ctx->height = picture->height;
    ctx->pix_fmt = AV_PIX_FMT_YUV420P;
    ctx->color_range = AVCOL_RANGE_JPEG;
    ctx->time_base = AVRational{1, 25};
    ctx->flags |= AV_CODEC_FLAG_QSCALE;
    ctx->global_quality = FF_QP2LAMBDA * kJpegQuantiser;
}

// Full-range 4:2:0, what a JPEG holds (the planar layout of yuvj420p, without libswscale's
// deprecated range-in-the-format variant).
bool to_jpeg_range(const AVFrame *picture, AVFrame *yuv, std::string *error) {
    ScalerPtr scaler(sws_getContext(picture->width, picture->height,
                                    static_cast<AVPixelFormat>(picture->format), picture->width,
                                    picture->height, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr,
                                    nullptr, nullptr));
    if (!scaler) {
        *error = "cannot convert a " + std::to_string(picture->width) + "x" +
                 std::to_string(picture->height) + " picture to JPEG's pixel format";
        return false;
    }
    const int *coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    int source_full_range = picture->color_range == AVCOL_RANGE_JPEG ? 1 : 0;
    sws_setColorspaceDetails(scaler.get(), coefficients, source_full_range, coefficients, 1, 0,
                             1 << 16, 1 << 16);
    yuv->format = AV_PIX_FMT_YUV420P;
    yuv->color_range = AVCOL_RANGE_JPEG;
    yuv->width = picture->width;
    yuv->height = picture->height;
    int rc = av_frame_get_buffer(yuv, 0);
    if (rc < 0) {
        *error = "cannot allocate a picture: " + libav::error_text(rc);
        return false;
    }
    sws_scale(scaler.get(), picture->data, picture->linesize, 0, picture->height, yuv->data,
              yuv->linesize);
    return true;
}

bool encode_jpeg(const AVFrame *picture, std::vector<uint8_t> *out, std::string *error) {
    FramePtr yuv(av_frame_alloc());
    if (!yuv) {
        *error = "out of memory";
        return false;
    }
    if (!to_jpeg_range(picture, yuv.get(), error)) {
        return false;
    }

    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (codec == nullptr) {
        *error = "no MJPEG encoder";
        return false;
    }
    CodecPtr ctx = open_codec(codec, configure_jpeg, picture, error);
    if (!ctx) {
        return false;
    }
    PacketPtr pkt(av_packet_alloc());
    if (!pkt) {
        *error = "out of memory";
        return false;
    }
    yuv->pts = 0;
    yuv->quality = ctx->global_quality;
    int rc = avcodec_send_frame(ctx.get(), yuv.get());
    if (rc >= 0) {
        rc = avcodec_send_frame(ctx.get(), nullptr);
    }
    if (rc >= 0) {
        rc = avcodec_receive_packet(ctx.get(), pkt.get());
    }
    if (rc < 0) {
        *error = "JPEG encoding failed: " + libav::error_text(rc);
        return false;
    }
    out->assign(pkt->data, pkt->data + pkt->size);
    return true;
}

// The codec of a key frame from its first NAL unit: an H.265 VPS, SPS or PPS has a two-byte
// header whose second byte holds the temporal id (1..7 on the base layer), where an H.264 SPS
// has its profile (66 and up).
uint32_t codec_of_key_frame(const std::vector<uint8_t> &data) {
    size_t at = data.size() >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1 ? 4
                : data.size() >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1               ? 3
                                                                                   : 0;
    if (at == 0 || data.size() < at + 2) {
        return 0;
    }
    int h265_type = (data[at] >> 1) & 0x3F;
    if (h265_type >= 32 && h265_type <= 34 && data[at + 1] >= 1 && data[at + 1] <= 7) {
        return VEXO_CODEC_H265;
    }
    return (data[at] & 0x1F) == 7 ? VEXO_CODEC_H264 : 0;
}

} // namespace

void SnapshotEncoder::feed(const MediaFrame &frame) {
    if (!frame.video) {
        return;
    }
    auto unit = std::make_shared<const std::vector<uint8_t>>(frame.data);
    std::lock_guard<std::mutex> lock(mutex_);
    if (frame.key) {
        if (video_codec_ == 0) {
            video_codec_ = codec_of_key_frame(frame.data);
        }
        group_.clear();
        group_bytes_ = 0;
    } else if (group_.empty() || group_bytes_ + unit->size() > kMaxGroupBytes) {
        return;
    }
    group_bytes_ += unit->size();
    group_.push_back(std::move(unit));
}

bool SnapshotEncoder::jpeg(std::vector<uint8_t> *out, std::string *error) const {
    std::vector<Unit> units;
    uint32_t video_codec = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        units = group_;
        video_codec = video_codec_;
    }
    if (units.empty()) {
        *error = "no key frame yet";
        return false;
    }
    if (video_codec != VEXO_CODEC_H264 && video_codec != VEXO_CODEC_H265) {
        *error =
            "the video is neither H.264 nor H.265 (codec code " + std::to_string(video_codec) + ")";
        return false;
    }
    FramePtr picture(av_frame_alloc());
    if (!picture) {
        *error = "out of memory";
        return false;
    }
    AVCodecID codec = video_codec == VEXO_CODEC_H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
    return decode_newest(codec, units, picture.get(), error) &&
           encode_jpeg(picture.get(), out, error);
}

} // namespace camsim

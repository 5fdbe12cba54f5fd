/// Decoding one key frame with libavcodec, scaling it with libswscale and encoding it with
/// the MJPEG encoder.
#include "thumbnail.h"

#include "libav_handles.h"
#include "payload_info.h"
#include "recording_files.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace vexo_playback {
namespace {

/// Key frames the search tries before giving up on a recording.
constexpr int kMaxKeyFrames = 8;

/// The decoded picture of one key frame (parameter sets in front); null when it does not
/// decode.
libav::FramePtr decode_key_frame(AVCodecID codec_id, const std::vector<uint8_t> &access_unit) {
    const AVCodec *codec = avcodec_find_decoder(codec_id);
    libav::CodecPtr decoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    libav::PacketPtr packet(av_packet_alloc());
    libav::FramePtr frame(av_frame_alloc());
    if (!decoder || !packet || !frame || avcodec_open2(decoder.get(), codec, nullptr) < 0 ||
        access_unit.size() > INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE ||
        av_new_packet(packet.get(), static_cast<int>(access_unit.size())) < 0) {
        return nullptr;
    }
    std::copy(access_unit.begin(), access_unit.end(), packet->data);
    packet->flags |= AV_PKT_FLAG_KEY;
    if (avcodec_send_packet(decoder.get(), packet.get()) < 0 ||
        avcodec_send_packet(decoder.get(), nullptr) < 0) {
        return nullptr;
    }
    if (avcodec_receive_frame(decoder.get(), frame.get()) < 0 || frame->width <= 0 ||
        frame->height <= 0) {
        return nullptr;
    }
    return frame;
}

/// frame scaled to at most kThumbnailWidth wide (even sizes) and encoded as JPEG.
std::vector<uint8_t> encode_jpeg(const AVFrame &frame) {
    int width = std::min(frame.width, kThumbnailWidth);
    int height = static_cast<int>(static_cast<int64_t>(frame.height) * width / frame.width);
    width = std::max(2, width & ~1);
    height = std::max(2, height & ~1);
    libav::ScalerPtr scaler(
        sws_getContext(frame.width, frame.height, static_cast<AVPixelFormat>(frame.format), width,
                       height, AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    libav::FramePtr scaled(av_frame_alloc());
    if (!scaler || !scaled) {
        return {};
    }
    scaled->format = AV_PIX_FMT_YUVJ420P;
    scaled->width = width;
    scaled->height = height;
    if (av_frame_get_buffer(scaled.get(), 0) < 0 ||
        sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, scaled->data,
                  scaled->linesize) <= 0) {
        return {};
    }
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    libav::CodecPtr encoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    libav::PacketPtr packet(av_packet_alloc());
    if (!encoder || !packet) {
        return {};
    }
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = AVRational{1, 25};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * 4;
    scaled->quality = encoder->global_quality;
    scaled->pts = 0;
    if (avcodec_open2(encoder.get(), codec, nullptr) < 0 ||
        avcodec_send_frame(encoder.get(), scaled.get()) < 0 ||
        avcodec_send_frame(encoder.get(), nullptr) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
        return {};
    }
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
}

} // namespace

Built build_thumbnail(const vexo_cloud::Service &service,
                      const vexo_cloud::PlaybackSource &source) {
    Built result;
    vexo_tool::PayloadInfo info;
    const std::optional<vexo_media::Key> key = recording_key(source);
    if (!vexo_tool::parse_payload_info(source.payload_info, &info, &result.error)) {
        return result;
    }
    if (info.video_codec != vexo_tool::kVideoH264 && info.video_codec != vexo_tool::kVideoH265) {
        result.error = "the recording's video codec cannot be decoded";
        return result;
    }
    if (!key) {
        result.error = "the recording's key is not known";
        return result;
    }
    const AVCodecID codec =
        info.video_codec == vexo_tool::kVideoH265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    const vexo_tool::MediaFiles files = recording_files(service, source);
    int tried = 0;
    for (size_t i = 0; i < files.names.size() && tried < kMaxKeyFrames; ++i) {
        std::vector<vexo_media::Entry> entries;
        vexo_media::Fault fault;
        if (!vexo_tool::read_entries(files, i, &entries, &fault)) {
            result.faults.push_back(fault);
        }
        for (const vexo_media::Entry &entry : entries) {
            std::vector<uint8_t> plain;
            if (entry.type != vexo_media::kTypeKey ||
                !vexo_media::plain_payload(*key, entry, &plain)) {
                continue;
            }
            ++tried;
            if (const libav::FramePtr frame = decode_key_frame(codec, plain)) {
                result.bytes = encode_jpeg(*frame);
                result.ok = !result.bytes.empty();
                if (result.ok) {
                    return result;
                }
            }
            if (tried >= kMaxKeyFrames) {
                break;
            }
        }
    }
    result.error = "no key frame of the recording decodes";
    return result;
}

} // namespace vexo_playback

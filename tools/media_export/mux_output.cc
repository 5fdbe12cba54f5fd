// libavformat output for the export.
#include "mux_output.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "libav_handles.h"
#include "tool_error.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace vexo_tool {
namespace {

constexpr AVRational kMillisecond = {1, 1000};

const char *format_name(Container container) {
    switch (container) {
    case Container::kMp4:
        return "mp4";
    case Container::kMkv:
        return "matroska";
    case Container::kMpegTs:
        break;
    }
    return "mpegts";
}

} // namespace

const char *container_extension(Container container) {
    switch (container) {
    case Container::kMp4:
        return "mp4";
    case Container::kMkv:
        return "mkv";
    case Container::kMpegTs:
        break;
    }
    return "ts";
}

MuxOutput::MuxOutput(const std::string &path, Container container) : path_(path) {
    const int result = avformat_alloc_output_context2(&context_, nullptr, format_name(container),
                                                      path.empty() ? nullptr : path.c_str());
    if (result < 0 || context_ == nullptr) {
        throw ToolError("cannot set up " + label() + ": " + libav::error_text(result));
    }
}

MuxOutput::~MuxOutput() {
    if (opened_) {
        close_io();
    }
    avformat_free_context(context_);
}

std::string MuxOutput::label() const {
    return path_.empty() ? std::string("the output in memory") : path_;
}

void MuxOutput::close_io() {
    if (context_->pb == nullptr) {
        return;
    }
    if (!path_.empty()) {
        avio_closep(&context_->pb);
        return;
    }
    uint8_t *data = nullptr;
    const int size = avio_close_dyn_buf(context_->pb, &data);
    context_->pb = nullptr;
    if (data != nullptr && size > 0) {
        bytes_.assign(data, data + size);
    }
    av_free(data);
}

std::vector<uint8_t> MuxOutput::take_bytes() {
    return std::move(bytes_);
}

bool MuxOutput::wants_global_header() const {
    return (context_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
}

void MuxOutput::check(int result, const char *what) const {
    if (result >= 0) {
        return;
    }
    // The file or the machine failing is an error of the command; the muxer refusing what the
    // recording holds (stream parameters, parameter sets) is a fault of the recording.
    const bool io_failed = (context_->pb != nullptr && context_->pb->error < 0) ||
                           result == AVERROR(ENOMEM) || result == AVERROR(EIO) ||
                           result == AVERROR(ENOSPC);
    if (io_failed) {
        throw ToolError("cannot write " + label() + " (" + what +
                        "): " + libav::error_text(result));
    }
    throw ToolError("the " + std::string(context_->oformat->name) + " muxer refused the " + what +
                        " of this recording: " + libav::error_text(result),
                    kExitFault);
}

int MuxOutput::add_copied(const CopiedTrack &track) {
    AVStream *stream = avformat_new_stream(context_, nullptr);
    if (stream == nullptr) {
        throw ToolError("cannot add a stream to " + label());
    }
    AVCodecParameters *par = stream->codecpar;
    par->codec_type = track.type;
    par->codec_id = track.codec;
    if (track.type == AVMEDIA_TYPE_VIDEO) {
        par->width = track.width;
        par->height = track.height;
        if (track.fps > 0) {
            stream->avg_frame_rate = AVRational{track.fps, 1};
        }
    } else {
        par->sample_rate = track.sample_rate;
        av_channel_layout_default(&par->ch_layout, track.channels);
        par->bits_per_coded_sample = track.bits_per_sample;
        if (track.bits_per_sample > 0) {
            par->block_align = track.channels * track.bits_per_sample / 8;
        }
    }
    if (!track.extradata.empty()) {
        par->extradata = static_cast<uint8_t *>(
            av_mallocz(track.extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (par->extradata == nullptr) {
            throw ToolError("out of memory");
        }
        std::copy(track.extradata.begin(), track.extradata.end(), par->extradata);
        par->extradata_size = static_cast<int>(track.extradata.size());
    }
    stream->time_base = kMillisecond;
    return stream->index;
}

int MuxOutput::add_encoded(const AVCodecContext *encoder) {
    AVStream *stream = avformat_new_stream(context_, nullptr);
    if (stream == nullptr) {
        throw ToolError("cannot add a stream to " + label());
    }
    check(avcodec_parameters_from_context(stream->codecpar, encoder), "stream parameters");
    stream->time_base = encoder->time_base;
    return stream->index;
}

void MuxOutput::open() {
    const int opened = path_.empty() ? avio_open_dyn_buf(&context_->pb)
                                     : avio_open(&context_->pb, path_.c_str(), AVIO_FLAG_WRITE);
    if (opened < 0) {
        throw ToolError("cannot open " + label() + " for writing: " + libav::error_text(opened));
    }
    opened_ = true;
    check(avformat_write_header(context_, nullptr), "stream header");
}

bool MuxOutput::write_ms(int stream, const uint8_t *data, size_t size, int64_t pts_ms,
                         int64_t duration_ms, bool key) {
    libav::PacketPtr packet(av_packet_alloc());
    if (!packet || size > INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE ||
        av_new_packet(packet.get(), static_cast<int>(size)) < 0) {
        throw ToolError("out of memory for a packet of " + std::to_string(size) + " bytes");
    }
    std::copy(data, data + size, packet->data);
    packet->pts = pts_ms;
    packet->dts = pts_ms;
    packet->duration = duration_ms;
    if (key) {
        packet->flags |= AV_PKT_FLAG_KEY;
    }
    return write_packet(stream, packet.get(), kMillisecond);
}

bool MuxOutput::write_packet(int stream, AVPacket *packet, AVRational time_base) {
    packet->stream_index = stream;
    av_packet_rescale_ts(packet, time_base, context_->streams[stream]->time_base);
    const int result = av_interleaved_write_frame(context_, packet);
    if (result >= 0) {
        return true;
    }
    // A failure of the file itself ends the export; a packet the muxer (or its bitstream
    // filter) refuses for its content is the caller's to report.
    if (context_->pb != nullptr && context_->pb->error < 0) {
        check(context_->pb->error, "packet");
    }
    if (result == AVERROR(ENOMEM)) {
        check(result, "packet");
    }
    return false;
}

void MuxOutput::finish() {
    check(av_interleaved_write_frame(context_, nullptr), "flush");
    check(av_write_trailer(context_), "stream index");
    if (context_->pb != nullptr && !path_.empty()) {
        check(avio_closep(&context_->pb), "close");
    }
    close_io();
    opened_ = false;
}

} // namespace vexo_tool

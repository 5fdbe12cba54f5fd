#include "tests/camsim/clip_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

#include "libav_handles.h"

namespace camsim_test {
namespace {

// libav's messages about the damaged clips some tests make would drown the test output.
[[maybe_unused]] const bool kQuietLibav = [] {
    av_log_set_level(AV_LOG_FATAL);
    return true;
}();

std::string quote(const std::string &text) {
    return "'" + text + "'";
}

// Standard output of a shell command; empty when it fails.
std::string command_output(const std::string &command) {
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    std::string out;
    if (!pipe) {
        return out;
    }
    char buf[256];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, pipe.get())) > 0) {
        out.append(buf, n);
    }
    return out;
}

} // namespace

bool make_clip(const std::string &args, const std::string &output) {
    std::string log = output + ".log";
    std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " " +
                          quote(output) + " >" + quote(log) + " 2>&1";
    if (std::system(command.c_str()) == 0) {
        return true;
    }
    std::ifstream in(log);
    ADD_FAILURE() << "ffmpeg failed (the tests need the ffmpeg CLI with libx264 and libx265):\n"
                  << command << "\n"
                  << in.rdbuf();
    return false;
}

uint64_t ffprobe_packets(const std::string &path, const std::string &kind) {
    std::string out =
        command_output("ffprobe -v error -count_packets -select_streams " + kind +
                       ":0 -show_entries stream=nb_read_packets -of csv=p=0 " + quote(path));
    return std::strtoull(out.c_str(), nullptr, 10);
}

uint64_t ffprobe_video_bytes(const std::string &path) {
    std::string out = command_output("ffprobe -v error -select_streams v:0 -show_entries "
                                     "packet=size -of csv=p=0 " +
                                     quote(path));
    uint64_t total = 0;
    const char *p = out.c_str();
    char *end = nullptr;
    for (uint64_t v = std::strtoull(p, &end, 10); end != p; v = std::strtoull(p, &end, 10)) {
        total += v;
        p = end;
    }
    return total;
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
}

void write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

std::vector<size_t> nal_offsets(const std::vector<uint8_t> &data) {
    std::vector<size_t> offsets;
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            offsets.push_back(i + 3);
            i += 2;
        }
    }
    return offsets;
}

std::vector<int> nal_types(const std::vector<uint8_t> &data, bool h265) {
    std::vector<int> types;
    for (size_t offset : nal_offsets(data)) {
        types.push_back(h265 ? (data[offset] >> 1) & 0x3F : data[offset] & 0x1F);
    }
    return types;
}

std::vector<camsim::MediaFrame> read_frames(camsim::MediaSource *source, size_t count) {
    std::vector<camsim::MediaFrame> frames(count);
    std::string error;
    for (size_t i = 0; i < count; ++i) {
        if (!source->next(&frames[i], &error)) {
            ADD_FAILURE() << "frame " << i << ": " << error;
            frames.resize(i);
            break;
        }
    }
    return frames;
}

bool decode_jpeg(const std::vector<uint8_t> &jpeg, Picture *picture) {
    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    libav::CodecPtr ctx(avcodec_alloc_context3(codec));
    libav::PacketPtr pkt(av_packet_alloc());
    libav::FramePtr frame(av_frame_alloc());
    if (!ctx || !pkt || !frame || avcodec_open2(ctx.get(), codec, nullptr) < 0 ||
        av_new_packet(pkt.get(), static_cast<int>(jpeg.size())) < 0) {
        return false;
    }
    std::copy(jpeg.begin(), jpeg.end(), pkt->data);
    if (avcodec_send_packet(ctx.get(), pkt.get()) < 0 ||
        avcodec_receive_frame(ctx.get(), frame.get()) < 0) {
        return false;
    }
    picture->width = frame->width;
    picture->height = frame->height;
    const AVPixFmtDescriptor *desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame->format));
    if (desc == nullptr || (desc->flags & AV_PIX_FMT_FLAG_PLANAR) == 0) {
        return false;
    }
    int cw = AV_CEIL_RSHIFT(frame->width, desc->log2_chroma_w);
    int ch = AV_CEIL_RSHIFT(frame->height, desc->log2_chroma_h);
    int64_t cb = 0;
    int64_t cr = 0;
    int64_t n = 0;
    for (int y = ch / 4; y < ch * 3 / 4; ++y) {
        for (int x = cw / 4; x < cw * 3 / 4; ++x, ++n) {
            cb += frame->data[1][y * frame->linesize[1] + x];
            cr += frame->data[2][y * frame->linesize[2] + x];
        }
    }
    picture->mean_cb = n > 0 ? static_cast<int>(cb / n) : 0;
    picture->mean_cr = n > 0 ? static_cast<int>(cr / n) : 0;
    return true;
}

} // namespace camsim_test

// The test kit's media streams: a frame generator driven by the virtual clock, frames pushed
// by tests, the rings that hold the newest of them, and the history tests look frames up in.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "ring_state.h"

namespace tk::ring {

std::mutex g_mu;
std::map<int32_t, Stream> g_streams;

namespace {

struct Generator {
    bool active = false;
    tk::StreamConfig cfg;
    uint64_t start_ms = 0;
    uint64_t next_k = 0; // video
    uint64_t next_j = 0; // audio
};

Generator g_gen;

uint64_t gen_ts(bool video, const tk::StreamConfig &cfg, uint64_t start_ms, uint64_t k) {
    return video ? start_ms + k * 1000 / cfg.fps : start_ms + k * cfg.audio_period_ms;
}

uint32_t gen_type(bool video, const tk::StreamConfig &cfg, uint64_t k) {
    if (!video) {
        return VEXO_FRAME_AUDIO;
    }
    return cfg.gop == 0 || k % cfg.gop == 0 ? VEXO_FRAME_I : VEXO_FRAME_P;
}

uint32_t gen_size(bool video, const tk::StreamConfig &cfg, uint32_t type) {
    if (!video) {
        return cfg.audio_frame_bytes;
    }
    return type == VEXO_FRAME_I ? cfg.i_frame_bytes : cfg.p_frame_bytes;
}

uint64_t splitmix(uint64_t &state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

Bytes make_bytes(int32_t stream, uint64_t index, uint32_t type, uint32_t size) {
    static const uint8_t kKeyHeader[] = {0, 0,    0,    1,    0x67, 0x42, 0x00, 0x1f, 0, 0,   0,
                                         1, 0x68, 0xce, 0x3c, 0x80, 0,    0,    0,    1, 0x65};
    static const uint8_t kPHeader[] = {0, 0, 0, 1, 0x41};
    Bytes out(size);
    uint64_t state =
        (uint64_t{static_cast<uint32_t>(stream)} << 48) ^ (index * 0xD1B54A32D192ED03ull);
    for (size_t i = 0; i < out.size(); i += 8) {
        uint64_t v = splitmix(state);
        for (size_t b = 0; b < 8 && i + b < out.size(); ++b) {
            out[i + b] = static_cast<uint8_t>(v >> (8 * b));
        }
    }
    const uint8_t *header = nullptr;
    size_t header_len = 0;
    if (type == VEXO_FRAME_I) {
        header = kKeyHeader;
        header_len = sizeof(kKeyHeader);
    } else if (type != VEXO_FRAME_AUDIO) {
        header = kPHeader;
        header_len = sizeof(kPHeader);
    }
    if (header != nullptr) {
        std::memcpy(out.data(), header, std::min(header_len, out.size()));
    }
    return out;
}

void drop_old(Stream &s) {
    while (!s.ring.empty() && s.ring.front().timestamp + s.capacity_ms < s.ring.back().timestamp) {
        s.ring.pop_front();
        ++s.base;
    }
}

void enter_ring(Stream &s, Frame f) {
    f.seq = s.next_seq++;
    s.ring.push_back(std::move(f));
    drop_old(s);
}

/// Records generator frames first_k .. first_k + n - 1 in the history of s.
void append_generated(Stream &s, bool video, uint64_t first_k, uint64_t n) {
    if (n == 0) {
        return;
    }
    if (!s.history.empty()) {
        Run &last = s.history.back();
        if (last.generated && last.video == video && last.start_ms == g_gen.start_ms &&
            last.first_k + last.count == first_k && last.first_index + last.count == s.produced) {
            last.count += n;
            s.produced += n;
            return;
        }
    }
    Run r;
    r.first_index = s.produced;
    r.count = n;
    r.generated = true;
    r.video = video;
    r.first_k = first_k;
    r.start_ms = g_gen.start_ms;
    r.cfg = g_gen.cfg;
    s.history.push_back(r);
    s.produced += n;
}

/// Produces the frames of one generated stream that are due at now.
void generate(bool video, uint64_t now) {
    const tk::StreamConfig &cfg = g_gen.cfg;
    uint64_t &next = video ? g_gen.next_k : g_gen.next_j;
    uint64_t d = now - g_gen.start_ms;
    uint64_t last = video ? ((d + 1) * cfg.fps - 1) / 1000 : d / cfg.audio_period_ms;
    if (last < next) {
        return;
    }
    Stream &s = g_streams[video ? VEXO_STREAM_MAIN : VEXO_STREAM_AUDIO];
    // Frames older than the newest minus the capacity would be dropped at once: record them
    // in the history only.
    uint64_t newest = gen_ts(video, cfg, g_gen.start_ms, last);
    uint64_t first = next;
    if (newest > s.capacity_ms && newest - s.capacity_ms > g_gen.start_ms) {
        uint64_t c = newest - s.capacity_ms - g_gen.start_ms;
        uint64_t k = video ? (c * cfg.fps + 999) / 1000
                           : (c + cfg.audio_period_ms - 1) / cfg.audio_period_ms;
        first = std::max(first, std::min(k, last));
    }
    append_generated(s, video, next, first - next);
    if (first > next) {
        // They still take their positions (and seq numbers), so a reader that stood before
        // them sees that it was overrun; everything the ring held is older still.
        s.base += s.ring.size() + (first - next);
        s.next_seq += static_cast<uint32_t>(first - next);
        s.ring.clear();
    }
    for (uint64_t k = first; k <= last; ++k) {
        Frame f;
        f.type = gen_type(video, cfg, k);
        f.timestamp = gen_ts(video, cfg, g_gen.start_ms, k);
        f.pts = f.timestamp * 1000;
        f.index = s.produced;
        f.data = std::make_shared<const Bytes>(
            make_bytes(video ? VEXO_STREAM_MAIN : VEXO_STREAM_AUDIO, f.index, f.type,
                       gen_size(video, cfg, f.type)));
        append_generated(s, video, k, 1);
        enter_ring(s, std::move(f));
    }
    next = last + 1;
}

tk::FrameInfo info_of(int32_t stream, const Run &run, uint64_t j) {
    if (!run.generated) {
        const Frame &f = run.frame;
        return tk::FrameInfo{stream,      run.first_index, f.type,
                             f.timestamp, f.pts,           static_cast<uint32_t>(f.data->size())};
    }
    uint64_t k = run.first_k + j;
    uint32_t type = gen_type(run.video, run.cfg, k);
    uint64_t ts = gen_ts(run.video, run.cfg, run.start_ms, k);
    return tk::FrameInfo{stream, run.first_index + j, type,
                         ts,     ts * 1000,           gen_size(run.video, run.cfg, type)};
}

uint64_t run_ts(const Run &run, uint64_t j) {
    return run.generated ? gen_ts(run.video, run.cfg, run.start_ms, run.first_k + j)
                         : run.frame.timestamp;
}

/// First j of a run whose time stamp is not below ts (time stamps grow within a run).
uint64_t lower_j(const Run &run, uint64_t ts) {
    uint64_t lo = 0;
    uint64_t hi = run.count;
    while (lo < hi) {
        uint64_t mid = lo + (hi - lo) / 2;
        if (run_ts(run, mid) < ts) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return lo;
}

} // namespace

void materialise() {
    if (!g_gen.active) {
        return;
    }
    uint64_t now = tk::now_ms();
    if (now < g_gen.start_ms) {
        return;
    }
    generate(true, now);
    if (g_gen.cfg.audio) {
        generate(false, now);
    }
}

void reset_streams() {
    g_streams.clear();
    g_gen = Generator();
}

} // namespace tk::ring

namespace tk {

using namespace tk::ring;

vexo_ipc_media_info_t sample_media_info() {
    vexo_ipc_media_info_t m{};
    m.channel_enable[0] = 1;
    m.video_fps[0] = 25;
    m.video_gop[0] = 50;
    m.video_bitrate[0] = 1024;
    m.video_width[0] = 1920;
    m.video_height[0] = 1080;
    m.video_codec[0] = VEXO_CODEC_H264;
    m.channel_enable[VEXO_STREAM_AUDIO] = 1;
    m.audio_codec[VEXO_STREAM_AUDIO] = VEXO_CODEC_G711A;
    m.audio_sample[VEXO_STREAM_AUDIO] = 8000;
    m.audio_databits[VEXO_STREAM_AUDIO] = 16;
    m.audio_channel[VEXO_STREAM_AUDIO] = 1;
    return m;
}

void start_stream(const StreamConfig &config) {
    if (config.fps == 0 || (config.audio && config.audio_period_ms == 0)) {
        throw std::invalid_argument("start_stream: fps and audio_period_ms must be above 0");
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    g_gen = Generator();
    g_gen.active = true;
    g_gen.cfg = config;
    g_gen.start_ms = now_ms();
    g_streams[VEXO_STREAM_MAIN].capacity_ms = uint64_t{config.capacity_secs} * 1000;
    if (config.audio) {
        g_streams[VEXO_STREAM_AUDIO].capacity_ms = uint64_t{config.capacity_secs} * 1000;
    }
    materialise();
}

void stop_stream() {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    g_gen.active = false;
}

void push_frame(int32_t stream, uint32_t type, const std::vector<uint8_t> &bytes,
                uint64_t timestamp_ms, uint64_t pts) {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Stream &s = g_streams[stream];
    Frame f;
    f.type = type;
    f.timestamp = timestamp_ms;
    f.pts = pts;
    f.index = s.produced++;
    f.data = std::make_shared<const Bytes>(bytes);
    Run r;
    r.first_index = f.index;
    r.count = 1;
    r.frame = f;
    s.history.push_back(r);
    enter_ring(s, std::move(f));
}

void set_capacity_secs(int32_t stream, uint32_t secs) {
    std::lock_guard<std::mutex> lock(g_mu);
    Stream &s = g_streams[stream];
    s.capacity_ms = uint64_t{secs} * 1000;
    drop_old(s);
}

std::vector<uint8_t> generated_bytes(int32_t stream, uint64_t index, uint32_t type, uint32_t size) {
    return make_bytes(stream, index, type, size);
}

std::vector<uint8_t> frame_bytes(const FrameInfo &frame) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto sit = g_streams.find(frame.stream);
    if (sit == g_streams.end()) {
        return {};
    }
    for (const Run &run : sit->second.history) {
        if (frame.index >= run.first_index && frame.index < run.first_index + run.count) {
            if (run.generated) {
                FrameInfo info = info_of(frame.stream, run, frame.index - run.first_index);
                return make_bytes(frame.stream, frame.index, info.type, info.size);
            }
            return *run.frame.data;
        }
    }
    return {};
}

uint64_t frames_produced(int32_t stream) {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    return g_streams[stream].produced;
}

std::optional<FrameInfo> frame_at(int32_t stream, uint64_t timestamp_ms) {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    for (const Run &run : g_streams[stream].history) {
        uint64_t j = lower_j(run, timestamp_ms);
        if (j < run.count && run_ts(run, j) == timestamp_ms) {
            return info_of(stream, run, j);
        }
    }
    return std::nullopt;
}

std::vector<FrameInfo> frames_between(int32_t stream, uint64_t from_ms, uint64_t to_ms) {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    std::vector<FrameInfo> out;
    for (const Run &run : g_streams[stream].history) {
        for (uint64_t j = lower_j(run, from_ms); j < run.count && run_ts(run, j) <= to_ms; ++j) {
            out.push_back(info_of(stream, run, j));
        }
    }
    return out;
}

std::vector<FrameInfo> ring_frames(int32_t stream) {
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    std::vector<FrameInfo> out;
    for (const Frame &f : g_streams[stream].ring) {
        out.push_back(FrameInfo{stream, f.index, f.type, f.timestamp, f.pts,
                                static_cast<uint32_t>(f.data->size())});
    }
    return out;
}

} // namespace tk

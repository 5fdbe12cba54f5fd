// Frame intake on a 2048 kbit/s, 25 fps, GOP 50 stream with G.711 audio (40 ms, 320 bytes),
// beside the floor it cannot beat: AES-128-CBC of the key-frame and audio bytes plus a copy of
// the P-frame bytes. One iteration is one 10-second slice; the main prints intake / floor.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/cloud_storage_internal.h"
#include "test_kit.h"

namespace {

constexpr uint32_t SLICE_SECONDS = 10;
constexpr uint32_t BITRATE_KBPS = 2048, FPS = 25, GOP = 50;
constexpr uint32_t GOP_BYTES = BITRATE_KBPS * 1024 / 8 * GOP / FPS;       // 524288
constexpr uint32_t I_BYTES = GOP_BYTES / 4;                               // a quarter of the GOP
constexpr uint32_t P_BYTES = (GOP_BYTES - I_BYTES + GOP - 2) / (GOP - 1); // 8025
constexpr uint32_t AUDIO_RATE = 8000, AUDIO_BITS = 8,
                   AUDIO_BYTES = AUDIO_RATE * AUDIO_BITS / 8 / FPS;
constexpr uint32_t T0 = 1705305600 + 60; // 08:01:00 UTC
constexpr uint32_t VIDEO_FRAMES = SLICE_SECONDS * FPS, I_FRAMES = VIDEO_FRAMES / GOP;
constexpr int64_t SLICE_BYTES =
    int64_t{I_FRAMES} * I_BYTES + int64_t{VIDEO_FRAMES - I_FRAMES} * P_BYTES +
    int64_t{VIDEO_FRAMES} * AUDIO_BYTES; // audio frames: one per video frame
// As init sizes it: one second of slack on top of the slice, video and audio.
constexpr uint32_t BUFFER_BYTES =
    (SLICE_SECONDS + 1) * (BITRATE_KBPS * 1024 / 8 + AUDIO_RATE * AUDIO_BITS / 8);
const uint8_t KEY[16] = {0x3a, 0x11, 0x5c, 0x72, 0x09, 0xe4, 0x8d, 0x21,
                         0x6f, 0xb0, 0x44, 0x93, 0x1e, 0xc7, 0x58, 0x2d};

struct Frame {
    std::vector<uint8_t> bytes;
    upload_frame_t frame;
};

/// One slice of the stream, video and audio interleaved by time stamp; distinct bytes per frame.
const std::vector<Frame> &slice_frames() {
    static std::vector<Frame> frames = [] {
        std::vector<Frame> out;
        auto add = [&out](int32_t stream, uint32_t k, uint32_t type, uint32_t size) {
            const uint64_t ms = uint64_t{T0} * 1000 + k * 1000 / FPS;
            out.push_back(
                {tk::generated_bytes(stream, k, type, size), {type, nullptr, size, ms * 1000, ms}});
            out.back().frame.data = out.back().bytes.data(); // a moved vector keeps its storage
        };
        for (uint32_t k = 0; k < VIDEO_FRAMES; ++k) {
            k % GOP == 0 ? add(0, k, VEXO_FRAME_I, I_BYTES) : add(0, k, VEXO_FRAME_P, P_BYTES);
            add(CS_AUDIO_CHANNEL, k, VEXO_FRAME_AUDIO, AUDIO_BYTES);
        }
        return out;
    }();
    return frames;
}

/// The control block as init leaves it for recording, without the upload thread.
void setup_control_block() {
    tk::reset();
    cloud_storage_reset_statics();
    tk::keep_upload_bytes(false);
    tk::record_trace(false);
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    vexo_hal_mutex_create_init(&ctl.event_mutex);
    vexo_hal_mutex_create_init(&ctl.upload_mutex);
    s_max_frame_size = CS_DEFAULT_MAX_FRAME_SIZE;
    ctl.slice_duration = SLICE_SECONDS;
    ctl.media_buffer_size = BUFFER_BYTES;
    auto *buffer = static_cast<uint8_t *>(Malloc(ctl.media_buffer_size));
    std::memset(buffer, 0, ctl.media_buffer_size); // fault the pages in before timing
    ctl.media_buffer = buffer;
    std::memcpy(ctl.encrypt_key, KEY, sizeof KEY);
    std::memcpy(ctl.aes_iv, s_aes_iv, sizeof s_aes_iv);
    ctl.recording_start_time = T0 - 60; // well inside the 30-minute group
    ctl.slice_start_time = T0;
    ctl.upload_status = UPLOAD_STATUS_RUNNING;
}

void BM_FrameIntake(benchmark::State &state) {
    setup_control_block();
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const std::vector<Frame> &frames = slice_frames();
    for (auto _ : state) {
        if (ctl.media_data_len != 0) {
            ctl.slice_start_time = T0 - SLICE_SECONDS; // the first key frame uploads the last slice
        }
        for (const Frame &f : frames) {
            int32_t rc = __upload_frame(&f.frame);
            if (rc == CS_BOUNDARY) {
                rc = __upload_frame(&f.frame); // as the upload thread does: the same frame again
            }
            if (rc != CS_OK) {
                state.SkipWithError(("frame intake failed: " + std::to_string(rc)).c_str());
                break;
            }
        }
    }
    state.SetBytesProcessed(state.iterations() * SLICE_BYTES);
    state.counters["slices_uploaded"] = static_cast<double>(tk::uploads().size());
    Free(ctl.media_buffer.exchange(nullptr));
    tk::reset();
}

/// The floor: the same frames, key frames and audio through AES-128-CBC, P frames copied.
template <bool USE_KIT> void BM_Floor(benchmark::State &state) {
    tk::reset();
    std::vector<uint8_t> out(BUFFER_BYTES);
    const std::vector<Frame> &frames = slice_frames();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    uint8_t iv[16];
    std::memcpy(iv, s_aes_iv, sizeof iv);
    for (auto _ : state) {
        uint8_t *dst = out.data();
        for (const Frame &f : frames) {
            const upload_frame_t &fr = f.frame;
            if (fr.type == VEXO_FRAME_P) {
                std::memcpy(dst, fr.data, fr.size);
                dst += fr.size;
            } else if (USE_KIT) {
                uint32_t n = 0;
                OpensslAES_CBC128_encrypt(fr.data, fr.size, dst, &n, KEY, iv);
                dst += n;
            } else {
                int n1 = 0, n2 = 0;
                EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, KEY, iv);
                EVP_EncryptUpdate(ctx, dst, &n1, fr.data, static_cast<int>(fr.size));
                EVP_EncryptFinal_ex(ctx, dst + n1, &n2);
                dst += n1 + n2;
            }
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(ctx);
    state.SetBytesProcessed(state.iterations() * SLICE_BYTES);
    tk::reset();
}

BENCHMARK(BM_FrameIntake)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Floor, true)->Name("BM_Floor/kit_aes")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Floor, false)->Name("BM_Floor/evp_aes")->Unit(benchmark::kMicrosecond);

/// Console output, plus the mean bytes per second of each benchmark for the ratio lines.
struct RatioReporter : benchmark::ConsoleReporter {
    using ConsoleReporter::ConsoleReporter;
    std::map<std::string, std::pair<double, int>> rates; // sum, count
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            auto it = run.counters.find("bytes_per_second");
            if (run.run_type == Run::RT_Iteration && !run.error_occurred &&
                it != run.counters.end()) {
                auto &[sum, count] = rates[run.benchmark_name()];
                sum += it->second;
                ++count;
            }
        }
    }
    double mean(const std::string &name) {
        auto &[sum, count] = rates[name];
        return count == 0 ? 0.0 : sum / count;
    }
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter(isatty(STDOUT_FILENO) != 0 ? RatioReporter::OO_Defaults
                                                      : RatioReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const double intake = reporter.mean("BM_FrameIntake");
    for (const char *floor : {"BM_Floor/kit_aes", "BM_Floor/evp_aes"}) {
        const double f = reporter.mean(floor);
        if (intake > 0 && f > 0) {
            std::printf("intake %.1f MB/s, %s %.1f MB/s, intake/floor %.3f\n", intake / 1e6, floor,
                        f / 1e6, intake / f);
        }
    }
    return 0;
}

// One simulation run: set up the cloud (embedded, or on the network with --cloud) with the
// device's order, start the host kit and the camera, initialise the module, play the
// schedule while showing progress, then uninitialise and summarise what the cloud received.
#include "run.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cloud_control.h"
#include "feeder.h"
#include "host_kit.h"
#include "media_source.h"
#include "recording_listing.h"
#include "report.h"
#include "schedule.h"
#include "snapshot.h"
#include "vexo_ipc_cloud_storage.h"
#include "vexo_ring_buffer.h"

namespace camsim {
namespace {

constexpr uint32_t kMaxBitrateKbps = 2048;
/// Real seconds to wait for the module's first configuration.
constexpr int kConfigWaitRealS = 15;
/// At the end of a run, real seconds without an item leaving the spool after which the camera
/// stops waiting for it (more than a typical back-off step; the items stay for the next start).
constexpr int kDrainIdleRealS = 15;

/// Set by Ctrl-C or SIGTERM: the run ends early but still uninitialises and summarises.
std::atomic<bool> g_interrupted{false};

void on_signal(int) {
    g_interrupted = true;
}

std::string input_path(const Options &o) {
    return o.input.empty() ? std::string(VEXO_CAMSIM_SAMPLE) : o.input;
}

bool spool_on(const Options &o) {
    return !o.cloud_url.empty() && o.spool;
}

/// Waits while the cloud takes what the spool holds: until it is empty, no item left it for
/// kDrainIdleRealS, or Ctrl-C.
void drain_spool() {
    using Clock = std::chrono::steady_clock;
    hostkit::Counters c = hostkit::counters();
    if (c.spool_items == 0) {
        return;
    }
    std::fprintf(stderr, "[camsim] sending %llu spooled items (%s) before stopping\n",
                 static_cast<unsigned long long>(c.spool_items),
                 human_bytes(c.spool_bytes).c_str());
    // After a long outage the sender may be a minute into its back-off: try now.
    hostkit::spool_retry_now();
    uint64_t gone = c.spool_sent + c.spool_dropped;
    Clock::time_point progress = Clock::now();
    while (!g_interrupted && c.spool_items > 0 &&
           Clock::now() - progress < std::chrono::seconds(kDrainIdleRealS)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        c = hostkit::counters();
        if (c.spool_sent + c.spool_dropped != gone) {
            gone = c.spool_sent + c.spool_dropped;
            progress = Clock::now();
        }
    }
    if (c.spool_items == 0) {
        std::fprintf(stderr, "[camsim] spool empty\n");
    } else {
        std::fprintf(stderr, "[camsim] spool: %llu items (%s) kept for the next start\n",
                     static_cast<unsigned long long>(c.spool_items),
                     human_bytes(c.spool_bytes).c_str());
    }
}

/// The clip to play, checked against what the module records; null after printing why not.
std::unique_ptr<MediaSource> open_input(const Options &o, const std::string &path) {
    std::string error;
    std::unique_ptr<MediaSource> source = MediaSource::open(path, &error, o.audio);
    if (!source) {
        std::fprintf(stderr, "vexo-camsim: %s: %s\n", path.c_str(), error.c_str());
        return nullptr;
    }
    const uint32_t kbps = source->params().bitrate_kbps;
    if (kbps > kMaxBitrateKbps) {
        std::fprintf(stderr,
                     "vexo-camsim: %s: video bit rate %u kbit/s is over the %u kbit/s the module "
                     "records; re-encode it lower (e.g. ffmpeg -i IN -b:v 1500k ...)\n",
                     path.c_str(), kbps, kMaxBitrateKbps);
        return nullptr;
    }
    return source;
}

/// The cloud with the device's order (unless --no-order), so the module's first fetch finds
/// it; null after printing why not.
std::unique_ptr<CloudControl> open_cloud(const Options &o) {
    std::string error;
    std::unique_ptr<CloudControl> cloud = make_cloud_control(o, &error);
    if (!cloud) {
        std::fprintf(stderr, "vexo-camsim: %s\n", error.c_str());
        return nullptr;
    }
    if (!o.send_order) {
        return cloud;
    }
    vexo_cloud::OrderChange order;
    order.store_mode = o.store_mode;
    order.event_duration = o.event_duration;
    order.slice_duration = o.slice_duration;
    order.silence_interval = o.silence_interval;
    order.daily_events = o.daily_events;
    order.expired = false;
    if (!cloud->set_order(order, &error)) {
        // The embedded cloud's refusals are its own words; the network cloud's errors say
        // whether it refused or could not be reached.
        std::fprintf(stderr, "vexo-camsim: %s%s\n",
                     o.cloud_url.empty() ? "the cloud refused the order: " : "", error.c_str());
        return nullptr;
    }
    return cloud;
}

hostkit::Options kit_options(const Options &o, CloudControl &cloud) {
    hostkit::Options kit;
    kit.data_dir = o.data_dir + "/camera";
    kit.device_id = o.device_id;
    kit.clock_start = o.start_time;
    kit.speed = o.speed;
    kit.log_level = o.verbosity >= 2   ? hostkit::LogLevel::kTrace
                    : o.verbosity == 1 ? hostkit::LogLevel::kDebug
                                       : hostkit::LogLevel::kError;
    kit.cloud = cloud.transport();
    kit.device_token = o.device_token;
    kit.mqtt_url = o.mqtt_url;
    kit.mqtt_security = o.mqtt_security;
    kit.ring_seconds = o.ring_seconds;
    kit.spool.enabled = spool_on(o);
    kit.spool.max_bytes = o.spool_bytes;
    kit.spool.max_age_s = o.spool_age_s;
    return kit;
}

/// The ring buffer's streams and the snapshot source, for the camera about to be fed.
void set_up_camera(const StreamParams &params, SnapshotEncoder *snapshot) {
    hostkit::ring_declare(VEXO_STREAM_MAIN, static_cast<int32_t>(params.max_video_frame));
    if (params.has_audio) {
        hostkit::ring_declare(VEXO_STREAM_AUDIO, static_cast<int32_t>(params.max_audio_frame));
    }
    hostkit::set_snapshot_source([snapshot](std::vector<uint8_t> *jpeg) {
        std::string why;
        if (!snapshot->jpeg(jpeg, &why)) {
            std::fprintf(stderr, "\n[camsim] snapshot failed: %s\n", why.c_str());
            return false;
        }
        return true;
    });
}

void print_banner(const Options &o, const std::string &path, const StreamParams &params) {
    std::fprintf(
        stderr,
        "[camsim] %s: %s %ux%u %u fps, GOP %u, %u kbit/s%s; device %s, store mode %s, "
        "clock %s x%g\n",
        path.c_str(), params.video_codec == 4 ? "H.265" : "H.264", params.width, params.height,
        params.fps, params.gop, params.bitrate_kbps, params.has_audio ? ", with audio" : "",
        o.device_id.c_str(), o.send_order ? o.store_mode.c_str() : "as the cloud has it",
        vexo_cloud::local_time_text(static_cast<uint32_t>(hostkit::now_ms() / 1000)).c_str(),
        o.speed);
    if (!o.cloud_url.empty()) {
        std::fprintf(stderr, "[camsim] cloud %s, MQTT broker %s\n", o.cloud_url.c_str(),
                     o.mqtt_url.empty() ? "none (the camera hears no commands)"
                                        : o.mqtt_url.c_str());
    }
}

/// Initialises the module and waits (kConfigWaitRealS at most) for its first configuration.
/// Returns -1 when init failed, else the run's status so far: 1 without a configuration.
int init_module(const Options &o, const StreamParams &params) {
    vexo_ipc_media_info_t media{};
    fill_media_info(params, &media);
    const vexo_ipc_cloud_storage_hooks_t hooks{};
    const int32_t init = vexo_ipc_cloud_storage_init(&media, &hooks);
    if (init != 0) {
        std::fprintf(stderr, "vexo-camsim: module init failed (%d)\n", static_cast<int>(init));
        return -1;
    }
    if (o.pre_record >= 0 && vexo_ipc_cloud_storage_set_pre_record_time(o.pre_record) != 0) {
        std::fprintf(stderr, "vexo-camsim: pre-record %d s refused by the module\n",
                     static_cast<int>(o.pre_record));
    }
    for (int i = 0; i < kConfigWaitRealS * 20 && vexo_ipc_cloud_storage_get_if_have_config() != 1;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (vexo_ipc_cloud_storage_get_if_have_config() != 1) {
        std::fprintf(stderr, "vexo-camsim: the module got no configuration from the cloud\n");
        return 1;
    }
    return 0;
}

/// Plays the schedule until --duration kit seconds have passed or Ctrl-C, showing progress;
/// returns the kit seconds the camera ran.
double play(const Options &o, CloudControl &cloud, const Feeder &feeder, StateLines *state_lines,
            Tally *tally) {
    const bool tty = isatty(STDERR_FILENO) == 1 && !o.quiet;
    const uint64_t t0 = hostkit::now_ms();
    const std::vector<Step> steps = make_steps(o.actions);
    size_t next = 0;
    double last_shown = -1e9;
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    while (!g_interrupted) {
        const double elapsed = static_cast<double>(hostkit::now_ms() - t0) / 1000.0;
        state_lines->poll(elapsed);
        while (next < steps.size() && steps[next].at_s <= elapsed) {
            perform(steps[next++], cloud, tally);
        }
        if (elapsed >= o.duration_s) {
            break;
        }
        // Every real half second on a terminal; every 10 kit seconds otherwise.
        const double gap = tty ? 0.5 * o.speed : 10.0;
        if (!o.quiet && elapsed - last_shown >= gap) {
            show_progress(elapsed, o.duration_s, feeder, *tally, tty, spool_on(o));
            last_shown = elapsed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double ran_s =
        std::min(o.duration_s, static_cast<double>(hostkit::now_ms() - t0) / 1000.0);
    if (!o.quiet) {
        show_progress(ran_s, o.duration_s, feeder, *tally, tty, spool_on(o));
        std::fputc('\n', stderr);
    }
    if (g_interrupted) {
        std::fprintf(stderr, "[camsim] interrupted after %.1f s\n", ran_s);
    }
    return ran_s;
}

/// Uninitialises the module, stops the camera and lets the spool drain; 1 when the camera
/// had stopped on an error, else status. Returns the module's store mode before uninit.
int stop_camera(const Options &o, Feeder *feeder, int status, int32_t *end_mode) {
    *end_mode = vexo_ipc_cloud_storage_get_store_mode();
    std::fprintf(stderr, "[camsim] stopping: uninit the module\n");
    vexo_ipc_cloud_storage_uninit();
    feeder->stop();
    if (spool_on(o)) {
        drain_spool();
    }
    const std::string feed_error = feeder->error();
    if (!feed_error.empty()) {
        std::fprintf(stderr, "vexo-camsim: the camera stopped: %s\n", feed_error.c_str());
        return 1;
    }
    return status;
}

} // namespace

int run(const Options &o) {
    const std::string path = input_path(o);
    std::unique_ptr<MediaSource> source = open_input(o, path);
    if (!source) {
        return 2;
    }
    const StreamParams params = source->params();
    std::unique_ptr<CloudControl> cloud = open_cloud(o);
    if (!cloud) {
        return 2;
    }
    if (hostkit::start(kit_options(o, *cloud)) != 0) {
        return 2;
    }
    SnapshotEncoder snapshot;
    set_up_camera(params, &snapshot);
    Feeder feeder(std::move(source), &snapshot);
    feeder.start();
    print_banner(o, path, params);

    const auto real_start = std::chrono::steady_clock::now();
    // Taken before init ("not configured"), so that the first configuration shows as a
    // change even when the module's worker has it before init returns.
    StateLines state_lines;
    int status = init_module(o, params);
    if (status < 0) {
        feeder.stop();
        hostkit::stop();
        return 1;
    }
    Tally tally;
    RunTimes times;
    times.ran_s = play(o, *cloud, feeder, &state_lines, &tally);
    state_lines.poll(times.ran_s);
    int32_t end_mode = 0;
    status = stop_camera(o, &feeder, status, &end_mode);
    times.real_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - real_start).count();
    summarise(o, *cloud, feeder, tally, times, end_mode);
    hostkit::stop();
    return status;
}

} // namespace camsim

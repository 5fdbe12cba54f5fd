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

/// The schedule as a time-ordered list, with motion ends as actions of their own.
struct Step {
    double at_s;
    Action action;
    bool motion_end;
};

std::vector<Step> make_steps(const std::vector<Action> &actions) {
    std::vector<Step> steps;
    for (const Action &a : actions) {
        steps.push_back({a.at_s, a, false});
        if (a.kind == Action::Kind::kMotion && a.length_s > 0) {
            steps.push_back({a.at_s + a.length_s, a, true});
        }
    }
    std::stable_sort(steps.begin(), steps.end(),
                     [](const Step &x, const Step &y) { return x.at_s < y.at_s; });
    return steps;
}

void perform(const Step &step, CloudControl &cloud, Tally *tally) {
    const Action &a = step.action;
    std::string error;
    switch (a.kind) {
    case Action::Kind::kMotion:
        if (step.motion_end) {
            vexo_ipc_cloud_storage_event_stop_async();
            std::fprintf(stderr, "\n[camsim] %6.1fs motion ends\n", step.at_s);
        } else {
            const int32_t ret = vexo_ipc_cloud_storage_event_start();
            (ret == 0 ? tally->motion_started : tally->motion_refused)++;
            std::fprintf(stderr, "\n[camsim] %6.1fs motion event: %s (%d)\n", step.at_s,
                         ret == 0 ? "recording" : "refused by the module", static_cast<int>(ret));
        }
        break;
    case Action::Kind::kTrigger:
        ++tally->triggers;
        if (!cloud.trigger(a.trigger_action, a.duration_s, &error)) {
            std::fprintf(stderr, "\n[camsim] trigger refused by the cloud: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud sends remote trigger \"%s\" (%d s)\n",
                         step.at_s, a.trigger_action.c_str(), static_cast<int>(a.duration_s));
        }
        break;
    case Action::Kind::kPause:
        vexo_ipc_cloud_storage_pause();
        std::fprintf(stderr, "\n[camsim] %6.1fs pause\n", step.at_s);
        break;
    case Action::Kind::kResume:
        vexo_ipc_cloud_storage_resume();
        std::fprintf(stderr, "\n[camsim] %6.1fs resume\n", step.at_s);
        break;
    case Action::Kind::kAbort:
        if (!cloud.abort_order(&error)) {
            std::fprintf(stderr, "\n[camsim] abort refused: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud aborts the order\n", step.at_s);
        }
        break;
    case Action::Kind::kOrder: {
        vexo_cloud::OrderChange change;
        change.store_mode = a.store_mode;
        if (!cloud.set_order(change, &error)) {
            std::fprintf(stderr, "\n[camsim] order refused: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud sets store mode \"%s\"\n", step.at_s,
                         a.store_mode.c_str());
        }
        break;
    }
    }
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

} // namespace

int run(const Options &o) {
    const std::string path = input_path(o);
    std::string error;
    std::unique_ptr<MediaSource> source = MediaSource::open(path, &error, o.audio);
    if (!source) {
        std::fprintf(stderr, "vexo-camsim: %s: %s\n", path.c_str(), error.c_str());
        return 2;
    }
    const StreamParams params = source->params();
    if (params.bitrate_kbps > kMaxBitrateKbps) {
        std::fprintf(stderr,
                     "vexo-camsim: %s: video bit rate %u kbit/s is over the %u kbit/s the module "
                     "records; re-encode it lower (e.g. ffmpeg -i IN -b:v 1500k ...)\n",
                     path.c_str(), params.bitrate_kbps, kMaxBitrateKbps);
        return 2;
    }

    // The cloud first, with the device's order, so the module's first fetch finds it.
    std::unique_ptr<CloudControl> cloud = make_cloud_control(o, &error);
    if (!cloud) {
        std::fprintf(stderr, "vexo-camsim: %s\n", error.c_str());
        return 2;
    }
    if (o.send_order) {
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
            return 2;
        }
    }

    hostkit::Options kit;
    kit.data_dir = o.data_dir + "/camera";
    kit.device_id = o.device_id;
    kit.clock_start = o.start_time;
    kit.speed = o.speed;
    kit.log_level = o.verbosity >= 2   ? hostkit::LogLevel::kTrace
                    : o.verbosity == 1 ? hostkit::LogLevel::kDebug
                                       : hostkit::LogLevel::kError;
    kit.cloud = cloud->transport();
    kit.device_token = o.device_token;
    kit.mqtt_url = o.mqtt_url;
    kit.mqtt_security = o.mqtt_security;
    kit.ring_seconds = o.ring_seconds;
    kit.spool.enabled = spool_on(o);
    kit.spool.max_bytes = o.spool_bytes;
    kit.spool.max_age_s = o.spool_age_s;
    if (hostkit::start(kit) != 0) {
        return 2;
    }
    hostkit::ring_declare(VEXO_STREAM_MAIN, static_cast<int32_t>(params.max_video_frame));
    if (params.has_audio) {
        hostkit::ring_declare(VEXO_STREAM_AUDIO, static_cast<int32_t>(params.max_audio_frame));
    }

    SnapshotEncoder snapshot;
    hostkit::set_snapshot_source([&snapshot](std::vector<uint8_t> *jpeg) {
        std::string why;
        if (!snapshot.jpeg(jpeg, &why)) {
            std::fprintf(stderr, "\n[camsim] snapshot failed: %s\n", why.c_str());
            return false;
        }
        return true;
    });
    Feeder feeder(std::move(source), &snapshot);
    feeder.start();

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

    const auto real_start = std::chrono::steady_clock::now();
    vexo_ipc_media_info_t media{};
    fill_media_info(params, &media);
    const vexo_ipc_cloud_storage_hooks_t hooks{};
    int status = 0;
    // Taken before init ("not configured"), so that the first configuration shows as a
    // change even when the module's worker has it before init returns.
    StateLines state_lines;
    const int32_t init = vexo_ipc_cloud_storage_init(&media, &hooks);
    if (init != 0) {
        std::fprintf(stderr, "vexo-camsim: module init failed (%d)\n", static_cast<int>(init));
        feeder.stop();
        hostkit::stop();
        return 1;
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
        status = 1;
    }

    const bool tty = isatty(STDERR_FILENO) == 1 && !o.quiet;
    const uint64_t t0 = hostkit::now_ms();
    const std::vector<Step> steps = make_steps(o.actions);
    size_t next = 0;
    Tally tally;
    double last_shown = -1e9;
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    while (!g_interrupted) {
        const double elapsed = static_cast<double>(hostkit::now_ms() - t0) / 1000.0;
        state_lines.poll(elapsed);
        while (next < steps.size() && steps[next].at_s <= elapsed) {
            perform(steps[next++], *cloud, &tally);
        }
        if (elapsed >= o.duration_s) {
            break;
        }
        // Every real half second on a terminal; every 10 kit seconds otherwise.
        const double gap = tty ? 0.5 * o.speed : 10.0;
        if (!o.quiet && elapsed - last_shown >= gap) {
            show_progress(elapsed, o.duration_s, feeder, tally, tty, spool_on(o));
            last_shown = elapsed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double ran_s =
        std::min(o.duration_s, static_cast<double>(hostkit::now_ms() - t0) / 1000.0);
    if (!o.quiet) {
        show_progress(ran_s, o.duration_s, feeder, tally, tty, spool_on(o));
        std::fputc('\n', stderr);
    }
    if (g_interrupted) {
        std::fprintf(stderr, "[camsim] interrupted after %.1f s\n", ran_s);
    }

    state_lines.poll(ran_s);
    const int32_t end_mode = vexo_ipc_cloud_storage_get_store_mode();
    std::fprintf(stderr, "[camsim] stopping: uninit the module\n");
    vexo_ipc_cloud_storage_uninit();
    feeder.stop();
    if (spool_on(o)) {
        drain_spool();
    }
    const std::string feed_error = feeder.error();
    if (!feed_error.empty()) {
        std::fprintf(stderr, "vexo-camsim: the camera stopped: %s\n", feed_error.c_str());
        status = 1;
    }
    RunTimes times;
    times.ran_s = ran_s;
    times.real_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - real_start).count();
    summarise(o, *cloud, feeder, tally, times, end_mode);
    hostkit::stop();
    return status;
}

} // namespace camsim

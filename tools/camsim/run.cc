// One simulation run: set up the embedded cloud with the device's order, start the host kit
// and the camera, initialise the module, play the schedule while showing progress, then
// uninitialise and summarise what the cloud received.
#include "run.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "embedded_cloud.h"
#include "feeder.h"
#include "host_kit.h"
#include "media_source.h"
#include "snapshot.h"
#include "vexo_ipc_cloud_storage.h"
#include "vexo_ring_buffer.h"

namespace camsim {
namespace {

constexpr uint32_t kMaxBitrateKbps = 2048;
/// Real seconds to wait for the module's first configuration.
constexpr int kConfigWaitRealS = 15;

/// Set by Ctrl-C or SIGTERM: the run ends early but still uninitialises and summarises.
std::atomic<bool> g_interrupted{false};

void on_signal(int) {
    g_interrupted = true;
}

std::string input_path(const Options &o) {
    return o.input.empty() ? std::string(VEXO_CAMSIM_SAMPLE) : o.input;
}

std::string human_bytes(uint64_t n) {
    char buf[32];
    if (n >= (1u << 20)) {
        std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(n) / (1 << 20));
    } else if (n >= 1024) {
        std::snprintf(buf, sizeof buf, "%.1f kB", static_cast<double>(n) / 1024);
    } else {
        std::snprintf(buf, sizeof buf, "%llu B", static_cast<unsigned long long>(n));
    }
    return buf;
}

std::string local_time(uint32_t t) {
    const time_t secs = t;
    struct tm local {};
    localtime_r(&secs, &local);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    return buf;
}

const char *mode_name(int32_t mode) {
    switch (mode) {
    case 0:
        return "alltime";
    case 1:
        return "event";
    default:
        return "no order";
    }
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

struct Tally {
    int motion_started = 0;
    int motion_refused = 0;
    int triggers = 0;
};

void perform(const Step &step, const Options &o, vexo_cloud::Service &cloud, Tally *tally) {
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
        if (!cloud.trigger(o.device_id, a.trigger_action, a.duration_s, "{\"user\":\"camsim\"}",
                           &error)) {
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
        cloud.abort_order(o.device_id, &error);
        std::fprintf(stderr, "\n[camsim] %6.1fs cloud aborts the order\n", step.at_s);
        break;
    case Action::Kind::kOrder: {
        vexo_cloud::OrderChange change;
        change.store_mode = a.store_mode;
        if (!cloud.set_order(o.device_id, change, &error)) {
            std::fprintf(stderr, "\n[camsim] order refused: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] %6.1fs cloud sets store mode \"%s\"\n", step.at_s,
                         a.store_mode.c_str());
        }
        break;
    }
    }
}

void show_progress(double elapsed_s, double total_s, const Feeder &feeder, const Tally &tally,
                   bool tty) {
    const hostkit::Counters c = hostkit::counters();
    const bool recording = vexo_ipc_cloud_storage_get_status() == 1;
    std::fprintf(
        stderr,
        "%s[%6.1fs/%.0fs] %-9s %-8s | frames %llu | uploaded %llu files, %s | "
        "events %d | mqtt %llu%s",
        tty ? "\r" : "", elapsed_s, total_s, mode_name(vexo_ipc_cloud_storage_get_store_mode()),
        recording ? "RECORD" : "idle", static_cast<unsigned long long>(feeder.video_frames()),
        static_cast<unsigned long long>(c.uploads), human_bytes(c.bytes_uploaded).c_str(),
        tally.motion_started, static_cast<unsigned long long>(c.mqtt_messages), tty ? "   " : "\n");
    std::fflush(stderr);
}

void summarise(const Options &o, vexo_cloud::Service &cloud, const Feeder &feeder,
               const Tally &tally, double ran_s, double real_s) {
    const hostkit::Counters c = hostkit::counters();
    std::vector<vexo_cloud::Recording> recordings;
    try {
        recordings = cloud.recordings(o.device_id);
    } catch (const std::exception &e) {
        std::printf("cannot read the recordings back: %s\n", e.what());
    }
    std::printf("\n== vexo-camsim summary ==\n");
    std::printf("ran %.1f s of camera time in %.1f s real time (speed %g)\n", ran_s, real_s,
                o.speed);
    std::printf("camera: %llu video and %llu audio frames fed\n",
                static_cast<unsigned long long>(feeder.video_frames()),
                static_cast<unsigned long long>(feeder.audio_frames()));
    std::printf("module: %d motion events recorded, %d refused; %d remote triggers; %llu "
                "alarms\n",
                tally.motion_started, tally.motion_refused, tally.triggers,
                static_cast<unsigned long long>(c.alarms));
    std::printf("uploads: %llu files, %s, %llu failed\n",
                static_cast<unsigned long long>(c.uploads), human_bytes(c.bytes_uploaded).c_str(),
                static_cast<unsigned long long>(c.upload_failures));
    std::printf("cloud %s/cloud, device %s: %zu recordings\n", o.data_dir.c_str(),
                o.device_id.c_str(), recordings.size());
    for (const vexo_cloud::Recording &r : recordings) {
        uint64_t bytes = 0;
        for (const auto &f : r.files) {
            bytes += f.bytes;
        }
        std::printf("  %u  %s .. %s  %zu files  %s  key md5 %s\n", r.start_time,
                    local_time(r.start_time).c_str(),
                    r.end_time != 0 ? local_time(r.end_time).c_str() : "(open)", r.files.size(),
                    human_bytes(bytes).c_str(), r.key_md5.c_str());
    }
    std::printf("play it back: vexo-media export --data %s/cloud --all --out-dir %s/export\n",
                o.data_dir.c_str(), o.data_dir.c_str());
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
    const std::string cloud_dir = o.data_dir + "/cloud";
    std::shared_ptr<vexo_cloud::Service> service;
    try {
        service = std::make_shared<vexo_cloud::Service>(
            hostkit::EmbeddedCloud::service_options(cloud_dir, o.device_id));
    } catch (const std::exception &e) {
        // A damaged record in the cloud directory: say which, change nothing.
        std::fprintf(stderr, "vexo-camsim: cannot open the cloud in %s: %s\n", cloud_dir.c_str(),
                     e.what());
        return 2;
    }
    vexo_cloud::OrderChange order;
    order.store_mode = o.store_mode;
    order.event_duration = o.event_duration;
    order.slice_duration = o.slice_duration;
    order.silence_interval = o.silence_interval;
    order.daily_events = o.daily_events;
    order.expired = false;
    if (!service->set_order(o.device_id, order, &error)) {
        std::fprintf(stderr, "vexo-camsim: the cloud refused the order: %s\n", error.c_str());
        return 2;
    }

    hostkit::Options kit;
    kit.data_dir = o.data_dir + "/camera";
    kit.device_id = o.device_id;
    kit.clock_start = o.start_time;
    kit.speed = o.speed;
    kit.log_level = o.verbosity >= 2   ? hostkit::LogLevel::kTrace
                    : o.verbosity == 1 ? hostkit::LogLevel::kDebug
                                       : hostkit::LogLevel::kError;
    kit.cloud = std::make_shared<hostkit::EmbeddedCloud>(service);
    kit.ring_seconds = o.ring_seconds;
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

    std::fprintf(stderr,
                 "[camsim] %s: %s %ux%u %u fps, GOP %u, %u kbit/s%s; device %s, store mode %s, "
                 "clock %s x%g\n",
                 path.c_str(), params.video_codec == 4 ? "H.265" : "H.264", params.width,
                 params.height, params.fps, params.gop, params.bitrate_kbps,
                 params.has_audio ? ", with audio" : "", o.device_id.c_str(), o.store_mode.c_str(),
                 local_time(static_cast<uint32_t>(hostkit::now_ms() / 1000)).c_str(), o.speed);

    const auto real_start = std::chrono::steady_clock::now();
    vexo_ipc_media_info_t media{};
    fill_media_info(params, &media);
    const vexo_ipc_cloud_storage_hooks_t hooks{};
    int status = 0;
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
        while (next < steps.size() && steps[next].at_s <= elapsed) {
            perform(steps[next++], o, *service, &tally);
        }
        if (elapsed >= o.duration_s) {
            break;
        }
        // Every real half second on a terminal; every 10 kit seconds otherwise.
        const double gap = tty ? 0.5 * o.speed : 10.0;
        if (!o.quiet && elapsed - last_shown >= gap) {
            show_progress(elapsed, o.duration_s, feeder, tally, tty);
            last_shown = elapsed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double ran_s =
        std::min(o.duration_s, static_cast<double>(hostkit::now_ms() - t0) / 1000.0);
    if (!o.quiet) {
        show_progress(ran_s, o.duration_s, feeder, tally, tty);
        std::fputc('\n', stderr);
    }
    if (g_interrupted) {
        std::fprintf(stderr, "[camsim] interrupted after %.1f s\n", ran_s);
    }

    std::fprintf(stderr, "[camsim] stopping: uninit the module\n");
    vexo_ipc_cloud_storage_uninit();
    feeder.stop();
    const std::string feed_error = feeder.error();
    if (!feed_error.empty()) {
        std::fprintf(stderr, "vexo-camsim: the camera stopped: %s\n", feed_error.c_str());
        status = 1;
    }
    const double real_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - real_start).count();
    summarise(o, *service, feeder, tally, ran_s, real_s);
    hostkit::stop();
    return status;
}

} // namespace camsim

// The simulator's progress line, state-change lines and summary.
#include "report.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "host_kit.h"
#include "recording_listing.h"
#include "vexo_ipc_cloud_storage.h"

namespace camsim {

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

std::string spool_text(const hostkit::Counters &c) {
    char buf[160];
    const uint64_t now = hostkit::now_ms();
    const double oldest_s = c.spool_items > 0 && now > c.spool_oldest_ms
                                ? static_cast<double>(now - c.spool_oldest_ms) / 1000.0
                                : 0.0;
    std::snprintf(buf, sizeof buf, "spool %llu items, %s, oldest %.0f s; %llu sent, %llu dropped",
                  static_cast<unsigned long long>(c.spool_items),
                  human_bytes(c.spool_bytes).c_str(), oldest_s,
                  static_cast<unsigned long long>(c.spool_sent),
                  static_cast<unsigned long long>(c.spool_dropped));
    return buf;
}

void show_progress(double elapsed_s, double total_s, const Feeder &feeder, const Tally &tally,
                   bool tty, bool spool) {
    const hostkit::Counters c = hostkit::counters();
    const bool recording = vexo_ipc_cloud_storage_get_status() == 1;
    std::fprintf(stderr,
                 "%s[%6.1fs/%.0fs] %-9s %-8s | frames %llu | uploaded %llu files, %s | "
                 "events %d | mqtt %llu%s%s%s",
                 tty ? "\r" : "", elapsed_s, total_s,
                 mode_name(vexo_ipc_cloud_storage_get_store_mode()), recording ? "RECORD" : "idle",
                 static_cast<unsigned long long>(feeder.video_frames()),
                 static_cast<unsigned long long>(c.uploads), human_bytes(c.bytes_uploaded).c_str(),
                 tally.motion_started, static_cast<unsigned long long>(c.mqtt_messages),
                 spool ? " | " : "", spool ? spool_text(c).c_str() : "", tty ? "   " : "\n");
    std::fflush(stderr);
}

StateLines::StateLines() : state_(store_state()) {}

const char *StateLines::store_state() {
    // The flag first: the module sets it after the store mode it configured.
    if (vexo_ipc_cloud_storage_get_if_have_config() != 1) {
        return "not configured";
    }
    return mode_name(vexo_ipc_cloud_storage_get_store_mode());
}

void StateLines::poll(double elapsed_s) {
    // The leading newline ends a progress line drawn with '\r' on a terminal.
    const char *state = store_state();
    if (std::strcmp(state, state_) != 0) {
        std::fprintf(stderr, "\n[camsim] %6.1fs store mode %s -> %s\n", elapsed_s, state_, state);
        state_ = state;
    }
    const hostkit::Counters c = hostkit::counters();
    if (c.mqtt_connected != mqtt_connected_ || c.mqtt_broker != mqtt_broker_) {
        if (c.mqtt_connected) {
            std::fprintf(stderr, "\n[camsim] mqtt connected to %s\n", c.mqtt_broker.c_str());
        } else {
            std::fprintf(stderr, "\n[camsim] mqtt disconnected\n");
        }
        mqtt_connected_ = c.mqtt_connected;
        mqtt_broker_ = c.mqtt_broker;
    }
}

void summarise(const Options &o, CloudControl &cloud, const Feeder &feeder, const Tally &tally,
               const RunTimes &times, int32_t end_mode) {
    const hostkit::Counters c = hostkit::counters();
    std::vector<RecordingSummary> recordings;
    std::string error;
    const bool listed = cloud.recordings(&recordings, &error);
    if (!listed) {
        std::printf("cannot read the recordings back: %s\n", error.c_str());
    }
    std::printf("\n== vexo-camsim summary ==\n");
    std::printf("ran %.1f s of camera time in %.1f s real time (speed %g)\n", times.ran_s,
                times.real_s, o.speed);
    std::printf("camera: %llu video and %llu audio frames fed\n",
                static_cast<unsigned long long>(feeder.video_frames()),
                static_cast<unsigned long long>(feeder.audio_frames()));
    // A module that fell behind the live end was moved on by the kit: what it missed.
    std::printf("reader: caught up %llu times, %llu frames skipped (%llu overwritten)\n",
                static_cast<unsigned long long>(c.reader_jumps),
                static_cast<unsigned long long>(c.frames_skipped),
                static_cast<unsigned long long>(c.frames_overwritten));
    // Commands are counted as the kit handed them to the module, so those sent from outside
    // the simulator (vexo-cloud trigger, order, abort) count as well as the scheduled ones.
    std::printf("module: %d motion events recorded, %d refused; %llu remote triggers received "
                "(%d scheduled), %llu order changes received; %llu alarms\n",
                tally.motion_started, tally.motion_refused,
                static_cast<unsigned long long>(c.remote_triggers), tally.triggers,
                static_cast<unsigned long long>(c.order_changes),
                static_cast<unsigned long long>(c.alarms));
    std::printf("uploads: %llu files, %s, %llu failed\n",
                static_cast<unsigned long long>(c.uploads), human_bytes(c.bytes_uploaded).c_str(),
                static_cast<unsigned long long>(c.upload_failures));
    if (!o.cloud_url.empty()) {
        std::printf("%s\n", o.spool ? spool_text(c).c_str() : "spool: off");
    }
    if (listed) {
        std::printf("cloud %s, device %s: %zu recordings\n", cloud.name().c_str(),
                    o.device_id.c_str(), recordings.size());
    } else {
        std::printf("cloud %s, device %s: recordings could not be read\n", cloud.name().c_str(),
                    o.device_id.c_str());
    }
    for (const RecordingSummary &r : recordings) {
        std::printf("  %u  %s .. %s  %llu files  %s  key md5 %s\n", r.start_time,
                    vexo_cloud::local_time_text(r.start_time).c_str(),
                    r.end_time != 0 ? vexo_cloud::local_time_text(r.end_time).c_str() : "(open)",
                    static_cast<unsigned long long>(r.files), human_bytes(r.bytes).c_str(),
                    r.key_md5.c_str());
    }
    const std::string media_dir = cloud.media_dir();
    std::printf("play it back: vexo-media export --data %s --all --out-dir %s/export\n",
                media_dir.empty() ? "<the cloud's data directory>" : media_dir.c_str(),
                o.data_dir.c_str());
    std::printf("store mode at end: %s\n", mode_name(end_mode));
}

} // namespace camsim

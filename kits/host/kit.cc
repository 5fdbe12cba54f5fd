// The host kit's start and stop, its options and its counters.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "cloud_delivery.h"
#include "host_internal.h"
#include "ring_stream.h"

namespace hostkit {
namespace {

std::mutex g_mu;
Options g_options;
bool g_started = false;
Counters g_counters;

bool valid_device_id(const std::string &id) {
    if (id.empty() || id.size() > 63) {
        return false;
    }
    for (char c : id) {
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

/// mkdir -p with mode 0700 for what it creates.
bool make_dirs(const std::string &path) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty()) {
            continue;
        }
        if (mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

namespace internal {

const Options &options() {
    return g_options;
}

bool started() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_started;
}

std::shared_ptr<CloudTransport> cloud() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_options.cloud;
}

void count_upload(const std::string &name, uint64_t bytes, bool ok) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (ok) {
        ++g_counters.uploads;
        g_counters.bytes_uploaded += bytes;
        g_counters.last_upload = name;
    } else {
        ++g_counters.upload_failures;
    }
}

void count_api_post() {
    std::lock_guard<std::mutex> lock(g_mu);
    ++g_counters.api_posts;
}

void count_alarm() {
    std::lock_guard<std::mutex> lock(g_mu);
    ++g_counters.alarms;
}

void count_mqtt(uint32_t protocol) {
    // The cloud's two command numbers, as the module attaches its handlers for them.
    constexpr uint32_t kOrderChange = 300;
    constexpr uint32_t kRemoteTrigger = 307;
    std::lock_guard<std::mutex> lock(g_mu);
    ++g_counters.mqtt_messages;
    if (protocol == kRemoteTrigger) {
        ++g_counters.remote_triggers;
    } else if (protocol == kOrderChange) {
        ++g_counters.order_changes;
    }
}

void set_mqtt_connected(bool connected, const std::string &broker) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_counters.mqtt_connected = connected;
    g_counters.mqtt_broker = connected ? broker : std::string();
}

void count_frame_pushed() {
    std::lock_guard<std::mutex> lock(g_mu);
    ++g_counters.frames_pushed;
}

void count_catch_up(uint64_t frames_skipped, uint64_t overwritten) {
    std::lock_guard<std::mutex> lock(g_mu);
    ++g_counters.reader_jumps;
    g_counters.frames_skipped += frames_skipped;
    g_counters.frames_overwritten += overwritten;
}

} // namespace internal

// The reason a start is refused goes to stderr; if that write fails, the -1 still tells the
// caller.
int32_t start(const Options &options) {
    if (internal::started()) {
        (void)std::fprintf(stderr, "hostkit: start called twice without stop\n");
        return -1;
    }
    if (!valid_device_id(options.device_id)) {
        (void)std::fprintf(stderr, "hostkit: invalid device id '%s' (1..63 of A-Z a-z 0-9 . _ -)\n",
                           options.device_id.c_str());
        return -1;
    }
    if (!(options.speed > 0.0) || options.speed > 100000.0) {
        (void)std::fprintf(stderr, "hostkit: speed must be in (0, 100000], got %g\n",
                           options.speed);
        return -1;
    }
    if (!options.cloud) {
        (void)std::fprintf(stderr, "hostkit: no cloud transport given\n");
        return -1;
    }
    if (options.ring_seconds == 0 || options.ring_seconds > 3600) {
        (void)std::fprintf(stderr, "hostkit: ring_seconds must be 1..3600, got %u\n",
                           options.ring_seconds);
        return -1;
    }
    // A lag limit at or below the longest pre-record would take every event start for a lag.
    if (options.ring_delay_ms != 0 &&
        (options.ring_delay_ms <= ring::longest_pre_record_ms(options.ring_seconds) ||
         options.ring_delay_ms > uint64_t{options.ring_seconds} * 1000)) {
        (void)std::fprintf(
            stderr,
            "hostkit: ring_delay_ms must be above the longest pre-record (%llu ms) and "
            "at most the ring (%u s), got %u\n",
            static_cast<unsigned long long>(ring::longest_pre_record_ms(options.ring_seconds)),
            options.ring_seconds, options.ring_delay_ms);
        return -1;
    }
    // The MQTT client is made (not connected yet) before anything is written: a bad URL
    // leaves everything as it was.
    std::string mqtt_error;
    if (!internal::mqtt_net_start(options, &mqtt_error)) {
        (void)std::fprintf(stderr, "hostkit: mqtt: %s\n", mqtt_error.c_str());
        return -1;
    }
    if (options.data_dir.empty() || !make_dirs(options.data_dir) ||
        !make_dirs(options.data_dir + "/kv")) {
        (void)std::fprintf(stderr, "hostkit: cannot make data directory '%s': %s\n",
                           options.data_dir.c_str(), std::strerror(errno));
        internal::mqtt_net_stop();
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_options = options;
        g_counters = Counters{};
    }
    internal::clock_start(options);
    // The spool loads what an earlier run left (its log lines at this run's level).
    std::string spool_error;
    if (!internal::spool_open(options, &spool_error)) {
        (void)std::fprintf(stderr, "hostkit: %s\n", spool_error.c_str());
        internal::mqtt_net_stop();
        std::lock_guard<std::mutex> lock(g_mu);
        g_options.cloud.reset();
        return -1;
    }
    internal::kv_start(options.data_dir);
    internal::seq_log_start(options.data_dir);
    internal::ring_reset(options);
    internal::device_reset();
    internal::mqtt_start();
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_started = true;
    }
    internal::spool_run();
    return 0;
}

void stop() {
    if (!internal::started()) {
        return;
    }
    internal::spool_stop();
    internal::mqtt_net_stop();
    internal::mqtt_stop();
    internal::ring_reset(g_options);
    internal::device_reset();
    internal::seq_log_stop();
    std::lock_guard<std::mutex> lock(g_mu);
    g_started = false;
    g_options.cloud.reset();
}

void spool_retry_now() {
    internal::spool_retry_now();
}

Counters counters() {
    Counters c;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        c = g_counters;
    }
    internal::spool_counters(&c);
    internal::mqtt_net_counters(&c);
    return c;
}

} // namespace hostkit

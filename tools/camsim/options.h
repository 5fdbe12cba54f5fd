// The camera simulator's command line.
#ifndef VEXO_CAMSIM_OPTIONS_H
#define VEXO_CAMSIM_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host_kit.h"

namespace camsim {

/// Something the simulator does at a moment of the run (seconds of kit time from the start).
struct Action {
    enum class Kind { kMotion, kTrigger, kPause, kResume, kAbort, kOrder };
    Kind kind = Kind::kMotion;
    double at_s = 0;
    double length_s = 0;        // motion: seconds until the motion ends (0: left to the module)
    std::string trigger_action; // "record", "pic", "pic_v"
    int32_t duration_s = 0;     // trigger: recording length
    std::string store_mode;     // order: the new store mode
};

struct Options {
    std::string input; // empty: the bundled sample
    std::string data_dir = "vexo-data";
    std::string device_id = "camsim-0001";
    std::string store_mode = "event";
    double duration_s = 50; // kit seconds the camera runs after the module is ready
    double speed = 1.0;
    uint32_t start_time = 0; // 0: now
    int32_t event_duration = 12;
    int32_t slice_duration = 10;
    int32_t silence_interval = 5;
    int32_t daily_events = 20;
    int32_t pre_record = -1; // -1: the module's default
    uint32_t ring_seconds = 10;
    bool audio = true;
    bool quiet = false; // no progress line
    int verbosity = 0;  // 0 errors, 1 debug, 2 trace (module log lines)
    std::vector<Action> actions;
    bool default_actions = true; // no --motion/--trigger/... given: a couple of motion events

    // A cloud service on the network (--cloud) instead of the embedded one.
    std::string cloud_url;    // empty: the embedded cloud in DATA/cloud
    std::string cloud_ca;     // PEM authorities for an https cloud; empty: the system's
    std::string mqtt_url;     // the cloud's broker, mqtt://host[:port]; empty: none
    std::string device_token; // sent by the kit with every cloud call
    std::string admin_token;  // sent with every admin call
    bool send_order = true;   // false (--no-order): the cloud's order is left as it is
    // The outage spool of a network cloud (--no-spool, --spool-bytes, --spool-age); the
    // embedded cloud never fails and runs without one.
    bool spool = true;
    uint64_t spool_bytes = uint64_t{256} << 20;
    uint32_t spool_age_s = 24 * 3600;
    // The broker's TLS files and login (--mqtt-ca, --mqtt-cert, --mqtt-key, --mqtt-user,
    // the password from --mqtt-password-file or $VEXO_MQTT_PASSWORD).
    hostkit::MqttSecurity mqtt_security;
};

/// Parses argv. On a bad argument returns nullopt after printing the reason and the usage.
/// Sets *exit_now for --help (usage printed, exit 0).
std::optional<Options> parse_options(int argc, char **argv, bool *exit_now);

/// Bytes as "N", or "NK", "NM", "NG" (times 1024, 1024^2, 1024^3); nullopt for anything else,
/// 0 and sizes beyond 2^63.
std::optional<uint64_t> parse_size(const std::string &text);

/// "2026-11-22 23:59:30" (local time) or seconds since the epoch; nullopt when neither.
std::optional<uint32_t> parse_time(const std::string &text);

} // namespace camsim

#endif

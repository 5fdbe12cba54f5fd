/// The host kit: every platform call of the module made real on Linux. This header is for the
/// program that hosts the module (the camera simulator, tests): it configures the kit,
/// feeds the ring buffer, provides snapshots and MQTT messages, and reads the kit's counters.
/// The module itself sees only the platform declarations.
#ifndef VEXO_HOST_KIT_H
#define VEXO_HOST_KIT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cloud_transport.h"

namespace hostkit {

enum class LogLevel { kError = 0, kDebug = 1, kTrace = 2 };

/// How the kit's MQTT client proves who it is and checks the broker. Files are PEM.
struct MqttSecurity {
    /// Certificate authorities that vouch for an mqtts:// broker; empty: the system's.
    std::string ca_file;
    /// A client certificate and its (unencrypted) key, for brokers that ask for one.
    std::string cert_file;
    std::string key_file;
    /// The broker login; empty: none. The password is only ever sent with a user name.
    std::string username;
    std::string password;
};

/// The outage spool: while the cloud cannot be reached (no answer, 5xx, 408, 429), the media
/// uploads, start/stop notifications, event reports and alarms the module hands over are kept
/// in order in a directory, the module is answered as if they were delivered (a start with
/// {"needUpdate":false}), and a thread of the kit sends them, oldest first, once the cloud
/// answers. Configuration fetches never wait in it, and a 4xx goes back to the module.
struct SpoolOptions {
    bool enabled = false;
    /// Where the items live; empty: <data_dir>/spool.
    std::string dir;
    /// Over either bound the oldest whole recording is dropped and reported to the cloud as a
    /// gap. Age is measured on the kit clock (now_ms), so a fast clock ages items fast.
    uint64_t max_bytes = uint64_t{256} << 20;
    uint32_t max_age_s = 24 * 3600;
    /// Time limits of live requests while the spool is on, real seconds: a cloud that accepts
    /// and never answers holds the module's worker for one of them at most, as every later
    /// call queues without a network attempt. Replays keep the full limits (30 s, uploads 60 s).
    uint32_t live_timeout_s = 5;
    uint32_t live_upload_timeout_s = 15;
    /// The sender's wait between attempts while the cloud does not answer, real milliseconds:
    /// from retry_min_ms, doubling, at most retry_max_ms, each jittered down by up to half.
    uint32_t retry_min_ms = 500;
    uint32_t retry_max_ms = 60000;
};

struct Options {
    /// Key-value records go to <data_dir>/kv/, the sequence log to <data_dir>/seq-log.jsonl.
    std::string data_dir = "vexo-data";
    /// The device id (gateway id): 1..63 characters of A-Z a-z 0-9 . _ -
    std::string device_id = "camsim-0001";
    /// Kit time at start, seconds since the epoch; 0 takes the real time.
    uint32_t clock_start = 0;
    /// How much faster than real time the kit clock runs (>= 1.0 is typical; > 0).
    double speed = 1.0;
    /// Lines below this level are not printed; errors always are.
    LogLevel log_level = LogLevel::kDebug;
    /// Where the cloud calls go; required.
    std::shared_ptr<CloudTransport> cloud;
    /// Sent as "Authorization: Bearer <token>" with every cloud request when not empty.
    std::string device_token;
    /// The MQTT broker the cloud's commands come from, "mqtt://host[:port]" (default port
    /// 1883) or "mqtts://host[:port]" over TLS (default port 8883, the broker's certificate
    /// and host name always verified); empty: none (an embedded cloud delivers them with
    /// mqtt_deliver). Several brokers separated by commas (all mqtt:// or all mqtts://):
    /// the kit uses one and moves on to the next when it cannot reach it. The kit
    /// subscribes to "vexo/<device_id>/cmd" with QoS 1 and keeps its session across
    /// reconnects; it connects once the module has attached its first MQTT handler.
    std::string mqtt_url;
    /// TLS files and login for mqtt_url; start() refuses settings that cannot work (a CA
    /// file without a certificate in it, TLS files for a plain mqtt:// broker, ...).
    MqttSecurity mqtt_security;
    /// Seconds of frames each ring-buffer stream holds.
    uint32_t ring_seconds = 10;
    /// The lag limit, ms of stream time: a reader whose next frame is further than this behind
    /// the newest is reported by if_delay and then moved to the newest key frame. It must lie
    /// above the longest pre-record the module accepts ((ring_seconds - 3) s) and within the
    /// ring; 0 takes half a second short of the ring.
    uint32_t ring_delay_ms = 0;
    /// Real milliseconds DeleteThrdHandle waits for a thread to end before it detaches it.
    uint32_t thread_join_timeout_ms = 5000;
    /// Store and forward through a cloud outage; off: a failed call fails, as the module expects.
    SpoolOptions spool;
};

/// Starts the kit with these options; call before any module call. 0 on success, -1 with an
/// error on stderr when an option is invalid (a bad mqtt_url included) or the data directory
/// cannot be made. A broker that is not reachable yet is not an error: the kit keeps trying.
int32_t start(const Options &options);
/// Stops the kit's own threads (spool sender, MQTT dispatcher, MQTT client) and forgets
/// readers, handlers and streams (spooled items stay on disk for the next start); no MQTT handler
/// runs once it returns. Call after the module is uninitialised.
void stop();

/// Has the outage spool's sender try the cloud at once instead of waiting out its back-off
/// (up to a minute after a long outage): for a host that is about to stop and wants the queue
/// out first, or that has learnt that the cloud is back. Nothing happens without a spool.
void spool_retry_now();

// ---- clock ----
/// Kit time in milliseconds since the epoch (runs at Options::speed).
uint64_t now_ms();
/// Sleeps until the kit clock reaches the given time (ms since the epoch).
void sleep_until_ms(uint64_t kit_ms);

// ---- ring buffer (the camera's side) ----
/// Declares a stream and the largest frame it will carry (-1 unknown). Streams are
/// VEXO_STREAM_MAIN (0) and VEXO_STREAM_AUDIO (9). Until a stream is declared its
/// get_max_buf_secs answers -1.
void ring_declare(int32_t stream, int32_t max_frame_size);
/// Appends a frame (copied) to a stream; old frames beyond Options::ring_seconds fall out.
void ring_push(int32_t stream, uint32_t type, const uint8_t *data, uint32_t size, uint64_t pts,
               uint64_t timestamp_ms);

// ---- device services ----
/// Produces a JPEG picture for vexo_ipc_get_snapshot_cb; false when none is available.
using SnapshotSource = std::function<bool(std::vector<uint8_t> *jpeg)>;
void set_snapshot_source(SnapshotSource source);

/// Queues an MQTT message (the JSON payload text) for the kit's MQTT thread, which parses it
/// and calls the handler attached for its "protocol" number. Unparsable payloads and unknown
/// protocols are logged and dropped.
void mqtt_deliver(const std::string &payload);
/// The same, on the calling thread: for a network MQTT client whose callback thread is the
/// kit's MQTT thread. Returns 0 when a handler ran.
int32_t mqtt_dispatch(const std::string &payload);

// ---- counters, for progress displays and tests ----
struct Counters {
    uint64_t uploads = 0; ///< media files accepted by the cloud
    uint64_t upload_failures = 0;
    uint64_t bytes_uploaded = 0;
    uint64_t api_posts = 0; ///< notifications sent
    uint64_t alarms = 0;
    uint64_t mqtt_messages = 0; ///< dispatched to a handler
    /// Of those, the cloud's remote triggers (protocol 307) and order changes (protocol 300),
    /// whichever way they came: the network broker or an embedded cloud.
    uint64_t remote_triggers = 0;
    uint64_t order_changes = 0;
    /// The MQTT client is connected to its broker and subscribed to its command topic.
    bool mqtt_connected = false;
    /// The broker it is connected to, "host:port" (an IPv6 host in brackets); empty when not.
    std::string mqtt_broker;
    /// The network MQTT client waits for the module's first handler and has not tried the
    /// broker yet; then the connection attempts it made (first connect, and each one again
    /// after a failure or a lost connection). Both 0 without a network broker.
    bool mqtt_waiting_for_handler = false;
    uint64_t mqtt_connect_attempts = 0;
    uint64_t frames_pushed = 0;
    uint64_t reader_jumps = 0;       ///< times a lagging reader was moved to the newest key frame
    uint64_t frames_skipped = 0;     ///< frames those jumps passed over
    uint64_t frames_overwritten = 0; ///< of the skipped, those the ring had dropped already
    std::string last_upload;         ///< file name of the newest accepted upload
    /// The outage spool (Options::spool): items waiting for the cloud, their bytes on disk, the
    /// kit time the oldest was queued (0 when none), items sent on replay, and items dropped
    /// (over a bound, refused by the cloud on replay, or found damaged). The last values stay
    /// readable after stop().
    uint64_t spool_items = 0;
    uint64_t spool_bytes = 0;
    uint64_t spool_oldest_ms = 0;
    uint64_t spool_sent = 0;
    uint64_t spool_dropped = 0;
};
Counters counters();

} // namespace hostkit

#endif

// What the host kit's files share among themselves; not for the kit's users.
#ifndef VEXO_HOST_INTERNAL_H
#define VEXO_HOST_INTERNAL_H

#include <cstdarg>
#include <cstdint>
#include <string>

#include "file_system.h"
#include "host_kit.h"

struct cJSON;

namespace hostkit::internal {

/// The options start() was given (defaults before it).
const Options &options();
/// True between start() and stop().
bool started();
/// The cloud transport, or null after stop(): a thread detached by DeleteThrdHandle may still
/// make a cloud call while the kit stops.
std::shared_ptr<CloudTransport> cloud();

/// Kit log line to stderr: "<kit time> <E|D|T> file:line message". Thread-safe.
void log_line(LogLevel level, const char *file, int32_t line, const char *fmt, va_list args)
    __attribute__((format(printf, 4, 0)));
void log_error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/// Real seconds/milliseconds for a span of kit time, and back.
uint64_t real_ms_for_kit_ms(uint64_t kit_ms);

/// Counter updates (all thread-safe).
void count_upload(const std::string &name, uint64_t bytes, bool ok);
void count_api_post();
void count_alarm();
/// A message dispatched to the handler attached for its protocol number.
void count_mqtt(uint32_t protocol);
/// broker: "host:port" of the broker the client is connected to; empty when not connected.
void set_mqtt_connected(bool connected, const std::string &broker = "");
void count_frame_pushed();
/// One reader caught up: frames it passed over, and how many of those the ring had dropped.
void count_catch_up(uint64_t frames_skipped, uint64_t overwritten);

/// What read_whole_number found.
enum class WholeNumber {
    kFits,    ///< a whole number within the bounds, in *out
    kClamped, ///< a whole number beyond a bound; *out holds that bound
    kRefused, ///< not a number, or one with a fraction; *out untouched
};
/// A JSON number as a whole number within [low, high], without the undefined behaviour of
/// casting an out-of-range double. The bounds must lie within +-2^53. The caller decides
/// whether a clamped value is used (and logs it) or the input refused.
WholeNumber read_whole_number(const cJSON *item, int64_t low, int64_t high, int64_t *out);

/// Per-part reset and start hooks, called by start()/stop() in kit.cc.
void clock_start(const Options &options);
/// fs: the calls the key-value store changes its files through; null for the real disk.
void kv_start(const std::string &data_dir, FileSystem *fs = nullptr);
void seq_log_start(const std::string &data_dir);
void seq_log_stop();
void ring_reset(const Options &options);
void mqtt_start();
void mqtt_stop();
/// The network MQTT client (mqtt_client.cc), when Options::mqtt_url is set: made by start()
/// (false with *error for a bad URL), connected when the module attaches its first handler,
/// ended by stop() before the handlers are forgotten.
bool mqtt_net_start(const Options &options, std::string *error);
void mqtt_net_connect();
void mqtt_net_stop();
/// The network client's members of Counters (waiting for a handler, connect attempts).
void mqtt_net_counters(Counters *c);
void device_reset();

} // namespace hostkit::internal

/// The key-value store's directory handling, shared with its tests: the file a key lives in.
namespace hostkit::kv {
/// "<data_dir>/kv/<key>.rec"; empty when the key is not a safe file name
/// (1..64 characters of A-Z a-z 0-9 . _ -, not starting with '.').
std::string record_path(const std::string &key);
} // namespace hostkit::kv

#endif

// vexo-loadgen's command line: how many cameras, what they send, how often, and where.
#ifndef VEXO_LOADGEN_OPTIONS_H
#define VEXO_LOADGEN_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

namespace loadgen {

struct Options {
    uint32_t cameras = 10;
    uint64_t slice_bytes = 750000;
    uint32_t slice_every_s = 10; // whole seconds: slices are named by elapsed seconds
    double duration_s = 60;      // cameras stop making requests after this
    double ramp_s = 0;           // camera i starts at i * ramp / cameras
    uint32_t slices_per_recording = 6;
    double alarm_every_s = 60;     // mean seconds between a camera's alarms; 0: none
    double reconnect_every_s = 60; // mean seconds between a camera's reconnects; 0: never
    double timeout_s = 60;         // one request: connect, send and answer
    std::string server;            // http://host[:port][/base]
    std::string device_prefix = "lg-";
    std::string token_prefix;     // non-empty: "Authorization: Bearer <prefix><device>"
    std::string admin_token;      // for the order each camera sets at its start
    bool register_devices = true; // false (--no-register): the service knows them already
    bool put_only = false;        // plain PUTs of the slices under the base URL
    bool json = false;            // the result as JSON on stdout, the table on stderr
    bool progress = false;
    double progress_every_s = 5;
    uint32_t threads = 1;
    uint64_t seed = 1;
};

/// Parses argv. nullopt with *error set for a bad command line; nullopt with *error empty
/// and *help true for --help.
std::optional<Options> parse_options(int argc, const char *const *argv, std::string *error,
                                     bool *help);

/// The usage text.
const char *usage();

/// "750000", "750k", "750K" (x1000), "1M" (x1000000), "64Ki", "1Mi" (x1024, x1048576);
/// nullopt for anything else or more than 2^40.
std::optional<uint64_t> parse_bytes(const std::string &text);

/// The device id of camera index (0-based): the prefix and index + 1, zero-padded to the
/// width of the largest index (at least 4 digits).
std::string device_id(const Options &options, uint32_t index);

} // namespace loadgen

#endif

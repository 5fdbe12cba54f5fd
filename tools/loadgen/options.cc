// Parsing vexo-loadgen's command line. Every value is checked whole: "10s", "1e3" for a count
// or an empty value are refused with the option's name, never read in part.
#include "options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

namespace loadgen {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr uint64_t kMaxBytes = uint64_t{1} << 40;
constexpr uint32_t kMaxCameras = 100000;
constexpr uint32_t kMaxThreads = 64;
constexpr size_t kMaxPrefix = 40; // a device id has at most 64 characters
constexpr int kMinIndexDigits = 4;

constexpr char kUsage[] =
    "usage: vexo-loadgen --server URL [options]\n"
    "  N virtual cameras on keep-alive connections, each with its own device id: the order\n"
    "  set through the admin interface, storage/config, the start notification, a media\n"
    "  slice every T seconds, the stop notification, alarms and reconnects now and then.\n"
    "  At the end: per request kind p50/p99/max latency (from when the camera wanted to send\n"
    "  the request until the whole answer arrived), count and errors, and the upload rate.\n"
    "\n"
    "  --server URL             http://host[:port][/base] of the service (or, with\n"
    "                           --put-only, the base URL the slices are PUT under)\n"
    "  --cameras N              cameras (default 10)\n"
    "  --slice-bytes S          bytes of a slice: 750000, 750k, 1M, 64Ki (default 750k)\n"
    "  --slice-every T          whole seconds between a camera's slices (default 10)\n"
    "  --duration D             seconds the cameras run (default 60)\n"
    "  --ramp R                 spread the cameras' starts over R seconds (default 0)\n"
    "  --slices-per-recording K a recording ends after K slices, the next starts (default 6)\n"
    "  --alarm-every A          mean seconds between a camera's alarms, 0 none (default 60)\n"
    "  --reconnect-every C      mean seconds between a camera's reconnects, 0 never\n"
    "                           (default 60)\n"
    "  --timeout S              seconds for one request, connect included (default 60)\n"
    "  --device-prefix P        device ids are P0001, P0002, ... (default lg-)\n"
    "  --token-prefix P         send \"Authorization: Bearer P<device id>\"\n"
    "  --admin-token T          the admin token for setting the cameras' order\n"
    "  --no-register            leave the devices' order alone (the service knows them)\n"
    "  --put-only               plain PUTs of the slices to URL/<device>/<start>_<index>.media,\n"
    "                           nothing else (for comparing with a plain web server)\n"
    "  --threads N              network threads, cameras spread over them (default 1)\n"
    "  --progress               a line every few seconds on stderr (--progress-every S)\n"
    "  --json                   the result as JSON on stdout, the table on stderr\n"
    "  --seed N                 seed of the alarm and reconnect times (default 1)\n"
    "Exit status: 0 without errors, 3 when a request failed, 2 for a bad command line.\n";

// ---- helpers -------------------------------------------------------------------------------

bool parse_double(const std::string &text, double *value) {
    if (text.empty()) {
        return false;
    }
    char *end = nullptr;
    errno = 0;
    const double parsed = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(parsed)) {
        return false;
    }
    *value = parsed;
    return true;
}

bool parse_unsigned(const std::string &text, uint64_t max, uint64_t *value) {
    if (text.empty() || text.size() > 20) {
        return false;
    }
    uint64_t parsed = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (parsed > (max - digit) / 10) {
            return false;
        }
        parsed = parsed * 10 + digit;
    }
    *value = parsed;
    return true;
}

bool valid_prefix(const std::string &prefix) {
    for (char c : prefix) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) {
            return false;
        }
    }
    return prefix.size() <= kMaxPrefix;
}

bool valid_token_prefix(const std::string &prefix) {
    for (char c : prefix) {
        if (c <= ' ' || c > '~') {
            return false;
        }
    }
    return true;
}

std::optional<Options> fail(std::string *error, const std::string &message) {
    *error = message;
    return std::nullopt;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

const char *usage() {
    return kUsage;
}

std::optional<uint64_t> parse_bytes(const std::string &text) {
    static const std::pair<const char *, uint64_t> kSuffixes[] = {
        {"Ki", 1024}, {"Mi", 1024 * 1024}, {"k", 1000}, {"K", 1000}, {"M", 1000 * 1000}};
    uint64_t factor = 1;
    std::string digits = text;
    for (const auto &[suffix, times] : kSuffixes) {
        const std::string s = suffix;
        if (digits.size() > s.size() &&
            digits.compare(digits.size() - s.size(), s.size(), s) == 0) {
            digits.resize(digits.size() - s.size());
            factor = times;
            break;
        }
    }
    uint64_t value = 0;
    if (!parse_unsigned(digits, kMaxBytes, &value) || value > kMaxBytes / factor) {
        return std::nullopt;
    }
    return value * factor;
}

std::string device_id(const Options &options, uint32_t index) {
    int width = kMinIndexDigits;
    for (uint32_t n = options.cameras; n >= 10000; n /= 10) {
        ++width;
    }
    std::string number = std::to_string(index + 1);
    if (static_cast<int>(number.size()) < width) {
        number.insert(0, static_cast<size_t>(width) - number.size(), '0');
    }
    return options.device_prefix + number;
}

std::optional<Options> parse_options(int argc, const char *const *argv, std::string *error,
                                     bool *help) {
    Options o;
    *help = false;
    error->clear();
    using Setter = std::function<bool(const std::string &)>;
    const auto count = [](uint32_t *field, uint64_t low, uint64_t high) {
        return [field, low, high](const std::string &v) {
            uint64_t n = 0;
            if (!parse_unsigned(v, high, &n) || n < low) {
                return false;
            }
            *field = static_cast<uint32_t>(n);
            return true;
        };
    };
    const auto seconds = [](double *field, double low, bool low_inclusive) {
        return [field, low, low_inclusive](const std::string &v) {
            double d = 0;
            if (!parse_double(v, &d) || d < low || (!low_inclusive && d == low) || d > 1e7) {
                return false;
            }
            *field = d;
            return true;
        };
    };
    const std::map<std::string, std::pair<Setter, const char *>> with_value = {
        {"--server", {[&o](const std::string &v) { return !(o.server = v).empty(); }, "a URL"}},
        {"--cameras", {count(&o.cameras, 1, kMaxCameras), "a number of cameras from 1 to 100000"}},
        {"--slice-bytes",
         {[&o](const std::string &v) {
              const std::optional<uint64_t> bytes = parse_bytes(v);
              o.slice_bytes = bytes.value_or(0);
              return bytes.has_value() && *bytes > 0;
          },
          "a size such as 750000, 750k, 1M or 64Ki, at least 1 byte"}},
        {"--slice-every", {count(&o.slice_every_s, 1, 3600), "whole seconds from 1 to 3600"}},
        {"--duration", {seconds(&o.duration_s, 0, false), "seconds, more than 0"}},
        {"--ramp", {seconds(&o.ramp_s, 0, true), "seconds, 0 or more"}},
        {"--slices-per-recording",
         {count(&o.slices_per_recording, 1, 100000), "a number of slices from 1 to 100000"}},
        {"--alarm-every", {seconds(&o.alarm_every_s, 0, true), "seconds, 0 or more"}},
        {"--reconnect-every", {seconds(&o.reconnect_every_s, 0, true), "seconds, 0 or more"}},
        {"--timeout", {seconds(&o.timeout_s, 0, false), "seconds, more than 0"}},
        {"--device-prefix",
         {[&o](const std::string &v) { return valid_prefix(o.device_prefix = v); },
          "at most 40 characters of A-Z a-z 0-9 . _ -"}},
        {"--token-prefix",
         {[&o](const std::string &v) {
              return !(o.token_prefix = v).empty() && valid_token_prefix(v);
          },
          "printable characters without spaces"}},
        {"--admin-token",
         {[&o](const std::string &v) {
              return !(o.admin_token = v).empty() && valid_token_prefix(v);
          },
          "printable characters without spaces"}},
        {"--threads", {count(&o.threads, 1, kMaxThreads), "a number of threads from 1 to 64"}},
        {"--progress-every",
         {[&o, &seconds](const std::string &v) {
              o.progress = true;
              return seconds(&o.progress_every_s, 0.1, true)(v);
          },
          "seconds, at least 0.1"}},
        {"--seed",
         {[&o](const std::string &v) { return parse_unsigned(v, UINT64_MAX, &o.seed); },
          "a whole number"}},
    };
    const std::map<std::string, bool *> flags = {
        {"--put-only", &o.put_only}, {"--json", &o.json}, {"--progress", &o.progress}};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            *help = true;
            return std::nullopt;
        }
        if (arg == "--no-register") {
            o.register_devices = false;
            continue;
        }
        if (const auto flag = flags.find(arg); flag != flags.end()) {
            *flag->second = true;
            continue;
        }
        const auto option = with_value.find(arg);
        if (option == with_value.end()) {
            return fail(error, "unknown argument \"" + arg + "\"");
        }
        if (i + 1 >= argc) {
            return fail(error, "missing value for " + arg);
        }
        const std::string value = argv[++i];
        if (!option->second.first(value)) {
            return fail(error, arg + " takes " + option->second.second + ", not \"" + value + "\"");
        }
    }
    if (o.server.empty()) {
        return fail(error, "--server URL is needed");
    }
    if (o.put_only && (!o.token_prefix.empty() || !o.admin_token.empty())) {
        return fail(error, "--put-only sends plain PUTs: no --token-prefix or --admin-token");
    }
    return o;
}

} // namespace loadgen

// Command-line parsing of the camera simulator.
#include "options.h"

#include <time.h>

#include <cerrno>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mqtt_client.h"

namespace camsim {
namespace {

const char kUsage[] =
    "usage: vexo-camsim [options]\n"
    "\n"
    "Runs the cloud-recording module on the host kit: a camera fed from a media file, the\n"
    "embedded cloud service storing what it uploads under DIR/cloud, or with --cloud a cloud\n"
    "service on the network.\n"
    "\n"
    "  --input FILE          media file to play in a loop (H.264/H.265 with AAC, G.711 or PCM;\n"
    "                        default: the bundled sample)\n"
    "  --data DIR            where the camera's store and the cloud live (default vexo-data)\n"
    "  --device ID           device id (default camsim-0001)\n"
    "  --mode MODE           order store mode: event, alltime or none (default event)\n"
    "  --duration SECS       how long the camera runs, kit seconds (default 50)\n"
    "  --speed X             kit clock speed, times real time (default 1)\n"
    "  --start TIME          kit clock start: \"YYYY-MM-DD HH:MM:SS\" local, or epoch seconds\n"
    "  --event-duration S    order: event recording length (default 12)\n"
    "  --slice S             order: media file length, 3..60 (default 10)\n"
    "  --silence S           order: silence after an event (default 5)\n"
    "  --daily N             order: events allowed per day (default 20)\n"
    "  --pre-record S        seconds recorded before an event (default: the module's)\n"
    "  --ring-seconds N      seconds the ring buffer holds (default 10)\n"
    "  --no-audio            play the video only\n"
    "  --motion AT[+LEN]     a motion event at AT seconds, ending LEN seconds later\n"
    "  --trigger AT:ACTION[:DUR]  a remote trigger from the cloud (record, pic, pic_v)\n"
    "  --pause AT, --resume AT    pause/resume the module\n"
    "  --abort AT            the cloud aborts the order\n"
    "  --order AT:MODE       the cloud sets a new store mode\n"
    "  --quiet               no progress line\n"
    "  -v, -vv               module debug / trace log lines\n"
    "  --help\n"
    "\n"
    "A cloud on the network:\n"
    "  --cloud URL           the cloud service at URL (http:// or https://) instead of the\n"
    "                        embedded one; the order at start, --trigger, --abort, --order and\n"
    "                        the summary's recordings go through its admin endpoints\n"
    "  --cloud-ca FILE       PEM certificate authorities for an https cloud (default: the\n"
    "                        system's); the server certificate is always verified\n"
    "  --mqtt URL            the cloud's MQTT broker, mqtt://host[:port] (default port 1883)\n"
    "                        or mqtts://host[:port] over TLS (default port 8883)\n"
    "  --token T             device token for the cloud calls\n"
    "  --admin-token T       token for the admin calls\n"
    "  --no-order            leave the cloud's order as it is (--mode and the order values\n"
    "                        are not sent)\n"
    "These five need --cloud. An order refused by the cloud, or a cloud that cannot be\n"
    "reached at start, ends the run with status 2.\n"
    "\n"
    "Store and forward (these need --cloud):\n"
    "  --spool-bytes N       bound of the outage spool: bytes, or N with K, M or G (times\n"
    "                        1024; default 256M)\n"
    "  --spool-age SECS      the oldest item it keeps, kit seconds (default 86400)\n"
    "  --no-spool            no spool: a call the cloud does not answer fails, as the module\n"
    "                        expects without one\n"
    "While the cloud cannot be reached (no answer, 5xx), uploads, notifications and alarms\n"
    "wait in order in DIR/camera/spool and go out once it answers again, also after a\n"
    "restart; over a bound the oldest recording is dropped and reported to the cloud as a\n"
    "gap. At the end of a run the camera waits while the cloud takes the spooled items (it\n"
    "stops waiting after 15 s without progress, or on Ctrl-C; what is left goes out at the\n"
    "next start). The progress line and the summary show the spool: items, bytes, the\n"
    "oldest item's age, items sent and dropped. The embedded cloud never fails: it runs\n"
    "without a spool.\n"
    "\n"
    "A locked-down broker (these need --mqtt):\n"
    "  --mqtt-ca FILE        PEM certificate authorities for an mqtts broker (default: the\n"
    "                        system's); the broker's certificate and name are always verified\n"
    "  --mqtt-cert FILE, --mqtt-key FILE  a client certificate and its key (PEM)\n"
    "  --mqtt-user NAME      the broker login\n"
    "  --mqtt-password-file FILE  the login's password: the file's first line; without it\n"
    "                        $VEXO_MQTT_PASSWORD when set (never on the command line)\n"
    "\n"
    "Without --motion/--trigger/--pause/--abort/--order: motion events at 8 s (10 s long) and\n"
    "at 30 s.\n"
    "\n"
    "Lines on stderr with a fixed form, for scripts (T: kit seconds since the start as \"%6.1f\";\n"
    "OLD, NEW, MODE: alltime, event or \"no order\"; OLD is \"not configured\" when the\n"
    "module gets its first configuration):\n"
    "  [camsim] Ts store mode OLD -> NEW    the module's store mode changed, e.g.\n"
    "                                       \"[camsim]   12.3s store mode event -> alltime\"\n"
    "  [camsim] mqtt connected              connected to the broker and subscribed (--mqtt)\n"
    "  [camsim] mqtt disconnected\n"
    "The summary on stdout ends with \"store mode at end: MODE\".\n";

bool parse_double(const char *text, double *out) {
    char *end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(v >= 0)) {
        return false;
    }
    *out = v;
    return true;
}

bool parse_int(const char *text, int32_t lo, int32_t hi, int32_t *out) {
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *out = static_cast<int32_t>(v);
    return true;
}

/// "AT" or "AT+LEN" for --motion.
bool parse_motion(const std::string &text, Action *a) {
    const size_t plus = text.find('+');
    if (!parse_double(text.substr(0, plus).c_str(), &a->at_s)) {
        return false;
    }
    return plus == std::string::npos || parse_double(text.substr(plus + 1).c_str(), &a->length_s);
}

/// "AT:ACTION[:DUR]" for --trigger.
bool parse_trigger(const std::string &text, Action *a) {
    const size_t c1 = text.find(':');
    if (c1 == std::string::npos || !parse_double(text.substr(0, c1).c_str(), &a->at_s)) {
        return false;
    }
    const size_t c2 = text.find(':', c1 + 1);
    a->trigger_action = text.substr(c1 + 1, c2 == std::string::npos ? c2 : c2 - c1 - 1);
    if (a->trigger_action != "record" && a->trigger_action != "pic" &&
        a->trigger_action != "pic_v") {
        return false;
    }
    a->duration_s = 20;
    return c2 == std::string::npos ||
           parse_int(text.substr(c2 + 1).c_str(), 1, 1800, &a->duration_s);
}

/// The first line of a file holding a secret, without its line end; false with *error when
/// it cannot be read or is empty.
bool read_secret_file(const std::string &path, std::string *secret, std::string *error) {
    FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    int c = 0;
    while ((c = std::fgetc(f)) != EOF && c != '\n' && line.size() < 4096) {
        line.push_back(static_cast<char>(c));
    }
    std::fclose(f);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (line.empty()) {
        *error = path + " holds no password on its first line";
        return false;
    }
    *secret = line;
    return true;
}

/// The broker's TLS files and login: read, then checked the way the kit will use them.
bool finish_mqtt_security(Options *o, const std::string &password_file, std::string *error) {
    const bool any = !o->mqtt_security.ca_file.empty() || !o->mqtt_security.cert_file.empty() ||
                     !o->mqtt_security.key_file.empty() || !o->mqtt_security.username.empty() ||
                     !password_file.empty();
    if (o->mqtt_url.empty()) {
        if (any) {
            *error = "--mqtt-ca, --mqtt-cert, --mqtt-key, --mqtt-user and --mqtt-password-file "
                     "need --mqtt";
            return false;
        }
        return true;
    }
    if (!password_file.empty()) {
        if (!read_secret_file(password_file, &o->mqtt_security.password, error)) {
            *error = "bad --mqtt-password-file: " + *error;
            return false;
        }
    } else if (const char *env = std::getenv("VEXO_MQTT_PASSWORD");
               env != nullptr && *env != '\0' && !o->mqtt_security.username.empty()) {
        o->mqtt_security.password = env;
    }
    if (!password_file.empty() && o->mqtt_security.username.empty()) {
        *error = "--mqtt-password-file needs --mqtt-user";
        return false;
    }
    hostkit::MqttAddress broker;
    if (!hostkit::parse_mqtt_url(o->mqtt_url, &broker, error) ||
        !hostkit::check_mqtt_security(broker, o->mqtt_security, error)) {
        return false;
    }
    return true;
}

bool parse_order(const std::string &text, Action *a) {
    const size_t c = text.find(':');
    if (c == std::string::npos || !parse_double(text.substr(0, c).c_str(), &a->at_s)) {
        return false;
    }
    a->store_mode = text.substr(c + 1);
    return !a->store_mode.empty();
}

} // namespace

std::optional<uint64_t> parse_size(const std::string &text) {
    size_t digits = 0;
    uint64_t n = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        if (n > (uint64_t{1} << 62) / 10) {
            return std::nullopt;
        }
        n = n * 10 + static_cast<uint64_t>(text[digits] - '0');
        ++digits;
    }
    const std::string unit = text.substr(digits);
    int shift = 0;
    if (unit == "K" || unit == "k") {
        shift = 10;
    } else if (unit == "M" || unit == "m") {
        shift = 20;
    } else if (unit == "G" || unit == "g") {
        shift = 30;
    } else if (!unit.empty()) {
        return std::nullopt;
    }
    if (digits == 0 || n == 0 || n > (uint64_t{1} << (63 - shift))) {
        return std::nullopt;
    }
    return n << shift;
}

std::optional<uint32_t> parse_time(const std::string &text) {
    char *end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (end != text.c_str() && *end == '\0') {
        if (v == 0 || v > UINT32_MAX) {
            return std::nullopt;
        }
        return static_cast<uint32_t>(v);
    }
    struct tm local {};
    const char *rest = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    if (rest == nullptr || *rest != '\0') {
        return std::nullopt;
    }
    local.tm_isdst = -1;
    const time_t t = mktime(&local);
    if (t <= 0 || static_cast<unsigned long long>(t) > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(t);
}

std::optional<Options> parse_options(int argc, char **argv, bool *exit_now) {
    Options o;
    std::string mqtt_password_file;
    const char *spool_option = nullptr; // the first spool option given
    *exit_now = false;
    auto fail = [](const std::string &why) -> std::optional<Options> {
        std::fprintf(stderr, "vexo-camsim: %s\n\n%s", why.c_str(), kUsage);
        return std::nullopt;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char **out) {
            if (i + 1 >= argc) {
                return false;
            }
            *out = argv[++i];
            return true;
        };
        const char *v = nullptr;
        Action a;
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            *exit_now = true;
            return o;
        } else if (arg == "--no-audio") {
            o.audio = false;
        } else if (arg == "--quiet") {
            o.quiet = true;
        } else if (arg == "-v") {
            o.verbosity = 1;
        } else if (arg == "-vv") {
            o.verbosity = 2;
        } else if (arg == "--no-order") {
            o.send_order = false;
        } else if (arg == "--no-spool") {
            o.spool = false;
            spool_option = spool_option != nullptr ? spool_option : "--no-spool";
        } else if (!value(&v)) {
            return fail(arg.rfind("--", 0) == 0 ? "missing value for " + arg
                                                : "unknown argument " + arg);
        } else if (arg == "--input") {
            o.input = v;
        } else if (arg == "--data") {
            o.data_dir = v;
        } else if (arg == "--device") {
            o.device_id = v;
        } else if (arg == "--mode") {
            o.store_mode = v;
        } else if (arg == "--duration") {
            if (!parse_double(v, &o.duration_s) || o.duration_s <= 0) {
                return fail("bad --duration " + std::string(v));
            }
        } else if (arg == "--speed") {
            if (!parse_double(v, &o.speed) || o.speed <= 0 || o.speed > 1000) {
                return fail("bad --speed " + std::string(v) + " (0 < X <= 1000)");
            }
        } else if (arg == "--start") {
            const auto t = parse_time(v);
            if (!t) {
                return fail("bad --start " + std::string(v));
            }
            o.start_time = *t;
        } else if (arg == "--event-duration") {
            if (!parse_int(v, 1, 1800, &o.event_duration)) {
                return fail("bad --event-duration " + std::string(v));
            }
        } else if (arg == "--slice") {
            if (!parse_int(v, 3, 60, &o.slice_duration)) {
                return fail("bad --slice " + std::string(v) + " (3..60)");
            }
        } else if (arg == "--silence") {
            if (!parse_int(v, 0, 86400, &o.silence_interval)) {
                return fail("bad --silence " + std::string(v));
            }
        } else if (arg == "--daily") {
            if (!parse_int(v, 0, 100000, &o.daily_events)) {
                return fail("bad --daily " + std::string(v));
            }
        } else if (arg == "--pre-record") {
            if (!parse_int(v, 0, 3600, &o.pre_record)) {
                return fail("bad --pre-record " + std::string(v));
            }
        } else if (arg == "--ring-seconds") {
            int32_t n = 0;
            if (!parse_int(v, 3, 3600, &n)) {
                return fail("bad --ring-seconds " + std::string(v));
            }
            o.ring_seconds = static_cast<uint32_t>(n);
        } else if (arg == "--motion") {
            a.kind = Action::Kind::kMotion;
            if (!parse_motion(v, &a)) {
                return fail("bad --motion " + std::string(v) + " (AT[+LEN])");
            }
            o.actions.push_back(a);
        } else if (arg == "--trigger") {
            a.kind = Action::Kind::kTrigger;
            if (!parse_trigger(v, &a)) {
                return fail("bad --trigger " + std::string(v) + " (AT:record|pic|pic_v[:DUR])");
            }
            o.actions.push_back(a);
        } else if (arg == "--pause" || arg == "--resume" || arg == "--abort") {
            a.kind = arg == "--pause"    ? Action::Kind::kPause
                     : arg == "--resume" ? Action::Kind::kResume
                                         : Action::Kind::kAbort;
            if (!parse_double(v, &a.at_s)) {
                return fail("bad " + arg + " " + std::string(v));
            }
            o.actions.push_back(a);
        } else if (arg == "--cloud" || arg == "--cloud-ca" || arg == "--mqtt" || arg == "--token" ||
                   arg == "--admin-token") {
            if (*v == '\0') {
                return fail("empty value for " + arg);
            }
            std::string &field = arg == "--cloud"      ? o.cloud_url
                                 : arg == "--cloud-ca" ? o.cloud_ca
                                 : arg == "--mqtt"     ? o.mqtt_url
                                 : arg == "--token"    ? o.device_token
                                                       : o.admin_token;
            field = v;
            hostkit::MqttAddress broker;
            std::string why;
            if (arg == "--mqtt" && !hostkit::parse_mqtt_url(v, &broker, &why)) {
                return fail("bad --mqtt " + why);
            }
        } else if (arg == "--mqtt-ca" || arg == "--mqtt-cert" || arg == "--mqtt-key" ||
                   arg == "--mqtt-user" || arg == "--mqtt-password-file") {
            if (*v == '\0') {
                return fail("empty value for " + arg);
            }
            std::string &field = arg == "--mqtt-ca"     ? o.mqtt_security.ca_file
                                 : arg == "--mqtt-cert" ? o.mqtt_security.cert_file
                                 : arg == "--mqtt-key"  ? o.mqtt_security.key_file
                                 : arg == "--mqtt-user" ? o.mqtt_security.username
                                                        : mqtt_password_file;
            field = v;
        } else if (arg == "--spool-bytes") {
            const std::optional<uint64_t> bytes = parse_size(v);
            if (!bytes) {
                return fail("bad --spool-bytes " + std::string(v) + " (N, NK, NM or NG, above 0)");
            }
            o.spool_bytes = *bytes;
            spool_option = spool_option != nullptr ? spool_option : "--spool-bytes";
        } else if (arg == "--spool-age") {
            int32_t secs = 0;
            if (!parse_int(v, 1, INT32_MAX, &secs)) {
                return fail("bad --spool-age " + std::string(v) + " (seconds, above 0)");
            }
            o.spool_age_s = static_cast<uint32_t>(secs);
            spool_option = spool_option != nullptr ? spool_option : "--spool-age";
        } else if (arg == "--order") {
            a.kind = Action::Kind::kOrder;
            if (!parse_order(v, &a)) {
                return fail("bad --order " + std::string(v) + " (AT:MODE)");
            }
            o.actions.push_back(a);
        } else {
            return fail("unknown option " + arg);
        }
    }
    if (o.cloud_url.empty()) {
        const char *needs_cloud = !o.mqtt_url.empty()       ? "--mqtt"
                                  : !o.cloud_ca.empty()     ? "--cloud-ca"
                                  : !o.device_token.empty() ? "--token"
                                  : !o.admin_token.empty()  ? "--admin-token"
                                  : !o.send_order           ? "--no-order"
                                                            : spool_option;
        if (needs_cloud != nullptr) {
            return fail(std::string(needs_cloud) + " is only valid with --cloud");
        }
    }
    if (std::string why; !finish_mqtt_security(&o, mqtt_password_file, &why)) {
        return fail(why);
    }
    if (!o.actions.empty()) {
        o.default_actions = false;
    } else if (o.store_mode == "event") {
        Action first;
        first.at_s = 8;
        first.length_s = 10;
        Action second;
        second.at_s = 30;
        o.actions = {first, second};
    }
    return o;
}

} // namespace camsim

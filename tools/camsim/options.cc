// Command-line parsing of the camera simulator.
#include "options.h"

#include <time.h>

#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "mqtt_client.h"
#include "option_table.h"

namespace camsim {
namespace {

// The usage is these texts with the options' own lines between them.
const char kUsageIntro[] =
    "usage: vexo-camsim [options]\n"
    "\n"
    "Runs the cloud-recording module on the host kit: a camera fed from a media file, the\n"
    "embedded cloud service storing what it uploads under DIR/cloud, or with --cloud a cloud\n"
    "service on the network.\n"
    "\n";
const char kNetworkHeading[] = "\nA cloud on the network:\n";
const char kNetworkNote[] =
    "These five need --cloud. An order refused by the cloud, or a cloud that cannot be\n"
    "reached at start, ends the run with status 2.\n"
    "\n"
    "Store and forward (these need --cloud):\n";
const char kSpoolNote[] =
    "While the cloud cannot be reached (no answer, 5xx), uploads, notifications and alarms\n"
    "wait in order in DIR/camera/spool and go out once it answers again, also after a\n"
    "restart; over a bound the oldest recording is dropped and reported to the cloud as a\n"
    "gap. At the end of a run the camera waits while the cloud takes the spooled items (it\n"
    "stops waiting after 15 s without progress, or on Ctrl-C; what is left goes out at the\n"
    "next start). The progress line and the summary show the spool: items, bytes, the\n"
    "oldest item's age, items sent and dropped. The embedded cloud never fails: it runs\n"
    "without a spool.\n"
    "\n"
    "A locked-down broker (these need --mqtt):\n";
const char kUsageEnd[] =
    "\n"
    "Without --motion/--trigger/--pause/--abort/--order: motion events at 8 s (10 s long) and\n"
    "at 30 s.\n"
    "\n"
    "Lines on stderr with a fixed form, for scripts (T: kit seconds since the start as \"%6.1f\";\n"
    "OLD, NEW, MODE: alltime, event or \"no order\"; OLD is \"not configured\" when the\n"
    "module gets its first configuration):\n"
    "  [camsim] Ts store mode OLD -> NEW    the module's store mode changed, e.g.\n"
    "                                       \"[camsim]   12.3s store mode event -> alltime\"\n"
    "  [camsim] mqtt connected to HOST:PORT connected to a broker and subscribed (--mqtt)\n"
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
    std::vector<hostkit::MqttAddress> brokers;
    if (!hostkit::parse_mqtt_url_list(o->mqtt_url, &brokers, error) ||
        !hostkit::check_mqtt_brokers(brokers, o->mqtt_security, error)) {
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

/// What reading the command line collects beside the options themselves.
struct Parsing {
    Options o;
    std::string mqtt_password_file;
    const char *spool_option = nullptr; // the first spool option given
    bool help = false;
};

using Check = std::function<bool(const std::string &value)>;

vexo_cli::Option flag(const char *name, const char *help, std::function<void()> set) {
    return {name, false, help, [set](const std::string &, std::string *) {
                set();
                return true;
            }};
}

/// An option whose value check refuses with "bad NAME VALUE" and a hint.
vexo_cli::Option checked(const char *name, const char *help, const std::string &hint, Check check) {
    return {name, true, help, [name, hint, check](const std::string &value, std::string *error) {
                if (!check(value)) {
                    *error = "bad " + std::string(name) + " " + value + hint;
                    return false;
                }
                return true;
            }};
}

/// An option whose value is stored as given.
vexo_cli::Option text(const char *name, const char *help, std::string *field) {
    return {name, true, help, [field](const std::string &value, std::string *) {
                *field = value;
                return true;
            }};
}

/// A text option that may not be empty.
vexo_cli::Option nonempty(const char *name, const char *help, std::string *field) {
    return {name, true, help, [name, field](const std::string &value, std::string *error) {
                if (value.empty()) {
                    *error = "empty value for " + std::string(name);
                    return false;
                }
                *field = value;
                return true;
            }};
}

Check int_in(int32_t lo, int32_t hi, int32_t *out) {
    return [lo, hi, out](const std::string &v) { return parse_int(v.c_str(), lo, hi, out); };
}

/// An action of the schedule: parse fills it from the value.
Check action(Options *o, Action::Kind kind,
             std::function<bool(const std::string &, Action *)> parse) {
    return [o, kind, parse](const std::string &v) {
        Action a;
        a.kind = kind;
        if (!parse(v, &a)) {
            return false;
        }
        o->actions.push_back(a);
        return true;
    };
}

vexo_cli::OptionHandler help_handler(Parsing *p) {
    return [p](const std::string &, std::string *) {
        p->help = true;
        return true;
    };
}

bool parse_at(const std::string &text, Action *a) {
    return parse_double(text.c_str(), &a->at_s);
}

std::vector<vexo_cli::Option> camera_options(Parsing *p) {
    Options &o = p->o;
    return {
        text("--input",
             "  --input FILE          media file to play in a loop (H.264/H.265 with AAC, G.711 or "
             "PCM;\n"
             "                        default: the bundled sample)\n",
             &o.input),
        text("--data",
             "  --data DIR            where the camera's store and the cloud live (default "
             "vexo-data)\n",
             &o.data_dir),
        text("--device", "  --device ID           device id (default camsim-0001)\n", &o.device_id),
        text("--mode",
             "  --mode MODE           order store mode: event, alltime or none (default event)\n",
             &o.store_mode),
        checked("--duration",
                "  --duration SECS       how long the camera runs, kit seconds (default 50)\n", "",
                [&o](const std::string &v) {
                    return parse_double(v.c_str(), &o.duration_s) && o.duration_s > 0;
                }),
        checked("--speed", "  --speed X             kit clock speed, times real time (default 1)\n",
                " (0 < X <= 1000)",
                [&o](const std::string &v) {
                    return parse_double(v.c_str(), &o.speed) && o.speed > 0 && o.speed <= 1000;
                }),
        checked("--start",
                "  --start TIME          kit clock start: \"YYYY-MM-DD HH:MM:SS\" local, or epoch "
                "seconds\n",
                "",
                [&o](const std::string &v) {
                    const std::optional<uint32_t> t = parse_time(v);
                    if (!t) {
                        return false;
                    }
                    o.start_time = *t;
                    return true;
                }),
        checked("--event-duration",
                "  --event-duration S    order: event recording length (default 12)\n", "",
                int_in(1, 1800, &o.event_duration)),
        checked("--slice", "  --slice S             order: media file length, 3..60 (default 10)\n",
                " (3..60)", int_in(3, 60, &o.slice_duration)),
        checked("--silence", "  --silence S           order: silence after an event (default 5)\n",
                "", int_in(0, 86400, &o.silence_interval)),
        checked("--daily", "  --daily N             order: events allowed per day (default 20)\n",
                "", int_in(0, 100000, &o.daily_events)),
        checked(
            "--pre-record",
            "  --pre-record S        seconds recorded before an event (default: the module's)\n",
            "", int_in(0, 3600, &o.pre_record)),
        checked("--ring-seconds",
                "  --ring-seconds N      seconds the ring buffer holds (default 10)\n", "",
                [&o](const std::string &v) {
                    int32_t n = 0;
                    if (!parse_int(v.c_str(), 3, 3600, &n)) {
                        return false;
                    }
                    o.ring_seconds = static_cast<uint32_t>(n);
                    return true;
                }),
        flag("--no-audio", "  --no-audio            play the video only\n",
             [&o] { o.audio = false; }),
        checked("--motion",
                "  --motion AT[+LEN]     a motion event at AT seconds, ending LEN seconds later\n",
                " (AT[+LEN])", action(&o, Action::Kind::kMotion, parse_motion)),
        checked(
            "--trigger",
            "  --trigger AT:ACTION[:DUR]  a remote trigger from the cloud (record, pic, pic_v)\n",
            " (AT:record|pic|pic_v[:DUR])", action(&o, Action::Kind::kTrigger, parse_trigger)),
        checked("--pause", "  --pause AT, --resume AT    pause/resume the module\n", "",
                action(&o, Action::Kind::kPause, parse_at)),
        checked("--resume", "", "", action(&o, Action::Kind::kResume, parse_at)),
        checked("--abort", "  --abort AT            the cloud aborts the order\n", "",
                action(&o, Action::Kind::kAbort, parse_at)),
        checked("--order", "  --order AT:MODE       the cloud sets a new store mode\n",
                " (AT:MODE)", action(&o, Action::Kind::kOrder, parse_order)),
        flag("--quiet", "  --quiet               no progress line\n", [&o] { o.quiet = true; }),
        flag("-v", "  -v, -vv               module debug / trace log lines\n",
             [&o] { o.verbosity = 1; }),
        flag("-vv", "", [&o] { o.verbosity = 2; }),
        {"--help", false, "  --help\n", help_handler(p), true},
        {"-h", false, "", help_handler(p), true},
    };
}

std::vector<vexo_cli::Option> network_options(Parsing *p) {
    Options &o = p->o;
    return {
        nonempty(
            "--cloud",
            "  --cloud URL           the cloud service at URL (http:// or https://) instead of "
            "the\n"
            "                        embedded one; the order at start, --trigger, --abort, --order "
            "and\n"
            "                        the summary's recordings go through its admin endpoints\n",
            &o.cloud_url),
        nonempty(
            "--cloud-ca",
            "  --cloud-ca FILE       PEM certificate authorities for an https cloud (default: the\n"
            "                        system's); the server certificate is always verified\n",
            &o.cloud_ca),
        {"--mqtt", true,
         "  --mqtt URL[,URL...]   the cloud's MQTT broker, mqtt://host[:port] (default port 1883)\n"
         "                        or mqtts://host[:port] over TLS (default port 8883); several\n"
         "                        (a cluster): one is used, the next when it cannot be reached\n",
         [&o](const std::string &value, std::string *error) {
             if (value.empty()) {
                 *error = "empty value for --mqtt";
                 return false;
             }
             o.mqtt_url = value;
             std::vector<hostkit::MqttAddress> brokers;
             std::string why;
             if (!hostkit::parse_mqtt_url_list(value, &brokers, &why)) {
                 *error = "bad --mqtt " + why;
                 return false;
             }
             return true;
         }},
        nonempty("--token", "  --token T             device token for the cloud calls\n",
                 &o.device_token),
        nonempty("--admin-token", "  --admin-token T       token for the admin calls\n",
                 &o.admin_token),
        flag("--no-order",
             "  --no-order            leave the cloud's order as it is (--mode and the order "
             "values\n"
             "                        are not sent)\n",
             [&o] { o.send_order = false; }),
    };
}

std::vector<vexo_cli::Option> spool_options(Parsing *p) {
    Options &o = p->o;
    auto first = [p](const char *name) {
        p->spool_option = p->spool_option != nullptr ? p->spool_option : name;
    };
    return {
        checked(
            "--spool-bytes",
            "  --spool-bytes N       bound of the outage spool: bytes, or N with K, M or G (times\n"
            "                        1024; default 256M)\n",
            " (N, NK, NM or NG, above 0)",
            [&o, first](const std::string &v) {
                const std::optional<uint64_t> bytes = parse_size(v);
                if (!bytes) {
                    return false;
                }
                o.spool_bytes = *bytes;
                first("--spool-bytes");
                return true;
            }),
        checked("--spool-age",
                "  --spool-age SECS      the oldest item it keeps, kit seconds (default 86400)\n",
                " (seconds, above 0)",
                [&o, first](const std::string &v) {
                    int32_t secs = 0;
                    if (!parse_int(v.c_str(), 1, INT32_MAX, &secs)) {
                        return false;
                    }
                    o.spool_age_s = static_cast<uint32_t>(secs);
                    first("--spool-age");
                    return true;
                }),
        flag("--no-spool",
             "  --no-spool            no spool: a call the cloud does not answer fails, as the "
             "module\n"
             "                        expects without one\n",
             [&o, first] {
                 o.spool = false;
                 first("--no-spool");
             }),
    };
}

std::vector<vexo_cli::Option> broker_options(Parsing *p) {
    hostkit::MqttSecurity &m = p->o.mqtt_security;
    return {
        nonempty("--mqtt-ca",
                 "  --mqtt-ca FILE        PEM certificate authorities for an mqtts broker "
                 "(default: the\n"
                 "                        system's); the broker's certificate and name are always "
                 "verified\n",
                 &m.ca_file),
        nonempty("--mqtt-cert",
                 "  --mqtt-cert FILE, --mqtt-key FILE  a client certificate and its key (PEM)\n",
                 &m.cert_file),
        nonempty("--mqtt-key", "", &m.key_file),
        nonempty("--mqtt-user", "  --mqtt-user NAME      the broker login\n", &m.username),
        nonempty(
            "--mqtt-password-file",
            "  --mqtt-password-file FILE  the login's password: the file's first line; without it\n"
            "                        $VEXO_MQTT_PASSWORD when set (never on the command line)\n",
            &p->mqtt_password_file),
    };
}

std::vector<vexo_cli::Option> option_table(Parsing *p) {
    std::vector<vexo_cli::Option> table;
    for (auto group : {camera_options, network_options, spool_options, broker_options}) {
        for (vexo_cli::Option &option : group(p)) {
            table.push_back(std::move(option));
        }
    }
    return table;
}

std::string usage() {
    Parsing unused;
    return kUsageIntro + vexo_cli::options_help(camera_options(&unused)) + kNetworkHeading +
           vexo_cli::options_help(network_options(&unused)) + kNetworkNote +
           vexo_cli::options_help(spool_options(&unused)) + kSpoolNote +
           vexo_cli::options_help(broker_options(&unused)) + kUsageEnd;
}

/// The checks across options, once all are read, and the default schedule.
bool finish(Parsing *p, std::string *error) {
    Options &o = p->o;
    if (o.cloud_url.empty()) {
        const char *needs_cloud = !o.mqtt_url.empty()       ? "--mqtt"
                                  : !o.cloud_ca.empty()     ? "--cloud-ca"
                                  : !o.device_token.empty() ? "--token"
                                  : !o.admin_token.empty()  ? "--admin-token"
                                  : !o.send_order           ? "--no-order"
                                                            : p->spool_option;
        if (needs_cloud != nullptr) {
            *error = std::string(needs_cloud) + " is only valid with --cloud";
            return false;
        }
    }
    if (!finish_mqtt_security(&o, p->mqtt_password_file, error)) {
        return false;
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
    return true;
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
    Parsing p;
    *exit_now = false;
    const auto fail = [](const std::string &why) -> std::optional<Options> {
        std::fprintf(stderr, "vexo-camsim: %s\n\n%s", why.c_str(), usage().c_str());
        return std::nullopt;
    };
    vexo_cli::Syntax syntax;
    syntax.last_word_needs_value = true;
    std::string why;
    std::vector<std::string> operands;
    if (!vexo_cli::parse_options(std::vector<std::string>(argv + std::min(argc, 1), argv + argc),
                                 option_table(&p), syntax, &operands, &why)) {
        return fail(why);
    }
    if (p.help) {
        std::fputs(usage().c_str(), stdout);
        *exit_now = true;
        return p.o;
    }
    if (!finish(&p, &why)) {
        return fail(why);
    }
    return p.o;
}

} // namespace camsim

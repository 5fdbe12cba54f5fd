/// Parsing vexo-cloud's command line into a serve run or one admin request.
#include "cli_options.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <utility>
#include <vector>

#include "json_fields.h"
#include "limit_rules.h"
#include "open_metadata_store.h"
#include "option_table.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr char kUsage[] =
    "usage:\n"
    "  vexo-cloud serve --data DIR [--db URL] [--listen HOST:PORT]\n"
    "                   [--mqtt mqtt[s]://HOST:PORT]\n"
    "                   [--token DEVICE=TOKEN ...] [--admin-token TOKEN]\n"
    "                   [--tls-cert FILE --tls-key FILE] [--max-body BYTES] [--quiet]\n"
    "                   [--io-threads N] [--head-timeout S] [--body-timeout S]\n"
    "                   [--idle-timeout S]\n"
    "                   [--mqtt-ca FILE] [--mqtt-cert FILE --mqtt-key FILE]\n"
    "                   [--mqtt-user NAME [--mqtt-password-file FILE]]\n"
    "                   [--max-devices N] [--quota-bytes N] [--quota-files N]\n"
    "                   [--quota-alarms N] [--retention-days N] [--retention-bytes N]\n"
    "                   [--retention-every S] [--media file:DIR|s3://BUCKET?endpoint=URL]\n"
    "      Serves the devices' cloud protocol and the admin interface. --listen defaults to\n"
    "      127.0.0.1:8080 (port 0: any free port; the line \"vexo-cloud: listening on URL\"\n"
    "      says which). With --token, devices must send their bearer token. Without\n"
    "      --admin-token it only listens on a loopback address (127.0.0.0/8, ::1,\n"
    "      localhost). A request head must arrive within --head-timeout (default 10 s),\n"
    "      a body may stall for --body-timeout (15 s), a kept-alive connection may stay\n"
    "      idle for --idle-timeout (30 s); --io-threads (default 2) serve the sockets.\n"
    "      --mqtt takes several URLs separated by commas (a cluster): the service\n"
    "      publishes through one and moves on to the next when it is lost.\n"
    "      mqtts:// (default port 8883) verifies the broker against --mqtt-ca (default: the\n"
    "      system's authorities); --mqtt-cert/--mqtt-key give a client certificate. The\n"
    "      broker password is the first line of --mqtt-password-file, or else\n"
    "      $VEXO_MQTT_PASSWORD when set.\n"
    "      --max-devices caps the devices kept (an admin call for one more gets 507).\n"
    "      --quota-bytes, --quota-files (media kept) and --quota-alarms (alarms a day)\n"
    "      refuse uploads past them with 507; --retention-days and --retention-bytes\n"
    "      delete a device's oldest closed recordings, checked every --retention-every\n"
    "      seconds (default 3600; 0: never). They apply to every device without limits of\n"
    "      its own (see limits); 0 or absent: no limit.\n"
    "      --media keeps media files elsewhere than under --data: in DIR, or in an S3\n"
    "      bucket (&region=R, default us-east-1; keys from $AWS_ACCESS_KEY_ID and\n"
    "      $AWS_SECRET_ACCESS_KEY; the bucket is created when missing).\n"
    "      --db keeps the metadata in sqlite:PATH or in PostgreSQL (postgresql://USER@HOST/DB,\n"
    "      shared by every service given the same URL) instead of DIR/vexo-cloud.db.\n"
    "\n"
    "  vexo-cloud order DEVICE [--store-mode alltime|event|none] [--event-duration S]\n"
    "                   [--slice S] [--silence S] [--daily N] [--count-left N]\n"
    "                   [--expired yes|no]         show or change a device's order\n"
    "  vexo-cloud abort DEVICE                     abort the device's order\n"
    "  vexo-cloud trigger DEVICE record|pic|pic_v [--duration S] [--ext JSON]\n"
    "                                              ask for a remote recording or picture\n"
    "  vexo-cloud recordings DEVICE [--json]       the device's recordings and the gaps it\n"
    "                                              reported, by time; a recording without\n"
    "                                              an end is \"open\" or, once clearly over,\n"
    "                                              \"left open by the camera\"\n"
    "  vexo-cloud limits DEVICE [--max-bytes N] [--max-files N] [--alarms-per-day N]\n"
    "                   [--retention-days N] [--retention-bytes N]\n"
    "                                              show or change the device's own limits\n"
    "                                              (0 lifts one); shows those in force\n"
    "  vexo-cloud alarms DEVICE | devices\n"
    "      Admin commands talk to a running service: --server URL (default\n"
    "      $VEXO_CLOUD_URL or http://127.0.0.1:8080), --admin-token TOKEN, --ca FILE.\n";

// ---- helpers -------------------------------------------------------------------------------

std::nullopt_t fail(const std::string &message) {
    std::fprintf(stderr, "vexo-cloud: %s\n%s", message.c_str(), kUsage);
    return std::nullopt;
}

/// A decimal whole number in [low, high]: digits with an optional leading '-' and nothing
/// else (strtoll alone would also take leading blanks and '+'). At most 12 characters, so
/// the conversion itself cannot overflow.
bool parse_int(const std::string &text, int64_t low, int64_t high, int64_t *out) {
    const size_t first_digit = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() <= first_digit || text.size() > 12 ||
        text.find_first_not_of("0123456789", first_digit) != std::string::npos) {
        return false;
    }
    char *end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (*end != '\0' || value < low || value > high) {
        return false;
    }
    *out = value;
    return true;
}

/// The first line of a file holding a secret, without its line end; false with *error when
/// it cannot be read or is empty.
bool read_secret_file(const std::string &path, std::string *secret, std::string *error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    std::getline(in, line);
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

/// A whole number of seconds 1..3600 as milliseconds; false for anything else.
bool parse_seconds(const std::string &text, Millis *out) {
    int64_t seconds = 0;
    if (!parse_int(text, 1, 3600, &seconds)) {
        return false;
    }
    *out = Millis(seconds * 1000);
    return true;
}

/// A whole number 0..high into an optional limit, 0 leaving it unset; false for anything else.
template <typename Number> bool parse_limit(const std::string &text, std::optional<Number> *limit) {
    int64_t value = 0;
    const int64_t high = static_cast<int64_t>(
        std::min<uint64_t>(std::numeric_limits<Number>::max(), uint64_t{1} << 50));
    if (!parse_int(text, 0, high, &value)) {
        return false;
    }
    *limit = value == 0 ? std::nullopt : std::optional<Number>(static_cast<Number>(value));
    return true;
}

/// A table entry that reads a limit into *limit.
template <typename Number>
vexo_cli::Option limit_option(const char *name, std::optional<Number> *limit) {
    return {name, true, "", [name, limit](const std::string &value, std::string *error) {
                if (!parse_limit(value, limit)) {
                    *error = std::string(name) + " takes a whole number from 0 (no limit)";
                    return false;
                }
                return true;
            }};
}

std::optional<Command> parse_serve(const std::vector<std::string> &args) {
    Command command;
    command.serve = true;
    ServeOptions &o = command.serve_options;
    std::string listen = "127.0.0.1:8080";
    std::string mqtt_password_file;
    const auto set = [](std::string *field) {
        return [field](const std::string &value, std::string *) {
            *field = value;
            return true;
        };
    };
    const auto seconds = [](const std::string &name, Millis *timeout) {
        return [name, timeout](const std::string &value, std::string *error) {
            if (!parse_seconds(value, timeout)) {
                *error = name + " takes whole seconds from 1 to 3600";
                return false;
            }
            return true;
        };
    };
    const std::vector<vexo_cli::Option> table = {
        {"--quiet", false, "",
         [&o](const std::string &, std::string *) {
             o.http.access_log = false;
             return true;
         }},
        {"--data", true, "", set(&o.data_dir)},
        {"--media", true, "", set(&o.media_url)},
        {"--db", true, "", set(&o.db_url)},
        {"--listen", true, "", set(&listen)},
        {"--mqtt", true, "", set(&o.mqtt_url)},
        {"--mqtt-ca", true, "", set(&o.mqtt_security.ca_file)},
        {"--mqtt-cert", true, "", set(&o.mqtt_security.cert_file)},
        {"--mqtt-key", true, "", set(&o.mqtt_security.key_file)},
        {"--mqtt-user", true, "", set(&o.mqtt_security.username)},
        {"--mqtt-password-file", true, "", set(&mqtt_password_file)},
        {"--token", true, "",
         [&o](const std::string &value, std::string *error) {
             const size_t equals = value.find('=');
             if (equals == std::string::npos || equals == 0 || equals + 1 == value.size()) {
                 *error = "--token takes DEVICE=TOKEN";
                 return false;
             }
             o.tokens[value.substr(0, equals)] = value.substr(equals + 1);
             return true;
         }},
        {"--admin-token", true, "", set(&o.http.admin_token)},
        {"--tls-cert", true, "", set(&o.http.tls_cert)},
        {"--tls-key", true, "", set(&o.http.tls_key)},
        {"--max-body", true, "",
         [&o](const std::string &value, std::string *error) {
             int64_t bytes = 0;
             if (!parse_int(value, 1, int64_t{1} << 40, &bytes)) {
                 *error = "--max-body takes a number of bytes";
                 return false;
             }
             o.http.max_body = static_cast<uint64_t>(bytes);
             return true;
         }},
        {"--io-threads", true, "",
         [&o](const std::string &value, std::string *error) {
             int64_t threads = 0;
             if (!parse_int(value, 1, 64, &threads)) {
                 *error = "--io-threads takes a number from 1 to 64";
                 return false;
             }
             o.http.limits.io_threads = static_cast<uint32_t>(threads);
             return true;
         }},
        {"--head-timeout", true, "", seconds("--head-timeout", &o.http.limits.head_timeout)},
        {"--body-timeout", true, "", seconds("--body-timeout", &o.http.limits.body_idle_timeout)},
        {"--idle-timeout", true, "", seconds("--idle-timeout", &o.http.limits.keep_alive_timeout)},
        {"--max-devices", true, "",
         [&o](const std::string &value, std::string *error) {
             int64_t devices = 0;
             if (!parse_int(value, 0, int64_t{1} << 40, &devices)) {
                 *error = "--max-devices takes a number of devices (0: no cap)";
                 return false;
             }
             o.max_devices = static_cast<uint64_t>(devices);
             return true;
         }},
        limit_option("--quota-bytes", &o.default_limits.max_bytes),
        limit_option("--quota-files", &o.default_limits.max_files),
        limit_option("--quota-alarms", &o.default_limits.max_alarms_per_day),
        limit_option("--retention-days", &o.default_limits.retention_days),
        limit_option("--retention-bytes", &o.default_limits.retention_bytes),
        {"--retention-every", true, "",
         [&o](const std::string &value, std::string *error) {
             int64_t interval = 0;
             if (!parse_int(value, 0, 31 * 86400, &interval)) {
                 *error = "--retention-every takes seconds from 0 (never) to 2678400";
                 return false;
             }
             o.retention_interval = static_cast<uint32_t>(interval);
             return true;
         }},
    };
    vexo_cli::Syntax syntax;
    syntax.last_word_needs_value = true;
    syntax.stray_word = "unexpected argument {}";
    std::vector<std::string> operands;
    if (std::string error; !vexo_cli::parse_options(args, table, syntax, &operands, &error)) {
        return fail(error);
    }
    if (o.data_dir.empty()) {
        return fail("serve needs --data DIR");
    }
    if (std::string error; !valid_metadata_url(o.db_url, &error)) {
        return fail("bad --db: " + error);
    }
    if (o.default_limits.retention_days.value_or(0) > kMaxRetentionDays) {
        return fail("--retention-days takes 0.." + std::to_string(kMaxRetentionDays));
    }
    if (!parse_listen(listen, &o.http.host, &o.http.port)) {
        return fail("--listen takes HOST:PORT, not \"" + listen + "\"");
    }
    if (o.http.admin_token.empty() && !is_loopback_host(o.http.host)) {
        return fail("without --admin-token anyone who reaches " + o.http.host +
                    " could change orders: give --admin-token TOKEN, or listen on a loopback "
                    "address (127.0.0.1, ::1, localhost)");
    }
    if (o.http.tls_cert.empty() != o.http.tls_key.empty()) {
        return fail("--tls-cert and --tls-key go together");
    }
    const MqttSecurity &m = o.mqtt_security;
    if (o.mqtt_url.empty() && (!m.ca_file.empty() || !m.cert_file.empty() || !m.key_file.empty() ||
                               !m.username.empty() || !mqtt_password_file.empty())) {
        return fail("the --mqtt-... options need --mqtt");
    }
    if (!mqtt_password_file.empty() && m.username.empty()) {
        return fail("--mqtt-password-file needs --mqtt-user");
    }
    if (!mqtt_password_file.empty()) {
        std::string error;
        if (!read_secret_file(mqtt_password_file, &o.mqtt_security.password, &error)) {
            return fail("bad --mqtt-password-file: " + error);
        }
    } else if (const char *env = std::getenv("VEXO_MQTT_PASSWORD");
               env != nullptr && *env != '\0' && !m.username.empty()) {
        o.mqtt_security.password = env;
    }
    return command;
}

/// The order members the "order" command's options set.
bool order_member(const std::string &arg, const std::string &value, Json *change,
                  std::string *error) {
    struct Number {
        const char *option;
        const char *member;
    };
    static const Number kNumbers[] = {{"--event-duration", "eventDuration"},
                                      {"--slice", "sliceDuration"},
                                      {"--silence", "silenceInterval"},
                                      {"--daily", "dailyEvents"},
                                      {"--count-left", "countLeft"}};
    if (arg == "--store-mode") {
        (*change)["storeMode"] = value;
        return true;
    }
    if (arg == "--expired") {
        if (value != "yes" && value != "no") {
            *error = "--expired takes yes or no";
            return false;
        }
        (*change)["expired"] = value == "yes";
        return true;
    }
    for (const Number &n : kNumbers) {
        if (arg == n.option) {
            int64_t number = 0;
            if (!parse_int(value, INT32_MIN, INT32_MAX, &number)) {
                *error = arg + " takes a whole number";
                return false;
            }
            (*change)[n.member] = number;
            return true;
        }
    }
    *error = "unknown option " + arg;
    return false;
}

std::optional<Command> parse_admin(const std::string &verb, const std::vector<std::string> &args) {
    Command command;
    AdminCommand &a = command.admin;
    if (const char *url = std::getenv("VEXO_CLOUD_URL"); url != nullptr && *url != '\0') {
        a.server = url;
    }
    std::vector<std::string> words;
    Json change = Json::object();
    Json trigger = Json::object();
    bool json_answer = false;
    const auto set = [](std::string *field) {
        return [field](const std::string &value, std::string *) {
            *field = value;
            return true;
        };
    };
    std::vector<vexo_cli::Option> table = {
        {"--server", true, "", set(&a.server)},
        {"--admin-token", true, "", set(&a.admin_token)},
        {"--ca", true, "", set(&a.ca_file)},
    };
    if (verb == "recordings") {
        table.push_back({"--json", false, "", [&json_answer](const std::string &, std::string *) {
                             json_answer = true;
                             return true;
                         }});
    }
    if (verb == "trigger") {
        table.push_back(
            {"--duration", true, "", [&trigger](const std::string &value, std::string *error) {
                 int64_t seconds = 0;
                 if (!parse_int(value, INT32_MIN, INT32_MAX, &seconds)) {
                     *error = "--duration takes a number of seconds";
                     return false;
                 }
                 trigger["duration"] = seconds;
                 return true;
             }});
        table.push_back(
            {"--ext", true, "", [&trigger](const std::string &value, std::string *error) {
                 const std::optional<Json> ext = parse_value(value);
                 if (!ext) {
                     *error = "--ext takes JSON, e.g. {\"user\":\"u1\"}";
                     return false;
                 }
                 trigger["ext"] = *ext;
                 return true;
             }});
    }
    if (verb == "limits") {
        static const std::pair<const char *, const char *> kLimits[] = {
            {"--max-bytes", "maxBytes"},
            {"--max-files", "maxFiles"},
            {"--alarms-per-day", "alarmsPerDay"},
            {"--retention-days", "retentionDays"},
            {"--retention-bytes", "retentionBytes"}};
        for (const auto &[option, member] : kLimits) {
            table.push_back({option, true, "",
                             [&change, option = option, member = member](const std::string &value,
                                                                         std::string *error) {
                                 int64_t number = 0;
                                 if (!parse_int(value, 0, int64_t{1} << 50, &number)) {
                                     *error = std::string(option) +
                                              " takes a whole number from 0 (no limit)";
                                     return false;
                                 }
                                 change[member] = number;
                                 return true;
                             }});
        }
    }
    if (verb == "order") {
        for (const char *option : {"--store-mode", "--expired", "--event-duration", "--slice",
                                   "--silence", "--daily", "--count-left"}) {
            table.push_back(
                {option, true, "", [&change, option](const std::string &value, std::string *error) {
                     return order_member(option, value, &change, error);
                 }});
        }
    }
    vexo_cli::Syntax syntax;
    syntax.operands = true;
    syntax.operand_prefix = "--";
    syntax.last_word_needs_value = true;
    // The order command names no command in its refusal (as its members' own errors do not).
    syntax.unknown_option = verb == "order" ? "unknown option {}" : "unknown option {} for " + verb;
    if (std::string error; !vexo_cli::parse_options(args, table, syntax, &words, &error)) {
        return fail(error);
    }
    const size_t wanted = verb == "devices" ? 0 : verb == "trigger" ? 2 : 1;
    if (words.size() != wanted) {
        return fail(verb + " takes " +
                    (wanted == 0   ? "no device"
                     : wanted == 1 ? "a device"
                                   : "a device and an action"));
    }
    a.device = wanted == 0 ? "" : words[0];
    const std::string device_path = wanted == 0 ? "" : "/v1/admin/devices/" + words[0];
    if (verb == "devices") {
        a.method = "GET";
        a.path = "/v1/admin/devices";
    } else if (verb == "order" || verb == "limits") {
        a.method = change.empty() ? "GET" : "PUT";
        a.path = device_path + "/" + verb;
        a.body = change.empty() ? "" : to_text(change);
    } else if (verb == "abort") {
        a.method = "POST";
        a.path = device_path + "/abort";
        a.body = "{}";
    } else if (verb == "trigger") {
        trigger["action"] = words[1];
        if (!trigger.contains("duration")) {
            trigger["duration"] = words[1] == "pic" ? 0 : 30;
        }
        a.method = "POST";
        a.path = device_path + "/trigger";
        a.body = to_text(trigger);
    } else {
        a.method = "GET";
        a.path = device_path + "/" + verb;
        a.recordings_table = verb == "recordings" && !json_answer;
    }
    return command;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool is_loopback_host(const std::string &host) {
    std::string name = host;
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    }
    for (char &c : name) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (name == "localhost") {
        return true;
    }
    in_addr v4{};
    if (inet_pton(AF_INET, name.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, name.c_str(), &v6) == 1) {
        const uint8_t *b = v6.s6_addr;
        static const uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
        return IN6_IS_ADDR_LOOPBACK(&v6) || (std::memcmp(b, kMapped, 12) == 0 && b[12] == 127);
    }
    return false;
}

bool parse_listen(const std::string &text, std::string *host, uint16_t *port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    int64_t number = 0;
    if (!parse_int(text.substr(colon + 1), 0, 65535, &number)) {
        return false;
    }
    *host = text.substr(0, colon);
    *port = static_cast<uint16_t>(number);
    return true;
}

std::optional<Command> parse_command_line(int argc, char **argv, bool *exit_now) {
    *exit_now = false;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (const std::string &arg : args) {
        if (arg == "--help" || arg == "-h") {
            std::printf("%s", kUsage);
            *exit_now = true;
            // Built in place: gcc 12 at -O3 takes a moved Command{} temporary for one whose
            // strings may be uninitialised.
            return std::optional<Command>(std::in_place);
        }
    }
    if (args.empty()) {
        return fail("no command given");
    }
    const std::string verb = args.front();
    args.erase(args.begin());
    if (verb == "serve") {
        return parse_serve(args);
    }
    for (const char *admin :
         {"order", "abort", "trigger", "recordings", "alarms", "limits", "devices"}) {
        if (verb == admin) {
            return parse_admin(verb, args);
        }
    }
    return fail("unknown command " + verb);
}

} // namespace vexo_cloud

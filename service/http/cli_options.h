/// The command line of vexo-cloud: "serve" runs the service; the admin commands ("order",
/// "abort", "trigger", "recordings", "alarms", "limits", "devices") call a running service's admin
/// interface.
#ifndef VEXO_CLOUD_CLI_OPTIONS_H
#define VEXO_CLOUD_CLI_OPTIONS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "http_server.h"
#include "mqtt_publisher.h"

namespace vexo_cloud {

struct ServeOptions {
    std::string data_dir;
    std::string media_url; ///< --media; empty: files under data_dir
    std::string db_url;    ///< --db: empty for the SQLite database in data_dir
    HttpOptions http;
    std::string mqtt_url;                      ///< empty: nothing is published
    MqttSecurity mqtt_security;                ///< TLS files and login for mqtt_url
    std::map<std::string, std::string> tokens; ///< device -> bearer token
    DeviceLimits default_limits;               ///< of every device without its own
    uint64_t max_devices = 0;                  ///< 0: no cap
    uint32_t retention_interval = 3600;        ///< seconds between retention runs; 0: never
};

struct AdminCommand {
    std::string server = "http://127.0.0.1:8080";
    std::string admin_token;
    std::string ca_file; ///< for an https server with its own certificate
    std::string method;  ///< of the admin request
    std::string path;    ///< below the server, e.g. "/v1/admin/devices/D/order"
    std::string device;  ///< the device the command is about; empty for "devices"
    std::string body;    ///< JSON, or empty
    /// Print a recordings answer as a table (the recordings command without --json); else
    /// the answer's JSON.
    bool recordings_table = false;
};

struct Command {
    bool serve = false;
    ServeOptions serve_options;
    AdminCommand admin;
};

/// Parses argv; nullopt after printing the reason and the usage (exit status 2). Sets
/// *exit_now after printing the usage for --help (exit status 0).
std::optional<Command> parse_command_line(int argc, char **argv, bool *exit_now);

/// True for a name or address that only this machine reaches: localhost, 127.0.0.0/8, ::1
/// (also as [::1] and as the IPv4-mapped ::ffff:127.x.y.z).
bool is_loopback_host(const std::string &host);

/// "HOST:PORT" split; false for anything else. Port 0 asks for any free port.
bool parse_listen(const std::string &text, std::string *host, uint16_t *port);

} // namespace vexo_cloud

#endif

// The server a run talks to, from an http:// URL.
#ifndef VEXO_LOADGEN_SERVER_URL_H
#define VEXO_LOADGEN_SERVER_URL_H

#include <optional>
#include <string>

namespace loadgen {

struct ServerUrl {
    std::string host; // name or address; an IPv6 address without its brackets
    std::string port; // "80" unless the URL names one
    std::string host_header;
    std::string base_path; // "" or "/a/b": what every request path goes under
};

/// "http://host[:port][/base/path]"; nullopt with *error for anything else (https included:
/// the cameras here speak plain HTTP).
std::optional<ServerUrl> parse_server_url(const std::string &url, std::string *error);

} // namespace loadgen

#endif

// Splitting the server URL into what a connection and a request need.
#include "server_url.h"

namespace loadgen {

namespace {

constexpr char kScheme[] = "http://";

bool all_digits(const std::string &text) {
    if (text.empty() || text.size() > 5) {
        return false;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return std::stoul(text) >= 1 && std::stoul(text) <= 65535;
}

std::optional<ServerUrl> fail(std::string *error, const std::string &message) {
    *error = message;
    return std::nullopt;
}

} // namespace

std::optional<ServerUrl> parse_server_url(const std::string &url, std::string *error) {
    if (url.compare(0, sizeof kScheme - 1, kScheme) != 0) {
        return fail(error, "the server URL must start with http:// (not \"" + url + "\")");
    }
    const std::string rest = url.substr(sizeof kScheme - 1);
    const size_t slash = rest.find('/');
    const std::string authority = rest.substr(0, slash);
    std::string path = slash == std::string::npos ? "" : rest.substr(slash);
    if (path.find_first_of("?# ") != std::string::npos) {
        return fail(error, "the server URL may not hold a query, a fragment or spaces");
    }
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    ServerUrl out;
    out.base_path = path;
    out.host_header = authority;
    std::string port;
    if (!authority.empty() && authority.front() == '[') {
        const size_t close = authority.find(']');
        if (close == std::string::npos) {
            return fail(error, "unclosed [ in the server URL");
        }
        out.host = authority.substr(1, close - 1);
        const std::string after = authority.substr(close + 1);
        if (!after.empty() && after.front() != ':') {
            return fail(error, "unexpected text after ] in the server URL");
        }
        port = after.empty() ? "" : after.substr(1);
        if (after == ":") {
            return fail(error, "empty port in the server URL");
        }
    } else {
        const size_t colon = authority.find(':');
        out.host = authority.substr(0, colon);
        if (colon != std::string::npos) {
            port = authority.substr(colon + 1);
            if (port.empty()) {
                return fail(error, "empty port in the server URL");
            }
        }
    }
    if (out.host.empty() || out.host.find('@') != std::string::npos) {
        return fail(error, "no host in the server URL \"" + url + "\"");
    }
    if (!port.empty() && !all_digits(port)) {
        return fail(error, "the port of the server URL must be 1 to 65535, not \"" + port + "\"");
    }
    out.port = port.empty() ? "80" : port;
    return out;
}

} // namespace loadgen

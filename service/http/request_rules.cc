/// The server's rules for request heads and the endpoints of paths.
#include "request_rules.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kBadRequest = 400;
constexpr int32_t kRequestTimeout = 408;
constexpr int32_t kLengthRequired = 411;
constexpr int32_t kPayloadTooLarge = 413;
constexpr int32_t kUriTooLong = 414;
constexpr int32_t kHeaderFieldsTooLarge = 431;

/// 19 digits always fit in 64 bits; longer lengths are far beyond any limit anyway.
constexpr size_t kMaxLengthDigits = 19;
/// " HTTP/1.1" after the target.
constexpr size_t kVersionBytes = 9;

constexpr char kDevicesPrefix[] = "/v1/devices/";
constexpr char kApiPrefix[] = "/v1/api/";
constexpr char kAdminPrefix[] = "/v1/admin/";

constexpr const char *kLabels[kEndpointCount] = {"config", "restriction", "api",   "media",
                                                 "alarms", "gaps",        "admin", "other"};

// ---- helpers -------------------------------------------------------------------------------

bool starts_with(const std::string &text, const char *prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

Refusal refusal(int32_t status, const char *reason, std::string message) {
    return Refusal{status, reason, std::move(message)};
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::optional<uint64_t> decimal(const std::string &text) {
    if (text.empty() || text.size() > kMaxLengthDigits) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return value;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::string decoded_path(const std::string &path) {
    std::string out;
    out.reserve(path.size());
    for (size_t i = 0; i < path.size(); ++i) {
        const int high = path[i] == '%' && i + 2 < path.size() ? hex_digit(path[i + 1]) : -1;
        const int low = high >= 0 ? hex_digit(path[i + 2]) : -1;
        if (low >= 0) {
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += path[i];
        }
    }
    return out;
}

Endpoint endpoint_of(const std::string &path) {
    if (path == kMetricsPath || starts_with(path, kAdminPrefix)) {
        return Endpoint::kAdmin;
    }
    if (starts_with(path, kApiPrefix)) {
        return Endpoint::kApi;
    }
    if (!starts_with(path, kDevicesPrefix)) {
        return Endpoint::kOther;
    }
    const size_t slash = path.find('/', sizeof kDevicesPrefix - 1);
    if (slash == std::string::npos) {
        return Endpoint::kOther;
    }
    const std::string resource = path.substr(slash + 1);
    if (resource == "storage/config") {
        return Endpoint::kConfig;
    }
    if (resource == "storage/restriction") {
        return Endpoint::kRestriction;
    }
    if (resource == "alarms") {
        return Endpoint::kAlarms;
    }
    if (resource == "gaps") {
        return Endpoint::kGaps;
    }
    return starts_with(resource, "media/") ? Endpoint::kMedia : Endpoint::kOther;
}

const char *endpoint_label(Endpoint endpoint) {
    return kLabels[static_cast<size_t>(endpoint)];
}

uint64_t body_limit(Endpoint endpoint, const HttpLimits &limits, uint64_t max_body) {
    switch (endpoint) {
    case Endpoint::kMedia:
        return max_body;
    case Endpoint::kAlarms:
        return limits.max_alarm_body;
    default:
        return limits.max_json_body;
    }
}

Refusal head_timeout_refusal() {
    return refusal(kRequestTimeout, "head_timeout", "request head not received in time");
}

Refusal body_timeout_refusal() {
    return refusal(kRequestTimeout, "body_timeout", "request body stalled");
}

Refusal malformed_refusal(const std::string &what) {
    return refusal(kBadRequest, "malformed", "malformed request: " + what);
}

Refusal bad_content_length_refusal(const std::string &what) {
    return refusal(kBadRequest, "bad_content_length", what);
}

Refusal head_too_large_refusal(bool first_line_ended, const HttpLimits &limits) {
    if (!first_line_ended) {
        return refusal(kUriTooLong, "line_too_long",
                       "request line longer than " + std::to_string(limits.max_request_line) +
                           " bytes");
    }
    return refusal(kHeaderFieldsTooLarge, "head_too_large",
                   "request head larger than " + std::to_string(limits.max_head_bytes) + " bytes");
}

std::optional<Refusal> check_head(const RequestHead &head, const HttpLimits &limits,
                                  uint64_t max_body, uint64_t *content_length) {
    *content_length = 0;
    if (head.method.size() + 1 + head.target.size() + kVersionBytes > limits.max_request_line) {
        return head_too_large_refusal(false, limits);
    }
    if (head.fields > limits.max_header_fields) {
        return refusal(kHeaderFieldsTooLarge, "too_many_fields",
                       "more than " + std::to_string(limits.max_header_fields) + " header fields");
    }
    if (head.transfer_encoding) {
        return refusal(kLengthRequired, "length_required", "a body needs a Content-Length");
    }
    if (head.content_lengths.size() > 1) {
        return bad_content_length_refusal("more than one Content-Length");
    }
    if (!head.content_lengths.empty()) {
        const std::optional<uint64_t> length = decimal(head.content_lengths.front());
        if (!length) {
            return bad_content_length_refusal("Content-Length must be a decimal number");
        }
        *content_length = *length;
    }
    const size_t question = head.target.find('?');
    const Endpoint endpoint = endpoint_of(head.target.substr(0, question));
    const uint64_t limit = body_limit(endpoint, limits, max_body);
    if (*content_length > limit) {
        return refusal(kPayloadTooLarge, "body_too_large",
                       std::string(endpoint_label(endpoint)) + " body larger than " +
                           std::to_string(limit) + " bytes");
    }
    return std::nullopt;
}

} // namespace vexo_cloud

/// The HTTP server's own rules for a request, before the service sees it: which endpoint a
/// path is (for the body limit and the monitoring labels), and whether a request head is
/// acceptable. Free of any network type, so that the rules are tested as a table.
#ifndef VEXO_CLOUD_REQUEST_RULES_H
#define VEXO_CLOUD_REQUEST_RULES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "http_limits.h"

namespace vexo_cloud {

constexpr char kMetricsPath[] = "/metrics";

enum class Endpoint { kConfig, kRestriction, kApi, kMedia, kAlarms, kGaps, kAdmin, kOther };
constexpr size_t kEndpointCount = 8;

/// The endpoint of a path (without the query). The monitoring page counts as admin.
Endpoint endpoint_of(const std::string &path);
/// Its label in the monitoring page: "config", "restriction", "api", "media", "alarms",
/// "gaps", "admin" or "other".
const char *endpoint_label(Endpoint endpoint);
/// The largest body the endpoint takes: media uploads max_body, alarms (with a picture)
/// limits.max_alarm_body, everything else limits.max_json_body.
uint64_t body_limit(Endpoint endpoint, const HttpLimits &limits, uint64_t max_body);

/// A request target's path as the service takes it: %XX sequences decoded (a '%' not
/// followed by two hexadecimal digits stays as it is; '+' is not a space in a path).
std::string decoded_path(const std::string &path);

/// A request the server answers itself, with the service's error shape.
struct Refusal {
    int32_t status = 400;
    const char *reason = ""; ///< label in the monitoring page, e.g. "head_timeout"
    std::string message;     ///< the answer's "error"
};

/// Refusals that come from reading, not from the head's content.
Refusal head_timeout_refusal();
Refusal body_timeout_refusal();
Refusal malformed_refusal(const std::string &what);
Refusal bad_content_length_refusal(const std::string &what);
/// The head outgrew limits.max_head_bytes; first_line_ended: the request line was complete
/// within limits.max_request_line bytes (431), else the line itself is too long (414).
Refusal head_too_large_refusal(bool first_line_ended, const HttpLimits &limits);

/// What the server looks at in a parsed request head.
struct RequestHead {
    std::string method;
    std::string target;                       ///< path and query as sent
    size_t fields = 0;                        ///< header fields
    std::vector<std::string> content_lengths; ///< the value of each Content-Length field
    bool transfer_encoding = false;           ///< any Transfer-Encoding field
};

/// nullopt when the head may go on to the service, with *content_length set (0 without a
/// Content-Length). Refused: a request line over limits.max_request_line (414), more than
/// limits.max_header_fields fields (431), a Transfer-Encoding (411: bodies need a length),
/// more than one Content-Length even with equal values, a value that is not 1 to 19 decimal
/// digits (400), a body over the endpoint's limit (413).
std::optional<Refusal> check_head(const RequestHead &head, const HttpLimits &limits,
                                  uint64_t max_body, uint64_t *content_length);

} // namespace vexo_cloud

#endif

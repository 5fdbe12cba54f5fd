/// Where the host kit's cloud calls go. The kit turns each call into one request of the
/// device-to-cloud wire protocol (method, path, headers, body) and maps the answer back to the
/// call's result; a transport only carries the request. The embedded transport hands it to a
/// cloud service linked into the process; a network transport sends it over HTTP(S).
#ifndef VEXO_HOST_CLOUD_TRANSPORT_H
#define VEXO_HOST_CLOUD_TRANSPORT_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace hostkit {

struct CloudRequest {
    std::string method;                         // "GET", "POST", "PUT"
    std::string path;                           // "/v1/devices/D/storage/config", without the query
    std::string query;                          // "v=1.0", without the '?'; empty when none
    std::map<std::string, std::string> headers; // names in lower case
    std::string body;
    /// Whole-request time limit, seconds (uploads get a longer one).
    uint32_t timeout_s = 30;
    /// When set, the transport gives the request up (status 0) soon after *cancel turns
    /// true; the flag must outlive the exchange. Not part of what is sent.
    const std::atomic<bool> *cancel = nullptr;
};

struct CloudResponse {
    /// HTTP status; 0 when no answer came (no connection, time-out, transport failure).
    int32_t status = 0;
    std::string content_type;
    std::string body;
};

/// Percent-encodes everything but unreserved characters (A-Z a-z 0-9 - _ . ~), so that text
/// goes into a request path as one segment.
std::string path_segment(const std::string &text);

class CloudTransport {
  public:
    virtual ~CloudTransport() = default;
    /// Carries one request and returns its answer. Called from any thread, concurrently:
    /// an implementation keeps its own locking. Never throws.
    virtual CloudResponse exchange(const CloudRequest &request) = 0;
};

} // namespace hostkit

#endif

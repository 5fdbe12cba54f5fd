/// What the HTTP server allows a client: the size of a request's head, how long each part
/// may take, and how many threads serve. Each default is a named constant; serve's options
/// and the tests change them through HttpLimits.
#ifndef VEXO_CLOUD_HTTP_LIMITS_H
#define VEXO_CLOUD_HTTP_LIMITS_H

#include <chrono>
#include <cstdint>

namespace vexo_cloud {

using Millis = std::chrono::milliseconds;

/// Threads that run the sockets (accept, read, write); they never wait for the disk.
constexpr uint32_t kDefaultIoThreads = 2;
/// Threads that answer requests whose body is read already (everything but media uploads).
constexpr uint32_t kDefaultHandlerThreads = 4;
/// Threads that stream media uploads to disk; more uploads wait for one, unread.
constexpr uint32_t kDefaultUploadThreads = 8;

/// The request line ("PUT /v1/devices/D/media/F HTTP/1.1").
constexpr uint32_t kMaxRequestLine = 4096;
/// The whole head: request line and header fields.
constexpr uint32_t kMaxHeadBytes = 16 * 1024;
constexpr uint32_t kMaxHeaderFields = 64;
/// Bodies of the JSON endpoints (API calls, gap reports, admin calls); an alarm carries a
/// picture (up to 100 KB from the camera, base64 in the JSON), so it may be larger.
constexpr uint64_t kMaxJsonBody = 64 * 1024;
constexpr uint64_t kMaxAlarmBody = 1024 * 1024;

/// From the first byte of a request to the end of its head.
constexpr Millis kHeadTimeout{10000};
/// A body (or an answer being written) with no byte moving for this long is given up.
constexpr Millis kBodyIdleTimeout{15000};
/// A kept-alive connection with no new request for this long is closed.
constexpr Millis kKeepAliveTimeout{30000};
/// On stop: how long requests under way may take to finish before their connections close.
constexpr Millis kShutdownGrace{10000};

struct HttpLimits {
    uint32_t io_threads = kDefaultIoThreads;
    uint32_t handler_threads = kDefaultHandlerThreads;
    uint32_t upload_threads = kDefaultUploadThreads;
    uint32_t max_request_line = kMaxRequestLine;
    uint32_t max_head_bytes = kMaxHeadBytes;
    uint32_t max_header_fields = kMaxHeaderFields;
    uint64_t max_json_body = kMaxJsonBody;
    uint64_t max_alarm_body = kMaxAlarmBody;
    Millis head_timeout = kHeadTimeout;
    Millis body_idle_timeout = kBodyIdleTimeout;
    Millis keep_alive_timeout = kKeepAliveTimeout;
    Millis shutdown_grace = kShutdownGrace;
};

} // namespace vexo_cloud

#endif

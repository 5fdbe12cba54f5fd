/// One client connection of the HTTP server (plain or TLS): reads request heads and bodies
/// asynchronously on the server's IO threads within the limits and timeouts, hands each
/// request to a job thread (media uploads to the upload threads, whose blocking body reader
/// is fed piece by piece through a BodyFeed; every other request with its body read
/// whole), writes the answer, logs it, and keeps the connection for the next request.
#ifndef VEXO_CLOUD_HTTP_CONNECTION_H
#define VEXO_CLOUD_HTTP_CONNECTION_H

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "cloud_service.h"
#include "device_activity.h"
#include "http_limits.h"
#include "http_metrics.h"
#include "ui_sessions.h"
#include "work_pool.h"

namespace vexo_cloud {

/// What every connection of a server shares; outlives them all.
struct ConnectionContext {
    Service *service = nullptr;
    HttpLimits limits;
    uint64_t max_body = 0;
    std::string admin_token;
    bool access_log = true;
    HttpMetrics *metrics = nullptr;
    WorkPool *handlers = nullptr;       ///< requests whose body is read whole
    WorkPool *uploads = nullptr;        ///< media uploads, streamed
    UiSessions *sessions = nullptr;     ///< the browser view's logins
    DeviceActivity *activity = nullptr; ///< the devices' last requests
    /// Called once when a connection is gone, from any thread, with its id.
    std::function<void(uint64_t id)> closed;
};

class Connection {
  public:
    virtual ~Connection() = default;
    /// Begins serving (the TLS handshake first).
    virtual void start() = 0;
    /// Takes no new request: closes at once when idle, else after the current answer.
    virtual void drain() = 0;
    /// Closes now; a request under way loses its connection.
    virtual void close_now() = 0;
};

/// socket: accepted on a strand of its own. Thread-safe calls once made.
std::shared_ptr<Connection> make_plain_connection(boost::asio::ip::tcp::socket socket,
                                                  const ConnectionContext &context, uint64_t id);
std::shared_ptr<Connection> make_tls_connection(boost::asio::ip::tcp::socket socket,
                                                boost::asio::ssl::context &tls,
                                                const ConnectionContext &context, uint64_t id);

} // namespace vexo_cloud

#endif

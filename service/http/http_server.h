/// The cloud service on the network: an HTTP(S) server on a few IO threads (Boost.Asio and
/// Beast) that serves many kept-alive connections at once, hands device requests to the
/// service core, admin requests to the admin interface and the monitoring page (/metrics)
/// to its counters, refuses what breaks its limits, and logs one line per answer.
#ifndef VEXO_CLOUD_HTTP_SERVER_H
#define VEXO_CLOUD_HTTP_SERVER_H

#include <cstdint>
#include <memory>
#include <string>

#include "cloud_service.h"
#include "http_limits.h"

namespace vexo_cloud {

struct HttpOptions {
    std::string host = "127.0.0.1";
    uint16_t port = 8080; ///< 0: any free port
    std::string tls_cert; ///< both set: HTTPS
    std::string tls_key;
    std::string admin_token; ///< empty: the admin interface is open (loopback only)
    uint64_t max_body = 64ull << 20;
    bool access_log = true;
    HttpLimits limits;
};

class HttpServer {
  public:
    /// Binds the listening socket; nullptr with *error when the address cannot be bound
    /// (also when another server listens on the port) or the certificate or key cannot be
    /// loaded.
    static std::unique_ptr<HttpServer> bind(const HttpOptions &options, std::string *error);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    /// The port bound (the chosen one when options.port was 0).
    uint16_t port() const;
    /// Serves service's requests until stop() has finished; false when the server failed.
    bool run(Service &service);
    /// From any thread, also before run(): takes no new connection or request, lets the
    /// requests under way finish (for at most options.limits.shutdown_grace), then ends run().
    void stop();

  private:
    struct Impl;
    explicit HttpServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace vexo_cloud

#endif

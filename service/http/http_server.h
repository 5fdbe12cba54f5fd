/// The cloud service on the network: an HTTP(S) server (cpp-httplib) that hands device
/// requests to the service core, admin requests to the admin interface, and logs one line
/// per request.
#ifndef VEXO_CLOUD_HTTP_SERVER_H
#define VEXO_CLOUD_HTTP_SERVER_H

#include <cstdint>
#include <memory>
#include <string>

#include "cloud_service.h"

namespace httplib {
class Server;
}

namespace vexo_cloud {

struct HttpOptions {
    std::string host = "127.0.0.1";
    uint16_t port = 8080; ///< 0: any free port
    std::string tls_cert; ///< both set: HTTPS
    std::string tls_key;
    std::string admin_token; ///< empty: the admin interface is open (bind to loopback!)
    uint64_t max_body = 64ull << 20;
    bool access_log = true;
};

class HttpServer {
  public:
    /// Binds the listening socket; nullptr with *error when the address cannot be bound or
    /// the certificate or key cannot be loaded.
    static std::unique_ptr<HttpServer> bind(const HttpOptions &options, std::string *error);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    /// The port bound (the chosen one when options.port was 0).
    uint16_t port() const { return port_; }
    /// Serves service's requests until stop(); false when the server failed.
    bool run(Service &service);
    /// Ends run() from any thread.
    void stop();

  private:
    explicit HttpServer(const HttpOptions &options);
    void install_routes();

    Service *service_ = nullptr; // set by run(), before the first request is taken
    HttpOptions options_;
    std::unique_ptr<httplib::Server> server_;
    uint16_t port_ = 0;
};

} // namespace vexo_cloud

#endif

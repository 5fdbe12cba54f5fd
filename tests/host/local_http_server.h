// A cpp-httplib server on 127.0.0.1 and a port of its own, running on a thread for the
// length of a test.
#ifndef VEXO_TESTS_HOST_LOCAL_HTTP_SERVER_H
#define VEXO_TESTS_HOST_LOCAL_HTTP_SERVER_H

#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace vexo_test {

class LocalHttpServer {
  public:
    /// Takes a server with its routes set; binds it to a free port and starts it.
    explicit LocalHttpServer(std::unique_ptr<httplib::Server> server) : server_(std::move(server)) {
        port_ = server_->bind_to_any_port("127.0.0.1");
        if (port_ > 0) {
            thread_ = std::thread([this] { server_->listen_after_bind(); });
            for (int i = 0; i < 500 && !server_->is_running(); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
    }
    ~LocalHttpServer() {
        server_->stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    LocalHttpServer(const LocalHttpServer &) = delete;
    LocalHttpServer &operator=(const LocalHttpServer &) = delete;

    bool running() const { return port_ > 0 && server_->is_running(); }
    int port() const { return port_; }
    std::string url(const char *scheme = "http") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_);
    }

  private:
    std::unique_ptr<httplib::Server> server_;
    int port_ = -1;
    std::thread thread_;
};

} // namespace vexo_test

#endif

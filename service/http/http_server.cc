/// The HTTP server: the listening socket, the IO threads and the job pools, the open
/// connections, and the orderly stop.
#include "http_server.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "http_connection.h"
#include "http_metrics.h"
#include "work_pool.h"

namespace vexo_cloud {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// ---- constants -----------------------------------------------------------------------------

namespace {

/// After a failed accept (out of descriptors, say), before the next try.
constexpr Millis kAcceptRetry{100};

} // namespace

// ---- the server's state ----------------------------------------------------------------------

struct HttpServer::Impl {
    explicit Impl(const HttpOptions &o)
        : options(o), io(static_cast<int>(o.limits.io_threads)), strand(asio::make_strand(io)),
          acceptor(strand), retry(strand), grace(strand), guard(asio::make_work_guard(io)) {}

    void accept();
    void begin_stop();
    void connection_closed(uint64_t id);
    void finish();

    HttpOptions options;
    HttpMetrics metrics;
    ConnectionContext context;
    std::mutex mutex; // guards the four members that follow
    std::map<uint64_t, std::weak_ptr<Connection>> connections;
    uint64_t next_id = 1;
    bool stopping = false;
    bool finished = false;
    // Declared after what connections use: a connection still queued in the context when it
    // goes (after a failure) reports its end to the members above.
    asio::io_context io;
    /// Serialises the acceptor, the timers and the stop, whichever IO thread runs them.
    asio::strand<asio::io_context::executor_type> strand;
    tcp::acceptor acceptor;
    std::optional<asio::ssl::context> tls;
    asio::steady_timer retry;
    asio::steady_timer grace;
    asio::executor_work_guard<asio::io_context::executor_type> guard;
    uint16_t port = 0;
};

void HttpServer::Impl::accept() {
    // The handler runs on the acceptor's strand; the socket gets a strand of its own.
    acceptor.async_accept(asio::make_strand(io), [this](error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        if (ec) {
            std::fprintf(stderr, "vexo-cloud: accept failed: %s\n", ec.message().c_str());
            retry.expires_after(kAcceptRetry);
            retry.async_wait([this](error_code wait_ec) {
                if (!wait_ec) {
                    accept();
                }
            });
            return;
        }
        uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stopping) {
                return; // the socket closes as it goes
            }
            id = next_id++;
        }
        const std::shared_ptr<Connection> connection =
            tls ? make_tls_connection(std::move(socket), *tls, context, id)
                : make_plain_connection(std::move(socket), context, id);
        {
            std::lock_guard<std::mutex> lock(mutex);
            connections[id] = connection;
        }
        connection->start();
        accept();
    });
}

void HttpServer::Impl::begin_stop() {
    error_code ignored;
    acceptor.close(ignored);
    retry.cancel();
    std::vector<std::shared_ptr<Connection>> open;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) {
            return;
        }
        stopping = true;
        for (const auto &item : connections) {
            if (auto connection = item.second.lock()) {
                open.push_back(std::move(connection));
            }
        }
        if (connections.empty()) {
            finished = true;
        }
    }
    if (open.empty()) {
        return finish();
    }
    for (const auto &connection : open) {
        connection->drain();
    }
    grace.expires_after(options.limits.shutdown_grace);
    grace.async_wait([this](error_code ec) {
        if (ec) {
            return;
        }
        std::vector<std::shared_ptr<Connection>> left;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (const auto &item : connections) {
                if (auto connection = item.second.lock()) {
                    left.push_back(std::move(connection));
                }
            }
        }
        if (!left.empty()) {
            std::fprintf(stderr, "vexo-cloud: %zu connection(s) still busy after %lld ms, closed\n",
                         left.size(),
                         static_cast<long long>(options.limits.shutdown_grace.count()));
        }
        for (const auto &connection : left) {
            connection->close_now();
        }
    });
}

void HttpServer::Impl::connection_closed(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex);
    connections.erase(id);
    if (stopping && connections.empty() && !finished) {
        finished = true;
        asio::post(strand, [this] { finish(); });
    }
}

void HttpServer::Impl::finish() {
    grace.cancel();
    guard.reset();
}

// ---- exported calls ------------------------------------------------------------------------

HttpServer::HttpServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HttpServer::~HttpServer() = default;

uint16_t HttpServer::port() const {
    return impl_->port;
}

std::unique_ptr<HttpServer> HttpServer::bind(const HttpOptions &options, std::string *error) {
    auto impl = std::make_unique<Impl>(options);
    const bool tls = !options.tls_cert.empty() || !options.tls_key.empty();
    if (tls) {
        if (options.tls_cert.empty() || options.tls_key.empty()) {
            *error = "HTTPS needs both a certificate and a key";
            return nullptr;
        }
        impl->tls.emplace(asio::ssl::context::tls_server);
        error_code ec;
        impl->tls->set_options(asio::ssl::context::default_workarounds |
                                   asio::ssl::context::no_sslv2 | asio::ssl::context::no_sslv3 |
                                   asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1,
                               ec);
        impl->tls->use_certificate_chain_file(options.tls_cert, ec);
        if (!ec) {
            impl->tls->use_private_key_file(options.tls_key, asio::ssl::context::pem, ec);
        }
        if (ec) {
            *error = "cannot load the certificate " + options.tls_cert + " or the key " +
                     options.tls_key + ": " + ec.message();
            return nullptr;
        }
    }
    const std::string where = options.host + ":" + std::to_string(options.port);
    std::string host = options.host;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    error_code ec;
    tcp::resolver resolver(impl->io);
    const auto found =
        resolver.resolve(host, std::to_string(options.port),
                         tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || found.empty()) {
        *error = "cannot listen on " + where + ": " + (ec ? ec.message() : "no such address");
        return nullptr;
    }
    const tcp::endpoint endpoint = found.begin()->endpoint();
    tcp::acceptor &acceptor = impl->acceptor;
    // SO_REUSEADDR only lets a restarted server take its port back from connections that are
    // closing; unlike SO_REUSEPORT it never lets two servers listen on the same port.
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) {
        acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    }
    if (!ec) {
        acceptor.bind(endpoint, ec);
    }
    if (!ec) {
        acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        *error = "cannot listen on " + where + ": " + ec.message();
        if (ec == asio::error::address_in_use) {
            *error += " (another server, perhaps another vexo-cloud, listens there)";
        }
        return nullptr;
    }
    impl->port = acceptor.local_endpoint(ec).port();
    return std::unique_ptr<HttpServer>(new HttpServer(std::move(impl)));
}

bool HttpServer::run(Service &service) {
    Impl &impl = *impl_;
    const HttpLimits &limits = impl.options.limits;
    WorkPool handlers(limits.handler_threads);
    WorkPool uploads(limits.upload_threads);
    UiSessions sessions(impl.options.admin_token);
    DeviceActivity activity;
    ConnectionContext &context = impl.context;
    context.service = &service;
    context.limits = limits;
    context.max_body = impl.options.max_body;
    context.admin_token = impl.options.admin_token;
    context.access_log = impl.options.access_log;
    context.metrics = &impl.metrics;
    context.handlers = &handlers;
    context.uploads = &uploads;
    context.sessions = &sessions;
    context.activity = &activity;
    context.closed = [&impl](uint64_t id) { impl.connection_closed(id); };
    impl.accept();

    bool failed = false;
    std::mutex failure_mutex;
    const auto serve = [&] {
        try {
            impl.io.run();
        } catch (const std::exception &e) {
            std::lock_guard<std::mutex> lock(failure_mutex);
            std::fprintf(stderr, "vexo-cloud: the server failed: %s\n", e.what());
            failed = true;
            impl.io.stop();
        }
    };
    std::vector<std::thread> threads;
    for (uint32_t i = 1; i < limits.io_threads; ++i) {
        threads.emplace_back(serve);
    }
    serve();
    for (std::thread &thread : threads) {
        thread.join();
    }
    // The pools run their last jobs and end here, before the context they use goes.
    return !failed;
}

void HttpServer::stop() {
    asio::post(impl_->strand, [impl = impl_.get()] { impl->begin_stop(); });
}

} // namespace vexo_cloud

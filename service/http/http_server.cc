/// The HTTP server: every request is turned into the service's request form (lower-case
/// header names, path without the query), answered, and the answer copied back. Device
/// request bodies are read through the service, which checks the request first and streams
/// media uploads to disk.
#include "http_server.h"

#include <httplib.h>

#include <cctype>
#include <cstdio>

#include "admin_api.h"
#include "answers.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int kBadRequest = 400;
constexpr int kLengthRequired = 411;
constexpr int kPayloadTooLarge = 413;
constexpr int kInternalError = 500;
constexpr size_t kMaxAdminBody = 64 * 1024;
constexpr char kAnyPath[] = ".*";

// ---- helpers -------------------------------------------------------------------------------

std::string lower(std::string text) {
    for (char &c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

/// The request's head in the service's form; the body is left to the caller.
Request head_of(const httplib::Request &req) {
    Request head;
    head.method = req.method;
    head.path = req.path;
    const size_t question = req.target.find('?');
    head.query = question == std::string::npos ? "" : req.target.substr(question + 1);
    for (const auto &item : req.headers) {
        head.headers[lower(item.first)] = item.second;
    }
    return head;
}

void answer(httplib::Response &res, const Response &response) {
    res.status = response.status;
    res.set_content(response.body, response.content_type.c_str());
}

void refuse(httplib::Response &res, int status, const std::string &message) {
    answer(res, error_answer(status, message));
}

bool is_admin(const std::string &path) {
    return path.compare(0, sizeof kAdminPrefix - 1, kAdminPrefix) == 0;
}

bool chunked(const httplib::Request &req) {
    return lower(req.get_header_value("Transfer-Encoding")).find("chunked") != std::string::npos;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

HttpServer::HttpServer(const HttpOptions &options) : options_(options) {}

HttpServer::~HttpServer() = default;

std::unique_ptr<HttpServer> HttpServer::bind(const HttpOptions &options, std::string *error) {
    std::unique_ptr<HttpServer> self(new HttpServer(options));
    const bool tls = !options.tls_cert.empty() || !options.tls_key.empty();
    if (tls) {
        if (options.tls_cert.empty() || options.tls_key.empty()) {
            *error = "HTTPS needs both a certificate and a key";
            return nullptr;
        }
        self->server_ =
            std::make_unique<httplib::SSLServer>(options.tls_cert.c_str(), options.tls_key.c_str());
    } else {
        self->server_ = std::make_unique<httplib::Server>();
    }
    if (!self->server_->is_valid()) {
        *error =
            "cannot load the certificate " + options.tls_cert + " or the key " + options.tls_key;
        return nullptr;
    }
    self->install_routes();
    if (options.port == 0) {
        const int port = self->server_->bind_to_any_port(options.host);
        if (port <= 0) {
            *error = "cannot bind " + options.host;
            return nullptr;
        }
        self->port_ = static_cast<uint16_t>(port);
    } else {
        if (!self->server_->bind_to_port(options.host, options.port)) {
            *error = "cannot bind " + options.host + ":" + std::to_string(options.port);
            return nullptr;
        }
        self->port_ = options.port;
    }
    return self;
}

bool HttpServer::run(Service &service) {
    service_ = &service;
    return server_->listen_after_bind();
}

void HttpServer::stop() {
    server_->stop();
}

void HttpServer::install_routes() {
    httplib::Server &server = *server_;
    // The server's own refusal of an oversize body comes before any handler.
    server.set_payload_max_length(static_cast<size_t>(options_.max_body));

    server.Get(kAnyPath, [this](const httplib::Request &req, httplib::Response &res) {
        const Request head = head_of(req);
        answer(res, is_admin(head.path) ? handle_admin(*service_, head, options_.admin_token)
                                        : service_->handle(head));
    });

    const auto with_body = [this](const httplib::Request &req, httplib::Response &res,
                                  const httplib::ContentReader &reader) {
        if (chunked(req)) {
            refuse(res, kLengthRequired, "a body needs a Content-Length");
            return;
        }
        const Request head = head_of(req);
        const uint64_t length = req.get_header_value<uint64_t>("Content-Length");
        const BodyReader read_body = [&reader](const BodySink &sink) {
            return reader([&sink](const char *data, size_t size) { return sink(data, size); });
        };
        if (!is_admin(head.path)) {
            answer(res, service_->handle_streamed(head, length, read_body));
            return;
        }
        if (length > kMaxAdminBody) {
            refuse(res, kPayloadTooLarge, "admin requests are small");
            return;
        }
        Request whole = head;
        if (!read_body([&whole](const char *data, size_t size) {
                whole.body.append(data, size);
                return true;
            })) {
            refuse(res, kBadRequest, "request body incomplete");
            return;
        }
        answer(res, handle_admin(*service_, whole, options_.admin_token));
    };
    server.Post(kAnyPath, with_body);
    server.Put(kAnyPath, with_body);

    // What the library refuses by itself (unknown method, oversize body, bad request line)
    // gets the same JSON error shape as the service's refusals.
    server.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty()) {
            refuse(res, res.status, "request refused (HTTP " + std::to_string(res.status) + ")");
        }
    });
    server.set_exception_handler(
        [](const httplib::Request &, httplib::Response &res, std::exception_ptr error) {
            std::string what = "internal error";
            try {
                std::rethrow_exception(error);
            } catch (const std::exception &e) {
                what = e.what();
            } catch (...) {
            }
            refuse(res, kInternalError, what);
        });
    if (options_.access_log) {
        server.set_logger([](const httplib::Request &req, const httplib::Response &res) {
            std::fprintf(stderr, "vexo-cloud: %s %s %s -> %d\n", req.remote_addr.c_str(),
                         req.method.c_str(), req.path.c_str(), res.status);
        });
    }
}

} // namespace vexo_cloud

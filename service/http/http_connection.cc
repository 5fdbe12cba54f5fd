/// A client connection: the request cycle on the connection's strand, the jobs on the work
/// pools. One timer bounds whatever the connection waits for (a new request, the head, a body
/// piece, the answer's write); when it fires, the socket's operation is cancelled and the
/// waiting step decides what follows (a 408, or closing).
#include "http_connection.h"

#include <cstdio>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/file_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>

#include "admin_api.h"
#include "answers.h"
#include "body_feed.h"
#include "overview_api.h"
#include "request_rules.h"
#include "ui_auth.h"
#include "ui_routes.h"

namespace vexo_cloud {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using beast::error_code;

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kUnauthorized = 401;
constexpr int32_t kMethodNotAllowed = 405;
constexpr int32_t kInternalError = 500;
/// Body bytes read at a time, and what a streamed upload holds in memory.
constexpr size_t kPieceBytes = 64 * 1024;
/// Bytes read at a time while waiting for a new request.
constexpr size_t kFirstRead = 4096;
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr char kMetricsType[] = "text/plain; version=0.0.4";

/// What the connection waits for, which decides what a timeout means.
enum class Wait { kNothing, kRequest, kHead, kBody, kWrite };

// ---- helpers -------------------------------------------------------------------------------

std::string lower(std::string text) {
    for (char &c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// The monitoring page, behind the admin token as the admin interface is.
Response metrics_answer(const ConnectionContext &context, const Request &head) {
    if (!context.admin_token.empty() && !admin_token_accepted(head, context.admin_token)) {
        return error_answer(kUnauthorized, "missing or wrong admin token");
    }
    if (head.method != "GET") {
        return error_answer(kMethodNotAllowed, "method " + head.method + " not allowed");
    }
    Response answer;
    answer.status = kOk;
    answer.content_type = kMetricsType;
    answer.body = context.metrics->render(context.service->stats());
    return answer;
}

template <class Stream>
class HttpConnection final : public Connection,
                             public std::enable_shared_from_this<HttpConnection<Stream>> {
  public:
    HttpConnection(Stream stream, const ConnectionContext &context, uint64_t id)
        : stream_(std::move(stream)), timer_(stream_.get_executor()), context_(context), id_(id) {
        error_code ec;
        const tcp::endpoint peer = beast::get_lowest_layer(stream_).remote_endpoint(ec);
        peer_ = ec ? "?" : peer.address().to_string();
        context_.metrics->connection_opened();
    }
    ~HttpConnection() override {
        context_.metrics->connection_closed();
        context_.closed(id_);
    }

    void start() override {
        asio::dispatch(stream_.get_executor(),
                       [self = this->shared_from_this()] { self->handshake(); });
    }
    void drain() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] {
            self->draining_ = true;
            if (self->waiting_ == Wait::kRequest) {
                self->close();
            }
        });
    }
    void close_now() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] { self->close(); });
    }

  private:
    static constexpr bool kTls = !std::is_same<Stream, tcp::socket>::value;

    // ---- the timer ----
    void arm(Wait what, Millis after) {
        waiting_ = what;
        timed_out_ = false;
        ++timer_round_;
        timer_.expires_after(after);
        timer_.async_wait([self = this->shared_from_this(), round = timer_round_](error_code ec) {
            if (ec || round != self->timer_round_) {
                return;
            }
            self->timed_out_ = true;
            error_code ignored;
            beast::get_lowest_layer(self->stream_).cancel(ignored);
        });
    }
    void disarm() {
        ++timer_round_;
        timer_.cancel();
    }

    // ---- the request cycle ----
    void handshake() {
        if constexpr (kTls) {
            arm(Wait::kHead, context_.limits.head_timeout);
            stream_.async_handshake(asio::ssl::stream_base::server,
                                    [self = this->shared_from_this()](error_code ec) {
                                        self->disarm();
                                        if (ec) {
                                            return self->close();
                                        }
                                        self->wait_request(self->context_.limits.head_timeout);
                                    });
        } else {
            wait_request(context_.limits.head_timeout);
        }
    }

    /// Waits for the first byte of a request: a new connection as long as a head may take,
    /// a kept-alive one as long as it may stay idle.
    void wait_request(Millis patience) {
        if (draining_ || closed_) {
            return close();
        }
        if (buffer_.size() > 0) {
            return read_head();
        }
        arm(Wait::kRequest, patience);
        stream_.async_read_some(buffer_.prepare(kFirstRead),
                                [self = this->shared_from_this()](error_code ec, size_t n) {
                                    self->disarm();
                                    if (ec || n == 0) {
                                        return self->close();
                                    }
                                    self->buffer_.commit(n);
                                    self->read_head();
                                });
    }

    void read_head() {
        parser_.emplace();
        parser_->header_limit(context_.limits.max_head_bytes);
        // The endpoint's limit is checked on the head (Beast 1.74 takes "none" for a limit of 0).
        parser_->body_limit(std::numeric_limits<uint64_t>::max());
        feed_.reset();
        body_.clear();
        continue_sent_ = false;
        arm(Wait::kHead, context_.limits.head_timeout);
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = this->shared_from_this()](error_code ec, size_t n) {
                                    self->disarm();
                                    self->on_head(ec, n);
                                });
    }

    void on_head(error_code ec, size_t bytes) {
        context_.metrics->add_bytes_in(bytes);
        // For the log line: what the parser made of the request line, if anything.
        head_ = Request{};
        head_.method = std::string(parser_->get().method_string());
        head_.path = std::string(parser_->get().target());
        head_.path = head_.path.substr(0, head_.path.find('?'));
        if (ec && timed_out_) {
            return refuse(head_timeout_refusal());
        }
        if (ec == http::error::bad_content_length) {
            return refuse(bad_content_length_refusal(
                "Content-Length must be one decimal number, given once"));
        }
        if (ec == http::error::header_limit) {
            return refuse(head_too_large_refusal(first_line_ended(), context_.limits));
        }
        if (ec && ec.category() == http::make_error_code(http::error::header_limit).category() &&
            ec != http::error::end_of_stream && ec != http::error::partial_message) {
            return refuse(malformed_refusal(ec.message()));
        }
        if (ec) {
            return close(); // the client went away
        }
        auto &request = parser_->get();
        RequestHead head;
        head.method = std::string(request.method_string());
        head.target = std::string(request.target());
        for (const auto &field : request) {
            ++head.fields;
            if (field.name() == http::field::content_length) {
                head.content_lengths.emplace_back(field.value());
            } else if (field.name() == http::field::transfer_encoding) {
                head.transfer_encoding = true;
            }
        }
        uint64_t length = 0;
        if (std::optional<Refusal> refusal =
                check_head(head, context_.limits, context_.max_body, &length)) {
            return refuse(*refusal);
        }
        head_.method = head.method;
        const size_t question = head.target.find('?');
        head_.path = decoded_path(head.target.substr(0, question));
        head_.query = question == std::string::npos ? "" : head.target.substr(question + 1);
        for (const auto &field : request) {
            head_.headers[lower(std::string(field.name_string()))] = std::string(field.value());
        }
        content_length_ = length;
        endpoint_ = endpoint_of(head_.path);
        expects_continue_ = lower(std::string(request[http::field::expect])) == "100-continue";
        started_ = std::chrono::steady_clock::now();
        if (endpoint_ == Endpoint::kMedia) {
            return stream_to_service();
        }
        read_whole_body();
    }

    /// Whether the request line was whole when the head outgrew its limit: the parser takes
    /// the line (method and target) before the fields.
    bool first_line_ended() const { return !parser_->get().target().empty(); }

    /// "100 Continue" for a client that waits for it before sending its body, then next.
    template <class Next> void send_continue_then(Next next) {
        if (!expects_continue_ || continue_sent_ || parser_->is_done()) {
            return next();
        }
        continue_sent_ = true;
        arm(Wait::kWrite, context_.limits.body_idle_timeout);
        asio::async_write(stream_, asio::buffer(kContinue, sizeof kContinue - 1),
                          [self = this->shared_from_this(), next](error_code ec, size_t) {
                              self->disarm();
                              if (ec) {
                                  return self->body_failed();
                              }
                              next();
                          });
    }

    /// Reads one piece of the body into a string of its own; then done(ok, piece).
    template <class Done> void read_piece(Done done) {
        auto piece = std::make_shared<std::string>(kPieceBytes, '\0');
        auto &body = parser_->get().body();
        body.data = piece->data();
        body.size = piece->size();
        body.more = true;
        arm(Wait::kBody, context_.limits.body_idle_timeout);
        http::async_read_some(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this(), piece, done](error_code ec, size_t n) {
                self->disarm();
                self->context_.metrics->add_bytes_in(n);
                piece->resize(piece->size() - self->parser_->get().body().size);
                if (ec == http::error::need_buffer) {
                    ec = {};
                }
                done(!ec, std::move(*piece));
            });
    }

    /// Small requests: the body is read whole (within the endpoint's limit, checked on the
    /// head) before a job thread answers, so that a slow client holds no thread.
    void read_whole_body() {
        if (parser_->is_done()) {
            return answer_on(*context_.handlers);
        }
        send_continue_then([self = this->shared_from_this()] {
            self->read_piece([self](bool ok, std::string piece) {
                if (!ok) {
                    return self->timed_out_ ? self->refuse(body_timeout_refusal()) : self->close();
                }
                self->body_.append(piece);
                self->read_whole_body();
            });
        });
    }

    void answer_on(WorkPool &pool) {
        waiting_ = Wait::kNothing;
        pool.post([self = this->shared_from_this()] {
            Response answer;
            try {
                answer = self->answer();
            } catch (const std::exception &e) {
                // The detail may name server paths: the log has it, the client a generic text.
                std::fprintf(stderr, "vexo-cloud: %s %s failed: %s\n", self->head_.method.c_str(),
                             self->head_.path.c_str(), e.what());
                answer = error_answer(kInternalError, "internal error");
            }
            asio::post(self->stream_.get_executor(),
                       [self, answer = std::move(answer)] { self->send(answer, false); });
        });
    }

    /// On a job thread: the answer of the service, the admin interface or the monitoring
    /// page. A media upload's body is read through the feed as the service asks for it.
    Response answer() {
        if (head_.path == kMetricsPath) {
            return metrics_answer(context_, head_);
        }
        if (is_ui_path(head_.path)) {
            Request whole = head_;
            whole.body = std::move(body_);
            return handle_ui(UiContext{context_.admin_token, context_.sessions, kTls}, whole);
        }
        if (endpoint_ == Endpoint::kAdmin) {
            Request whole = head_;
            whole.body = std::move(body_);
            // The token or a browser session; the admin interface then needs no token of its
            // own.
            if (std::optional<Response> refusal = admin_refusal(
                    whole, context_.admin_token, *context_.sessions, wall_seconds())) {
                return *refusal;
            }
            if (whole.path == kOverviewPath) {
                return overview_answer(*context_.service, *context_.activity, whole);
            }
            return handle_admin(*context_.service, whole, std::string());
        }
        Response answer = feed_ ? context_.service->handle_streamed(
                                      head_, content_length_,
                                      [this](const BodySink &sink) { return feed_->read(sink); })
                                : context_.service->handle_streamed(
                                      head_, body_.size(), [this](const BodySink &sink) {
                                          return body_.empty() || sink(body_.data(), body_.size());
                                      });
        context_.activity->note(head_, answer.status, context_.service->now());
        return answer;
    }

    /// Media uploads: the service checks the request first and reads the body only if it
    /// takes it, piece by piece as it stores it.
    void stream_to_service() {
        const std::weak_ptr<HttpConnection> weak = this->shared_from_this();
        feed_ = std::make_shared<BodyFeed>(
            [weak] {
                if (const auto self = weak.lock()) {
                    asio::post(self->stream_.get_executor(), [self] { self->feed_piece(); });
                }
            },
            parser_->is_done());
        answer_on(*context_.uploads);
    }

    void feed_piece() {
        if (closed_) {
            return feed_->fail();
        }
        send_continue_then([self = this->shared_from_this()] {
            self->read_piece([self](bool ok, std::string piece) {
                self->waiting_ = Wait::kNothing;
                if (!ok) {
                    return self->body_failed();
                }
                self->feed_->deliver(std::move(piece), self->parser_->is_done());
            });
        });
    }

    void body_failed() {
        if (feed_) {
            feed_->fail();
        } else {
            close();
        }
    }

    void refuse(const Refusal &refusal) {
        context_.metrics->count_refusal(refusal.reason, refusal.status);
        send(error_answer(refusal.status, refusal.message), true);
    }

    void send(const Response &answer, bool refused) {
        if (closed_) {
            return discard_body_file(answer);
        }
        const bool whole = parser_ && parser_->is_done();
        keep_alive_ = !refused && !draining_ && whole && parser_->get().keep_alive();
        const bool head_request = parser_ && parser_->get().method() == http::verb::head;
        if (!answer.body_file.empty()) {
            return send_file(answer, head_request);
        }
        auto response = std::make_shared<http::response<http::string_body>>(
            static_cast<http::status>(answer.status), 11);
        set_fields(*response, answer);
        if (head_request) {
            response->content_length(answer.body.size());
        } else {
            response->body() = answer.body;
            response->prepare_payload();
        }
        write_pieces(response, answer.status);
    }

    template <typename Body>
    void set_fields(http::response<Body> &response, const Response &answer) const {
        response.set(http::field::content_type, answer.content_type);
        for (const auto &[name, value] : answer.headers) {
            response.set(name, value);
        }
        response.keep_alive(keep_alive_);
    }

    /// A body kept in a file is streamed from it; a temporary one is removed once open, so
    /// that nothing is left behind however the answer ends.
    void send_file(const Response &answer, bool head_request) {
        auto response = std::make_shared<http::response<http::file_body>>(
            static_cast<http::status>(answer.status), 11);
        set_fields(*response, answer);
        error_code ec;
        response->body().open(answer.body_file.c_str(), beast::file_mode::scan, ec);
        discard_body_file(answer);
        if (ec) {
            std::fprintf(stderr, "vexo-cloud: cannot open %s to answer %s: %s\n",
                         answer.body_file.c_str(), head_.path.c_str(), ec.message().c_str());
            return send(error_answer(kInternalError, "internal error"), true);
        }
        if (head_request) {
            // The head alone: its length is the file's, and no body follows.
            auto head = std::make_shared<http::response<http::string_body>>(
                static_cast<http::status>(answer.status), 11);
            set_fields(*head, answer);
            head->content_length(response->body().size());
            return write_pieces(head, answer.status);
        }
        response->prepare_payload();
        write_pieces(response, answer.status);
    }

    static void discard_body_file(const Response &answer) {
        if (!answer.body_file.empty() && answer.body_file_temporary) {
            std::remove(answer.body_file.c_str());
        }
    }

    /// Writes an answer a piece at a time; each piece must go out within the body timeout,
    /// however long the whole takes.
    template <typename Body>
    void write_pieces(const std::shared_ptr<http::response<Body>> &response, int32_t status) {
        auto serializer = std::make_shared<http::response_serializer<Body>>(*response);
        const std::string method = head_.method.empty() ? "-" : head_.method;
        const std::string path = head_.path.empty() ? "-" : head_.path;
        write_next(response, serializer, method, path, status);
    }

    template <typename Body>
    void write_next(const std::shared_ptr<http::response<Body>> &response,
                    const std::shared_ptr<http::response_serializer<Body>> &serializer,
                    const std::string &method, const std::string &path, int32_t status) {
        arm(Wait::kWrite, context_.limits.body_idle_timeout);
        http::async_write_some(stream_, *serializer,
                               [self = this->shared_from_this(), response, serializer, method, path,
                                status](error_code ec, size_t) {
                                   self->disarm();
                                   if (ec || serializer->is_done()) {
                                       return self->after_answer(ec, method, path, status);
                                   }
                                   self->write_next(response, serializer, method, path, status);
                               });
    }

    void after_answer(error_code ec, const std::string &method, const std::string &path,
                      int32_t status) {
        context_.metrics->count_request(endpoint_, status);
        if (endpoint_ == Endpoint::kMedia) {
            context_.metrics->observe_upload(seconds_since(started_));
        }
        // After the answer went out: tests and scripts take the line as the sign of it.
        if (context_.access_log) {
            std::fprintf(stderr, "vexo-cloud: %s %s %s -> %d\n", peer_.c_str(), method.c_str(),
                         path.c_str(), static_cast<int>(status));
        }
        head_ = Request{};
        endpoint_ = Endpoint::kOther;
        if (ec || !keep_alive_) {
            return close();
        }
        wait_request(context_.limits.keep_alive_timeout);
    }

    void close() {
        waiting_ = Wait::kNothing;
        if (feed_) {
            feed_->fail();
        }
        if (closed_) {
            return;
        }
        closed_ = true;
        disarm();
        auto &socket = beast::get_lowest_layer(stream_);
        error_code ignored;
        socket.shutdown(tcp::socket::shutdown_both, ignored);
        socket.close(ignored);
    }

    Stream stream_;
    asio::steady_timer timer_;
    const ConnectionContext &context_;
    const uint64_t id_;
    std::string peer_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::buffer_body>> parser_;
    Request head_;
    Endpoint endpoint_ = Endpoint::kOther;
    uint64_t content_length_ = 0;
    std::string body_;               ///< a small request's body, read whole
    std::shared_ptr<BodyFeed> feed_; ///< a media upload's body, fed to the service
    std::chrono::steady_clock::time_point started_;
    Wait waiting_ = Wait::kNothing;
    uint64_t timer_round_ = 0;
    bool timed_out_ = false;
    bool expects_continue_ = false;
    bool continue_sent_ = false;
    bool keep_alive_ = false;
    bool draining_ = false;
    bool closed_ = false;
};

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::shared_ptr<Connection> make_plain_connection(tcp::socket socket,
                                                  const ConnectionContext &context, uint64_t id) {
    return std::make_shared<HttpConnection<tcp::socket>>(std::move(socket), context, id);
}

std::shared_ptr<Connection> make_tls_connection(tcp::socket socket, asio::ssl::context &tls,
                                                const ConnectionContext &context, uint64_t id) {
    using TlsStream = asio::ssl::stream<tcp::socket>;
    return std::make_shared<HttpConnection<TlsStream>>(TlsStream(std::move(socket), tls), context,
                                                       id);
}

} // namespace vexo_cloud

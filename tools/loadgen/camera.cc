// A virtual camera's clock, its request queue and its connection.
//
// Protocol mode, per camera: at its first tick the order (PUT through the admin interface,
// so that the service knows the device and lets it record all the time), storage/config
// and the start notification of a recording; at each later tick the slice that just ended;
// after K slices the stop notification and the next recording's start. Alarms go at random
// times. At the end of the run the open recording is stopped. --put-only sends only the
// slices, as plain PUTs.
#include "camera.h"

#include <boost/asio/connect.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace loadgen {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int kHttpVersion = 11;
constexpr size_t kMaxAnswerBytes = 1 << 20;
constexpr int32_t kMinOrderSlice = 3; // the service's range for an order's slice length
constexpr int32_t kMaxOrderSlice = 60;
constexpr int kMinElapsedDigits = 4;
constexpr size_t kKeyLength = 16;
constexpr char kUserAgent[] = "vexo-loadgen";
constexpr char kApiStart[] = "/v1/api/vexo.device.ipc.media.storage.notify.upload.start?v=1.0";
constexpr char kApiStop[] = "/v1/api/vexo.device.ipc.media.storage.notify.upload.stop?v=1.0";
/// What a 1080p H.264 camera with G.711 audio announces; the service keeps it as given.
constexpr char kPayloadInfo[] = R"({"v":1,"vType":"1","vFps":25,"vWide":1920,"vHigh":1080,)"
                                R"("aType":"3","aSampling":8000,"aBitwide":16,"aChannels":1})";

// ---- helpers -------------------------------------------------------------------------------

uint32_t wall_seconds() {
    return static_cast<uint32_t>(std::time(nullptr));
}

std::chrono::nanoseconds to_duration(double seconds) {
    return std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9));
}

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string md5_hex(const std::string &text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr) != 1) {
        return "0000";
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0xf];
    }
    return hex;
}

std::string media_name(uint32_t recording_start, uint32_t elapsed) {
    std::string digits = std::to_string(elapsed);
    if (digits.size() < kMinElapsedDigits) {
        digits.insert(0, kMinElapsedDigits - digits.size(), '0');
    }
    return std::to_string(recording_start) + "_" + digits + ".media";
}

std::string error_reason(const beast::error_code &ec) {
    if (ec == beast::error::timeout) {
        return "timeout";
    }
    return ec.message();
}

/// The API answer's result object, or why there is none.
std::optional<nlohmann::json> api_result(const std::string &body, std::string *problem) {
    const nlohmann::json answer = nlohmann::json::parse(body, nullptr, false);
    if (!answer.is_object() || !answer.contains("success")) {
        *problem = "API answer is not {\"success\":...}";
        return std::nullopt;
    }
    if (answer["success"] != true) {
        const auto code = answer.find("code");
        *problem =
            "refused: " + (code != answer.end() && code->is_string() ? code->get<std::string>()
                                                                     : std::string("no code"));
        return std::nullopt;
    }
    const auto result = answer.find("result");
    if (result == answer.end() || !result->is_object()) {
        *problem = "API answer without a result object";
        return std::nullopt;
    }
    return *result;
}

} // namespace

// ---- the camera's clock --------------------------------------------------------------------

Camera::Camera(CameraContext &context, uint32_t index)
    : ctx_(context), index_(index), device_(device_id(context.options, index)), stream_(context.io),
      tick_timer_(context.io), alarm_timer_(context.io), reconnect_timer_(context.io),
      random_(context.options.seed * 1000003u + index),
      register_needed_(context.options.register_devices && !context.options.put_only) {
    if (!ctx_.options.token_prefix.empty()) {
        bearer_ = "Bearer " + ctx_.options.token_prefix + device_;
    }
}

void Camera::start() {
    const Options &o = ctx_.options;
    next_tick_ = ctx_.start + to_duration(o.ramp_s * index_ / o.cameras);
    arm_tick();
    if (o.alarm_every_s > 0 && !o.put_only) {
        arm_alarm();
    }
    if (o.reconnect_every_s > 0) {
        arm_reconnect();
    }
}

double Camera::random_interval(double mean) {
    return std::exponential_distribution<double>(1.0 / mean)(random_);
}

void Camera::arm_tick() {
    const bool last = next_tick_ >= ctx_.deadline;
    tick_timer_.expires_at(last ? ctx_.deadline : next_tick_);
    tick_timer_.async_wait([this, last](const beast::error_code &ec) {
        if (ec) {
            return; // cancelled: the run ends
        }
        if (last) {
            finish();
        } else {
            tick();
        }
    });
}

void Camera::arm_alarm() {
    const Clock::time_point base = std::max(Clock::now(), next_tick_);
    alarm_timer_.expires_at(base + to_duration(random_interval(ctx_.options.alarm_every_s)));
    alarm_timer_.async_wait([this](const beast::error_code &ec) {
        if (ec || finishing_ || Clock::now() >= ctx_.deadline) {
            return;
        }
        nlohmann::json body = {{"time", wall_seconds()},
                               {"withPicture", 0},
                               {"extra", R"({"source":"vexo-loadgen"})"}};
        add(Kind::kAlarm, 0, http::verb::post, device_path("/alarms"), body.dump());
        arm_alarm();
        pump();
    });
}

void Camera::arm_reconnect() {
    const Clock::time_point base = std::max(Clock::now(), next_tick_);
    reconnect_timer_.expires_at(base +
                                to_duration(random_interval(ctx_.options.reconnect_every_s)));
    reconnect_timer_.async_wait([this](const beast::error_code &ec) {
        if (ec || finishing_) {
            return;
        }
        reconnect_due_ = true;
        arm_reconnect();
    });
}

void Camera::tick() {
    const Options &o = ctx_.options;
    if (o.put_only) {
        if (recording_) {
            queue_slice(recording_start_, slices_ * o.slice_every_s);
            ++slices_;
        } else {
            recording_ = true; // the slices' names start from the first tick
            recording_start_ = wall_seconds();
        }
    } else if (!recording_) {
        queue_recording_start();
    } else {
        queue_slice(recording_start_, slices_ * o.slice_every_s);
        if (++slices_ == o.slices_per_recording) {
            const nlohmann::json stop = {{"startTime", recording_start_},
                                         {"endTime", recording_start_ + slices_ * o.slice_every_s}};
            add(Kind::kStop, generation_, http::verb::post, ctx_.server.base_path + kApiStop,
                stop.dump());
            queue_recording_start();
        }
    }
    next_tick_ += std::chrono::seconds(o.slice_every_s);
    arm_tick();
    pump();
}

void Camera::queue_recording_start() {
    const Options &o = ctx_.options;
    ++generation_;
    if (register_needed_) {
        const nlohmann::json order = {
            {"storeMode", "alltime"},
            {"sliceDuration",
             std::clamp(static_cast<int32_t>(o.slice_every_s), kMinOrderSlice, kMaxOrderSlice)}};
        add(Kind::kRegister, generation_, http::verb::put,
            ctx_.server.base_path + "/v1/admin/devices/" + device_ + "/order", order.dump());
        queue_.back().device = false;
    }
    if (config_needed_) {
        add(Kind::kConfig, generation_, http::verb::get, device_path("/storage/config"));
    }
    // A new recording never reuses the start time of the one before: that would be the same
    // recording to the service.
    recording_start_ = std::max(wall_seconds(), recording_start_ + 1);
    slices_ = 0;
    recording_ = true;
    const nlohmann::json start = {{"startTime", recording_start_},
                                  {"payloadInfo", kPayloadInfo},
                                  {"mtu", o.slice_every_s},
                                  {"enKeyMd5", key_md5_}};
    add(Kind::kStart, generation_, http::verb::post, ctx_.server.base_path + kApiStart,
        start.dump());
}

void Camera::queue_slice(uint32_t recording_start, uint32_t elapsed) {
    const std::string name = media_name(recording_start, elapsed);
    const std::string target = ctx_.options.put_only
                                   ? ctx_.server.base_path + "/" + device_ + "/" + name
                                   : device_path("/media/" + name);
    add(Kind::kUpload, generation_, http::verb::put, target);
    queue_.back().media = true;
    queue_.back().device = !ctx_.options.put_only;
}

void Camera::add(Kind kind, uint32_t generation, http::verb method, const std::string &target,
                 std::string body) {
    Job job;
    job.kind = kind;
    job.due = Clock::now();
    job.generation = generation;
    job.method = method;
    job.target = target;
    job.body = std::move(body);
    queue_.push_back(std::move(job));
}

std::string Camera::device_path(const std::string &rest) const {
    return ctx_.server.base_path + "/v1/devices/" + device_ + rest;
}

void Camera::finish() {
    finishing_ = true;
    alarm_timer_.cancel();
    reconnect_timer_.cancel();
    if (!ctx_.options.put_only && recording_) {
        const nlohmann::json stop = {{"startTime", recording_start_},
                                     {"endTime", std::max(wall_seconds(), recording_start_)}};
        add(Kind::kStop, generation_, http::verb::post, ctx_.server.base_path + kApiStop,
            stop.dump());
        recording_ = false;
    }
    pump();
}

void Camera::abort() {
    if (done_) {
        return;
    }
    aborted_ = true;
    finishing_ = true;
    tick_timer_.cancel();
    alarm_timer_.cancel();
    reconnect_timer_.cancel();
    ctx_.stats.add_unsent(queue_.size());
    queue_.clear();
    if (busy_) {
        // The handler under way completes with an error and ends the camera.
        close_connection();
        return;
    }
    complete();
}

void Camera::complete() {
    if (done_) {
        return;
    }
    done_ = true;
    close_connection();
    ctx_.on_done();
}

// ---- the request queue and the connection --------------------------------------------------

void Camera::pump() {
    while (!busy_ && !queue_.empty()) {
        Job job = std::move(queue_.front());
        queue_.pop_front();
        if (failed_generations_.count(job.generation) != 0) {
            ctx_.stats.add_unsent(1); // its recording never started
            continue;
        }
        current_ = std::move(job);
        busy_ = true;
        retried_ = false;
        sent_at_ = Clock::now();
        ctx_.stats.record_wait(seconds_between(current_.due, sent_at_));
        prepare_request();
        send_current();
        return;
    }
    if (!busy_ && queue_.empty() && finishing_) {
        complete();
    }
}

void Camera::prepare_request() {
    request_ = {};
    request_.version(kHttpVersion);
    request_.method(current_.method);
    request_.target(current_.target);
    request_.set(http::field::host, ctx_.server.host_header);
    request_.set(http::field::user_agent, kUserAgent);
    if (current_.device) {
        request_.set("X-Vexo-Device", device_);
        if (!bearer_.empty()) {
            request_.set(http::field::authorization, bearer_);
        }
    } else if (!ctx_.options.admin_token.empty()) {
        request_.set(http::field::authorization, "Bearer " + ctx_.options.admin_token);
    }
    if (current_.media) {
        request_.set(http::field::content_type, "application/octet-stream");
        request_.body() = beast::span<const char>(ctx_.slice.data(), ctx_.slice.size());
    } else if (current_.method != http::verb::get) {
        request_.set(http::field::content_type, "application/json");
        request_.body() = beast::span<const char>(current_.body.data(), current_.body.size());
    }
    request_.prepare_payload();
}

void Camera::send_current() {
    if (reconnect_due_ && connected_) {
        close_connection();
    }
    reconnect_due_ = false;
    if (connected_) {
        write_request();
        return;
    }
    connect_at_ = Clock::now();
    stream_.expires_after(to_duration(ctx_.options.timeout_s));
    stream_.async_connect(
        ctx_.endpoints,
        [this](const beast::error_code &ec, const asio::ip::tcp::endpoint &) { on_connect(ec); });
}

void Camera::on_connect(const beast::error_code &ec) {
    if (aborted_) {
        fail("cut off at the end of the run");
        return;
    }
    if (ec) {
        ctx_.stats.record_error(Kind::kConnect, error_reason(ec));
        ctx_.progress.errors.fetch_add(1, std::memory_order_relaxed);
        close_connection();
        fail("no connection: " + error_reason(ec));
        return;
    }
    connected_ = true;
    reused_ = false;
    buffer_.clear();
    ctx_.progress.connections.fetch_add(1, std::memory_order_relaxed);
    ctx_.stats.record_ok(Kind::kConnect, seconds_between(connect_at_, Clock::now()));
    beast::error_code ignored;
    stream_.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    write_request();
}

void Camera::write_request() {
    parser_.emplace();
    parser_->body_limit(kMaxAnswerBytes);
    stream_.expires_after(to_duration(ctx_.options.timeout_s));
    http::async_write(stream_, request_,
                      [this](const beast::error_code &ec, size_t) { on_write(ec); });
}

void Camera::on_write(const beast::error_code &ec) {
    if (aborted_) {
        fail("cut off at the end of the run");
        return;
    }
    if (ec) {
        on_io_error(ec);
        return;
    }
    http::async_read(stream_, buffer_, *parser_,
                     [this](const beast::error_code &read_ec, size_t) { on_read(read_ec); });
}

void Camera::on_read(const beast::error_code &ec) {
    if (aborted_) {
        fail("cut off at the end of the run");
        return;
    }
    if (ec) {
        on_io_error(ec);
        return;
    }
    on_response();
}

void Camera::on_io_error(const beast::error_code &ec) {
    // A server may close an idle keep-alive connection just as the camera sends on it: the
    // request never reached it, and a client sends it again once, on a new connection.
    const bool closed_by_peer = ec == http::error::end_of_stream || ec == asio::error::eof ||
                                ec == asio::error::connection_reset ||
                                ec == asio::error::broken_pipe;
    const bool stale = reused_ && !retried_ && closed_by_peer && !parser_->got_some();
    close_connection();
    if (stale) {
        ctx_.stats.add_stale_retry();
        retried_ = true;
        send_current();
        return;
    }
    fail(error_reason(ec));
}

void Camera::on_response() {
    stream_.expires_never();
    const http::response<http::string_body> &answer = parser_->get();
    const std::string problem = check_answer(answer);
    if (answer.keep_alive()) {
        reused_ = true;
    } else {
        close_connection();
    }
    if (problem.empty()) {
        succeed();
    } else {
        fail(problem);
    }
}

std::string Camera::check_answer(const http::response<http::string_body> &answer) {
    const unsigned status = answer.result_int();
    if (status < 200 || status > 299) {
        return "HTTP " + std::to_string(status);
    }
    std::string problem;
    switch (current_.kind) {
    case Kind::kConfig: {
        const nlohmann::json config = nlohmann::json::parse(answer.body(), nullptr, false);
        if (!config.is_object() || !config.contains("storeMode") ||
            !config["storeMode"].is_string()) {
            return "storage/config answer without a storeMode";
        }
        return "";
    }
    case Kind::kStart: {
        const std::optional<nlohmann::json> result = api_result(answer.body(), &problem);
        if (!result) {
            return problem;
        }
        if (result->value("needUpdate", false)) {
            const auto key = result->find("encryptKey");
            if (key == result->end() || !key->is_string() ||
                key->get<std::string>().size() != kKeyLength) {
                return "start answer asks for a new key without one";
            }
            // The camera's later recordings announce the key it was given.
            key_md5_ = md5_hex(key->get<std::string>());
        }
        return "";
    }
    case Kind::kStop:
        return api_result(answer.body(), &problem) ? "" : problem;
    default:
        return "";
    }
}

void Camera::succeed() {
    ctx_.stats.record_ok(current_.kind, seconds_between(sent_at_, Clock::now()));
    ctx_.progress.requests.fetch_add(1, std::memory_order_relaxed);
    if (current_.kind == Kind::kUpload) {
        ctx_.stats.add_upload_bytes(ctx_.slice.size());
        ctx_.progress.upload_bytes.fetch_add(ctx_.slice.size(), std::memory_order_relaxed);
    } else if (current_.kind == Kind::kRegister) {
        register_needed_ = false;
    } else if (current_.kind == Kind::kConfig) {
        config_needed_ = false;
    }
    next_job();
}

void Camera::fail(const std::string &reason) {
    ctx_.stats.record_error(current_.kind, reason);
    ctx_.progress.requests.fetch_add(1, std::memory_order_relaxed);
    ctx_.progress.errors.fetch_add(1, std::memory_order_relaxed);
    const bool setup = current_.kind == Kind::kRegister || current_.kind == Kind::kConfig ||
                       current_.kind == Kind::kStart;
    if (setup && current_.generation != 0) {
        // The recording did not start: its slices and stop are not sent, and the next tick
        // starts again from the configuration.
        failed_generations_.insert(current_.generation);
        if (current_.generation == generation_) {
            recording_ = false;
        }
        config_needed_ = true;
    }
    next_job();
}

void Camera::next_job() {
    busy_ = false;
    if (aborted_) {
        complete();
        return;
    }
    pump();
}

void Camera::close_connection() {
    beast::error_code ignored;
    stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    stream_.close();
    buffer_.clear();
    if (connected_) {
        connected_ = false;
        ctx_.progress.connections.fetch_sub(1, std::memory_order_relaxed);
    }
}

} // namespace loadgen

// One virtual camera: a keep-alive HTTP connection of its own and a queue of requests that
// its clock fills (a slice every T seconds, a recording's start and stop around them, an
// alarm now and then) and that it sends one at a time, as the host kit's single worker does.
// Every handler runs on the camera's network thread; nothing here locks.
#ifndef VEXO_LOADGEN_CAMERA_H
#define VEXO_LOADGEN_CAMERA_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/span_body.hpp>
#include <boost/beast/http/string_body.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "options.h"
#include "server_url.h"
#include "stats.h"

namespace loadgen {

using Clock = std::chrono::steady_clock;

/// Counters every camera bumps and the progress line reads from another thread.
struct Progress {
    std::atomic<int64_t> connections{0};
    std::atomic<uint64_t> requests{0};
    std::atomic<uint64_t> errors{0};
    std::atomic<uint64_t> upload_bytes{0};
};

/// What the cameras of one network thread share.
struct CameraContext {
    boost::asio::io_context &io;
    const Options &options;
    const ServerUrl &server;
    const boost::asio::ip::tcp::resolver::results_type &endpoints;
    const std::string &slice; // the bytes every slice upload carries
    Stats &stats;             // the thread's own
    Progress &progress;       // shared by all threads
    Clock::time_point start;  // the run's start
    Clock::time_point deadline;
    std::function<void()> on_done; // a camera of the thread has ended
};

class Camera {
  public:
    Camera(CameraContext &context, uint32_t index);
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;

    /// Arms the camera's clock: its first requests go at start + its share of the ramp.
    void start();
    /// The run's hard end: queued requests are dropped (counted as not sent), the one under
    /// way is cut off (an error), the connection closed.
    void abort();

  private:
    struct Job {
        Kind kind = Kind::kUpload;
        Clock::time_point due;
        uint32_t generation = 0; // the recording it belongs to; 0: none
        boost::beast::http::verb method = boost::beast::http::verb::get;
        std::string target;
        std::string body;
        bool media = false; // the body is the slice
        bool device = true; // a device request (device header and token)
    };

    void tick();
    void arm_tick();
    void arm_alarm();
    void arm_reconnect();
    void finish();
    void complete();
    void add(Kind kind, uint32_t generation, boost::beast::http::verb method,
             const std::string &target, std::string body = {});
    void queue_recording_start();
    void queue_slice(uint32_t recording_start, uint32_t elapsed);
    void pump();
    void prepare_request();
    void send_current();
    void on_connect(const boost::beast::error_code &ec);
    void write_request();
    void on_write(const boost::beast::error_code &ec);
    void on_read(const boost::beast::error_code &ec);
    void on_io_error(const boost::beast::error_code &ec);
    void on_response();
    /// Empty when the answer is what the request wants, else why not.
    std::string
    check_answer(const boost::beast::http::response<boost::beast::http::string_body> &answer);
    void succeed();
    void fail(const std::string &reason);
    void next_job();
    void close_connection();
    double random_interval(double mean);
    std::string device_path(const std::string &rest) const;

    CameraContext &ctx_;
    uint32_t index_;
    std::string device_;
    std::string bearer_; // "Bearer <token>", or empty
    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer buffer_;
    boost::asio::steady_timer tick_timer_;
    boost::asio::steady_timer alarm_timer_;
    boost::asio::steady_timer reconnect_timer_;
    std::mt19937_64 random_;

    std::deque<Job> queue_;
    Job current_;
    boost::beast::http::request<boost::beast::http::span_body<const char>> request_;
    std::optional<boost::beast::http::response_parser<boost::beast::http::string_body>> parser_;
    Clock::time_point sent_at_;
    Clock::time_point connect_at_;
    bool busy_ = false;
    bool connected_ = false;
    bool reused_ = false; // the connection already carried a request
    bool retried_ = false;
    bool reconnect_due_ = false;
    bool finishing_ = false;
    bool aborted_ = false;
    bool done_ = false;

    // The camera's recordings (protocol mode) or slice names (plain PUTs).
    Clock::time_point next_tick_;
    uint32_t generation_ = 0;
    bool recording_ = false; // a start was queued and has not failed
    bool register_needed_;
    bool config_needed_ = true;
    uint32_t recording_start_ = 0;
    uint32_t slices_ = 0;
    std::set<uint32_t> failed_generations_;
    std::string key_md5_ = "0000";
};

} // namespace loadgen

#endif

// A cloud that answers what a test scripts, inside the test process: for the failures the
// project's own service does not make (a failing service, answers that are not JSON). It
// records when each request came.
#ifndef VEXO_INTEGRATION_SCRIPTED_CLOUD_H
#define VEXO_INTEGRATION_SCRIPTED_CLOUD_H

#include <httplib.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace integration {

class ScriptedCloud {
  public:
    struct Answer {
        int status;
        std::string body;
    };
    /// Answers the n-th request (from 0) for a path.
    using Script = std::function<Answer(const std::string &path, size_t n)>;

    explicit ScriptedCloud(Script script) : script_(std::move(script)) {
        const auto handler = [this](const httplib::Request &req, httplib::Response &res) {
            size_t n = 0;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                for (const Seen &s : seen_) {
                    n += s.path == req.path;
                }
                seen_.push_back({req.path, std::chrono::steady_clock::now()});
            }
            const Answer answer = script_(req.path, n);
            res.status = answer.status;
            res.set_content(answer.body, "application/json");
        };
        server_.Get(".*", handler);
        server_.Post(".*", handler);
        server_.Put(".*", handler);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~ScriptedCloud() {
        server_.stop();
        thread_.join();
    }
    ScriptedCloud(const ScriptedCloud &) = delete;
    ScriptedCloud &operator=(const ScriptedCloud &) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    /// Seconds between the first request and each request for path, in order.
    std::vector<double> times(const std::string &path) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<double> out;
        for (const Seen &s : seen_) {
            if (s.path == path) {
                out.push_back(std::chrono::duration<double>(s.at - seen_.front().at).count());
            }
        }
        return out;
    }

  private:
    struct Seen {
        std::string path;
        std::chrono::steady_clock::time_point at;
    };
    Script script_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<Seen> seen_;
};

} // namespace integration

#endif

/// The HTTP server's counters and their monitoring page in the Prometheus text format:
/// requests by endpoint and status, bytes received, an upload latency histogram, open
/// connections, the server's own refusals by reason and status, and the service's device
/// and open-recording counts. Thread-safe.
#ifndef VEXO_CLOUD_HTTP_METRICS_H
#define VEXO_CLOUD_HTTP_METRICS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "cloud_service.h"
#include "request_rules.h"

namespace vexo_cloud {

/// Upper bounds of the upload latency buckets, seconds (the last bucket is +Inf).
constexpr std::array<double, 12> kUploadBuckets = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                   0.5,   1,    2.5,   5,    10,  30};

class HttpMetrics {
  public:
    /// An answer sent (the service's or the server's own).
    void count_request(Endpoint endpoint, int32_t status);
    /// A request the server refused itself; reason as in Refusal.
    void count_refusal(const char *reason, int32_t status);
    /// Request bytes read (heads and bodies).
    void add_bytes_in(uint64_t bytes) { bytes_in_.fetch_add(bytes, std::memory_order_relaxed); }
    /// A media upload, from its head to its answer written.
    void observe_upload(double seconds);
    void connection_opened() { open_connections_.fetch_add(1, std::memory_order_relaxed); }
    void connection_closed() { open_connections_.fetch_sub(1, std::memory_order_relaxed); }
    int64_t open_connections() const { return open_connections_.load(); }

    /// The monitoring page, with the service's counts.
    std::string render(const ServiceStats &stats) const;

  private:
    mutable std::mutex mutex_;
    std::map<std::pair<Endpoint, int32_t>, uint64_t> requests_;
    std::map<std::pair<std::string, int32_t>, uint64_t> refusals_;
    std::array<uint64_t, kUploadBuckets.size() + 1> upload_buckets_{}; // not cumulative
    uint64_t upload_count_ = 0;
    double upload_seconds_ = 0;
    std::atomic<uint64_t> bytes_in_{0};
    std::atomic<int64_t> open_connections_{0};
};

} // namespace vexo_cloud

#endif

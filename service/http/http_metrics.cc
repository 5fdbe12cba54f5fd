/// Counting and the Prometheus text exposition of the HTTP server's counters.
#include "http_metrics.h"

#include <cstdio>

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

void family(std::string *out, const char *name, const char *type, const char *help) {
    *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

void HttpMetrics::count_request(Endpoint endpoint, int32_t status) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_[{endpoint, status}];
}

void HttpMetrics::count_refusal(const char *reason, int32_t status) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++refusals_[{reason, status}];
}

void HttpMetrics::observe_upload(double seconds) {
    size_t bucket = 0;
    while (bucket < kUploadBuckets.size() && seconds > kUploadBuckets[bucket]) {
        ++bucket;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++upload_buckets_[bucket];
    ++upload_count_;
    upload_seconds_ += seconds;
}

std::string HttpMetrics::render(const ServiceStats &stats) const {
    std::string out;
    std::lock_guard<std::mutex> lock(mutex_);
    family(&out, "vexo_http_requests_total", "counter",
           "Requests answered, by endpoint and status.");
    for (const auto &[key, count] : requests_) {
        out += std::string("vexo_http_requests_total{endpoint=\"") + endpoint_label(key.first) +
               "\",status=\"" + std::to_string(key.second) + "\"} " + std::to_string(count) + "\n";
    }
    family(&out, "vexo_http_received_bytes_total", "counter",
           "Request bytes received, heads and bodies.");
    out += "vexo_http_received_bytes_total " + std::to_string(bytes_in_.load()) + "\n";
    family(&out, "vexo_http_upload_seconds", "histogram",
           "Media uploads, from the request head to the answer sent.");
    uint64_t cumulative = 0;
    for (size_t i = 0; i < upload_buckets_.size(); ++i) {
        cumulative += upload_buckets_[i];
        const std::string bound = i < kUploadBuckets.size() ? number(kUploadBuckets[i]) : "+Inf";
        out += "vexo_http_upload_seconds_bucket{le=\"" + bound + "\"} " +
               std::to_string(cumulative) + "\n";
    }
    out += "vexo_http_upload_seconds_sum " + number(upload_seconds_) + "\n";
    out += "vexo_http_upload_seconds_count " + std::to_string(upload_count_) + "\n";
    family(&out, "vexo_http_open_connections", "gauge", "Client connections open now.");
    out += "vexo_http_open_connections " + std::to_string(open_connections_.load()) + "\n";
    family(&out, "vexo_http_refusals_total", "counter",
           "Requests the HTTP server refused itself (limits, timeouts, malformed heads).");
    for (const auto &[key, count] : refusals_) {
        out += "vexo_http_refusals_total{reason=\"" + key.first + "\",status=\"" +
               std::to_string(key.second) + "\"} " + std::to_string(count) + "\n";
    }
    family(&out, "vexo_cloud_devices", "gauge", "Devices the service knows.");
    out += "vexo_cloud_devices " + std::to_string(stats.devices) + "\n";
    family(&out, "vexo_cloud_open_recordings", "gauge", "Recordings started and not stopped.");
    out += "vexo_cloud_open_recordings " + std::to_string(stats.open_recordings) + "\n";
    return out;
}

} // namespace vexo_cloud

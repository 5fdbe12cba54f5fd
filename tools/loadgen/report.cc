// Turning the measurements into the table and the JSON of a run.
#include "report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace loadgen {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr uint32_t kP50 = 5000;
constexpr uint32_t kP99 = 9900;
constexpr uint32_t kWhole = 10000;
constexpr double kMicrosPerMilli = 1000;
constexpr double kBytesPerMegabyte = 1e6;

// ---- helpers -------------------------------------------------------------------------------

std::string format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *pattern, ...) {
    char line[512];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(line, sizeof line, pattern, args);
    va_end(args);
    return line;
}

double rounded(double value, double step) {
    return static_cast<double>(static_cast<int64_t>(value / step + 0.5)) * step;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

uint32_t percentile(const std::vector<uint32_t> &sorted, uint32_t per_ten_thousand) {
    if (sorted.empty()) {
        return 0;
    }
    const uint64_t n = sorted.size();
    // Whole numbers only: 0.99 * 100 in floating point is a hair above 99.
    uint64_t rank = (static_cast<uint64_t>(per_ten_thousand) * n + kWhole - 1) / kWhole;
    rank = std::clamp<uint64_t>(rank, 1, n);
    return sorted[rank - 1];
}

Summary summarize(const Options &options, const Stats &stats, double elapsed_s) {
    Summary s;
    s.mode = options.put_only ? "put-only" : "protocol";
    s.cameras = options.cameras;
    s.slice_bytes = options.slice_bytes;
    s.slice_every_s = options.slice_every_s;
    s.duration_s = options.duration_s;
    s.elapsed_s = elapsed_s;
    for (size_t i = 0; i < kKindCount; ++i) {
        const Kind kind = static_cast<Kind>(i);
        const KindStats &k = stats.kind(kind);
        if (k.latency_us.empty() && k.errors == 0) {
            continue;
        }
        std::vector<uint32_t> sorted = k.latency_us;
        std::sort(sorted.begin(), sorted.end());
        KindSummary row;
        row.kind = kind;
        row.count = sorted.size() + k.errors;
        row.errors = k.errors;
        row.p50_ms = percentile(sorted, kP50) / kMicrosPerMilli;
        row.p99_ms = percentile(sorted, kP99) / kMicrosPerMilli;
        row.max_ms = percentile(sorted, kWhole) / kMicrosPerMilli;
        s.kinds.push_back(row);
        s.errors += k.errors;
    }
    std::vector<uint32_t> waits = stats.wait_us();
    std::sort(waits.begin(), waits.end());
    s.wait_p50_ms = percentile(waits, kP50) / kMicrosPerMilli;
    s.wait_p99_ms = percentile(waits, kP99) / kMicrosPerMilli;
    s.wait_max_ms = percentile(waits, kWhole) / kMicrosPerMilli;
    s.upload_bytes = stats.upload_bytes();
    s.upload_mb_s = elapsed_s > 0 ? s.upload_bytes / kBytesPerMegabyte / elapsed_s : 0;
    s.offered_mb_s = static_cast<double>(options.cameras) * options.slice_bytes /
                     kBytesPerMegabyte / options.slice_every_s;
    s.stale_retries = stats.stale_retries();
    s.unsent = stats.unsent();
    s.error_reasons = stats.error_reasons();
    return s;
}

std::string table_text(const Summary &s) {
    std::string text =
        format("vexo-loadgen (%s): %u cameras, a %llu-byte slice every %u s, "
               "%.0f s run, %.1f s elapsed\n",
               s.mode.c_str(), s.cameras, static_cast<unsigned long long>(s.slice_bytes),
               s.slice_every_s, s.duration_s, s.elapsed_s);
    text += format("%-10s %9s %7s %10s %10s %10s\n", "request", "count", "errors", "p50 ms",
                   "p99 ms", "max ms");
    for (const KindSummary &k : s.kinds) {
        text += format("%-10s %9llu %7llu %10.1f %10.1f %10.1f\n", kind_name(k.kind),
                       static_cast<unsigned long long>(k.count),
                       static_cast<unsigned long long>(k.errors), k.p50_ms, k.p99_ms, k.max_ms);
    }
    text += format("waited behind the camera's earlier requests: p50 %.1f, p99 %.1f, max %.1f "
                   "ms\n",
                   s.wait_p50_ms, s.wait_p99_ms, s.wait_max_ms);
    text += format("uploaded %.1f MB: %.2f MB/s (the cameras offer %.2f MB/s once all run)\n",
                   s.upload_bytes / kBytesPerMegabyte, s.upload_mb_s, s.offered_mb_s);
    text += format("errors %llu, keep-alive connections found closed and retried %llu, "
                   "requests not sent %llu\n",
                   static_cast<unsigned long long>(s.errors),
                   static_cast<unsigned long long>(s.stale_retries),
                   static_cast<unsigned long long>(s.unsent));
    for (const auto &[reason, times] : s.error_reasons) {
        text += format("  %-60s %llu\n", reason.c_str(), static_cast<unsigned long long>(times));
    }
    return text;
}

std::string json_text(const Summary &s) {
    nlohmann::json kinds = nlohmann::json::object();
    for (const KindSummary &k : s.kinds) {
        kinds[kind_name(k.kind)] = {{"count", k.count},
                                    {"errors", k.errors},
                                    {"p50_ms", rounded(k.p50_ms, 0.001)},
                                    {"p99_ms", rounded(k.p99_ms, 0.001)},
                                    {"max_ms", rounded(k.max_ms, 0.001)}};
    }
    const nlohmann::json json = {{"mode", s.mode},
                                 {"cameras", s.cameras},
                                 {"slice_bytes", s.slice_bytes},
                                 {"slice_every_s", s.slice_every_s},
                                 {"duration_s", s.duration_s},
                                 {"elapsed_s", rounded(s.elapsed_s, 0.001)},
                                 {"requests", kinds},
                                 {"upload_bytes", s.upload_bytes},
                                 {"upload_mb_s", rounded(s.upload_mb_s, 0.001)},
                                 {"offered_mb_s", rounded(s.offered_mb_s, 0.001)},
                                 {"wait_ms",
                                  {{"p50", rounded(s.wait_p50_ms, 0.001)},
                                   {"p99", rounded(s.wait_p99_ms, 0.001)},
                                   {"max", rounded(s.wait_max_ms, 0.001)}}},
                                 {"errors", s.errors},
                                 {"stale_retries", s.stale_retries},
                                 {"unsent", s.unsent},
                                 {"error_reasons", s.error_reasons}};
    return json.dump(2) + "\n";
}

} // namespace loadgen

// The result of a run: per request kind count, errors and p50 / p99 / max latency, and the
// upload rate; as a table for people and as JSON for scripts.
#ifndef VEXO_LOADGEN_REPORT_H
#define VEXO_LOADGEN_REPORT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "options.h"
#include "stats.h"

namespace loadgen {

struct KindSummary {
    Kind kind = Kind::kUpload;
    uint64_t count = 0; // answered and failed
    uint64_t errors = 0;
    double p50_ms = 0; // of the answered ones
    double p99_ms = 0;
    double max_ms = 0;
};

struct Summary {
    std::string mode; // "protocol" or "put-only"
    uint32_t cameras = 0;
    uint64_t slice_bytes = 0;
    uint32_t slice_every_s = 0;
    double duration_s = 0;
    double elapsed_s = 0;           // from the first camera's start until the last one ended
    std::vector<KindSummary> kinds; // the kinds the run made requests of, in Kind order
    uint64_t upload_bytes = 0;      // acknowledged by the server
    double upload_mb_s = 0;         // upload_bytes / elapsed, in 10^6 bytes per second
    double offered_mb_s = 0;        // what the cameras produce once all run
    double wait_p50_ms = 0;         // behind the camera's earlier requests, all kinds
    double wait_p99_ms = 0;
    double wait_max_ms = 0;
    uint64_t errors = 0;
    uint64_t stale_retries = 0;
    uint64_t unsent = 0;
    std::map<std::string, uint64_t> error_reasons;
};

/// The nearest-rank percentile of sorted values: the smallest value with at least
/// per_ten_thousand / 10000 of the values at or below it. 0 for no values.
uint32_t percentile(const std::vector<uint32_t> &sorted, uint32_t per_ten_thousand);

Summary summarize(const Options &options, const Stats &stats, double elapsed_s);

std::string table_text(const Summary &summary);
std::string json_text(const Summary &summary);

} // namespace loadgen

#endif

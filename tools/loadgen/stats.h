// What the cameras measured: per request kind the latency of each answered request, the
// failures and their reasons, and the media bytes the server acknowledged. One Stats per
// network thread, merged at the end, so that recording a sample takes no lock.
#ifndef VEXO_LOADGEN_STATS_H
#define VEXO_LOADGEN_STATS_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace loadgen {

enum class Kind { kRegister, kConnect, kConfig, kStart, kUpload, kStop, kAlarm };
constexpr size_t kKindCount = 7;

/// "register", "connect", "config", "start", "upload", "stop", "alarm".
const char *kind_name(Kind kind);

struct KindStats {
    std::vector<uint32_t> latency_us; // of the requests that succeeded
    uint64_t errors = 0;
};

class Stats {
  public:
    void record_ok(Kind kind, double seconds);
    /// A failed request; reason says what went wrong ("HTTP 503", "timeout", ...).
    void record_error(Kind kind, const std::string &reason);
    /// How long a request waited behind the camera's earlier ones before it was sent.
    void record_wait(double seconds);
    void add_upload_bytes(uint64_t bytes) { upload_bytes_ += bytes; }
    /// A request that found its keep-alive connection closed by the server and was sent
    /// again on a new one.
    void add_stale_retry() { ++stale_retries_; }
    /// Requests never sent: their recording's start failed, or the run ended first.
    void add_unsent(uint64_t count) { unsent_ += count; }
    void merge(const Stats &other);

    const KindStats &kind(Kind kind) const { return kinds_[static_cast<size_t>(kind)]; }
    const std::vector<uint32_t> &wait_us() const { return wait_us_; }
    uint64_t upload_bytes() const { return upload_bytes_; }
    uint64_t stale_retries() const { return stale_retries_; }
    uint64_t unsent() const { return unsent_; }
    /// "<kind>: <reason>" and how often; reasons beyond the first few distinct ones are
    /// counted under "<kind>: other".
    const std::map<std::string, uint64_t> &error_reasons() const { return reasons_; }

  private:
    std::array<KindStats, kKindCount> kinds_;
    std::vector<uint32_t> wait_us_;
    uint64_t upload_bytes_ = 0;
    uint64_t stale_retries_ = 0;
    uint64_t unsent_ = 0;
    std::map<std::string, uint64_t> reasons_;
};

} // namespace loadgen

#endif

// Recording and merging the cameras' measurements.
#include "stats.h"

#include <cmath>
#include <limits>

namespace loadgen {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr size_t kMaxReasons = 32;
constexpr double kMicrosPerSecond = 1e6;

uint32_t micros(double seconds) {
    const double value = std::round(seconds * kMicrosPerSecond);
    const double max = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(value < 0 ? 0 : value > max ? max : value);
}

void count_reason(std::map<std::string, uint64_t> *reasons, const std::string &reason,
                  const std::string &overflow, uint64_t times) {
    const auto it = reasons->find(reason);
    if (it != reasons->end()) {
        it->second += times;
    } else if (reasons->size() < kMaxReasons) {
        (*reasons)[reason] = times;
    } else {
        (*reasons)[overflow] += times;
    }
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

const char *kind_name(Kind kind) {
    static const char *const kNames[kKindCount] = {"register", "connect", "config", "start",
                                                   "upload",   "stop",    "alarm"};
    return kNames[static_cast<size_t>(kind)];
}

void Stats::record_ok(Kind kind, double seconds) {
    kinds_[static_cast<size_t>(kind)].latency_us.push_back(micros(seconds));
}

void Stats::record_wait(double seconds) {
    wait_us_.push_back(micros(seconds));
}

void Stats::record_error(Kind kind, const std::string &reason) {
    ++kinds_[static_cast<size_t>(kind)].errors;
    const std::string name = kind_name(kind);
    count_reason(&reasons_, name + ": " + reason, name + ": other", 1);
}

void Stats::merge(const Stats &other) {
    for (size_t i = 0; i < kKindCount; ++i) {
        const KindStats &from = other.kinds_[i];
        kinds_[i].latency_us.insert(kinds_[i].latency_us.end(), from.latency_us.begin(),
                                    from.latency_us.end());
        kinds_[i].errors += from.errors;
    }
    wait_us_.insert(wait_us_.end(), other.wait_us_.begin(), other.wait_us_.end());
    upload_bytes_ += other.upload_bytes_;
    stale_retries_ += other.stale_retries_;
    unsent_ += other.unsent_;
    for (const auto &[reason, times] : other.reasons_) {
        const std::string kind = reason.substr(0, reason.find(':'));
        count_reason(&reasons_, reason, kind + ": other", times);
    }
}

} // namespace loadgen

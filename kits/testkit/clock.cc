// The virtual clock: a millisecond counter that only moves when a test sets or advances it or
// a thread sleeps. Sleeping advances it and yields, so no thread ever waits in real time.
#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr uint64_t kDefaultTimeMs = 1705305600ull * 1000; // 2024-01-15 08:00:00 UTC
constexpr size_t kSleepLogLimit = 10000;

struct SleepRecord {
    uint64_t total_ms = 0;
    std::vector<uint32_t> durations;
};

std::atomic<uint64_t> g_clock_ms{kDefaultTimeMs};
std::atomic<int32_t> g_zone_offset{0};
std::atomic<bool> g_frozen{false};
std::atomic<uint64_t> g_total_sleep_ms{0};

std::mutex g_mu;
std::map<std::string, SleepRecord> g_sleeps;

} // namespace

namespace tk::detail {

uint32_t posix_now() {
    return static_cast<uint32_t>(g_clock_ms.load() / 1000);
}

void reset_clock() {
    g_clock_ms.store(kDefaultTimeMs);
    g_zone_offset.store(0);
    g_frozen.store(false);
    g_total_sleep_ms.store(0);
    std::lock_guard<std::mutex> lock(g_mu);
    g_sleeps.clear();
}

} // namespace tk::detail

namespace tk {

void set_time(uint32_t posix_seconds) {
    g_clock_ms.store(uint64_t{posix_seconds} * 1000);
}
void set_time_ms(uint64_t ms) {
    g_clock_ms.store(ms);
}
uint64_t now_ms() {
    return g_clock_ms.load();
}
void advance(uint64_t ms) {
    g_clock_ms.fetch_add(ms);
}
void set_zone_offset(int32_t seconds) {
    g_zone_offset.store(seconds);
}
void freeze_clock(bool frozen) {
    g_frozen.store(frozen);
}
uint64_t total_sleep_ms() {
    return g_total_sleep_ms.load();
}

uint64_t sleep_ms_of(const std::string &thread_name) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_sleeps.find(thread_name);
    return it == g_sleeps.end() ? 0 : it->second.total_ms;
}

std::vector<uint32_t> sleeps_of(const std::string &thread_name) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_sleeps.find(thread_name);
    return it == g_sleeps.end() ? std::vector<uint32_t>() : it->second.durations;
}

} // namespace tk

extern "C" {

uint32_t uni_time_get_posix(void) {
    // Runs hooks like the fallible calls, so a test can act at the moment a pass reads the
    // clock; there is no result to script.
    (void)tk::detail::enter("uni_time_get_posix");
    return tk::detail::posix_now();
}

int32_t uni_local_time_get_custom(uint32_t posix, struct tm *local) {
    if (auto scripted = tk::detail::enter("uni_local_time_get_custom")) {
        return *scripted;
    }
    if (local == nullptr) {
        return -1;
    }
    int64_t shifted = int64_t{posix} + g_zone_offset.load();
    time_t t = static_cast<time_t>(shifted);
    if (static_cast<int64_t>(t) != shifted || gmtime_r(&t, local) == nullptr) {
        return -1;
    }
    return 0;
}

void vexo_hal_system_sleep(uint32_t ms) {
    tk::detail::enter("vexo_hal_system_sleep");
    if (!g_frozen.load()) {
        g_clock_ms.fetch_add(ms);
    }
    g_total_sleep_ms.fetch_add(ms);
    {
        std::lock_guard<std::mutex> lock(g_mu);
        SleepRecord &rec = g_sleeps[tk::detail::current_thread_name()];
        rec.total_ms += ms;
        if (rec.durations.size() < kSleepLogLimit) {
            rec.durations.push_back(ms);
        }
    }
    std::this_thread::yield();
}

} // extern "C"

// The kit clock: starts at a chosen time and runs `speed` times faster than real time. The
// time calls, the kit's sleep and the camera simulator's frame time stamps all read it, so a
// recording across local midnight or a long stretch of all-time recording takes seconds.
#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "host_internal.h"
#include "vexo_thread.h"
#include "vexo_time.h"

namespace hostkit {
namespace {

using Steady = std::chrono::steady_clock;

// Set by clock_start(); atomics because a thread detached by an earlier run may still read
// the clock while a new start() sets it.
std::atomic<int64_t> g_real_origin_us{0};
std::atomic<uint64_t> g_kit_origin_ms{0};
std::atomic<double> g_speed{1.0};

int64_t steady_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Steady::now().time_since_epoch())
        .count();
}

uint64_t real_now_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

} // namespace

namespace internal {

void clock_start(const Options &options) {
    g_speed = options.speed;
    g_kit_origin_ms =
        options.clock_start != 0 ? uint64_t{options.clock_start} * 1000 : real_now_ms();
    g_real_origin_us = steady_us();
}

uint64_t real_ms_for_kit_ms(uint64_t kit_ms) {
    return static_cast<uint64_t>(static_cast<double>(kit_ms) / g_speed);
}

} // namespace internal

uint64_t now_ms() {
    const int64_t real_us = steady_us() - g_real_origin_us.load();
    return g_kit_origin_ms.load() +
           static_cast<uint64_t>(static_cast<double>(real_us) * g_speed.load() / 1000.0);
}

void sleep_until_ms(uint64_t kit_ms) {
    for (;;) {
        const uint64_t now = now_ms();
        if (now >= kit_ms) {
            return;
        }
        const double real_us = static_cast<double>(kit_ms - now) * 1000.0 / g_speed;
        std::this_thread::sleep_for(std::chrono::microseconds(static_cast<int64_t>(real_us) + 1));
    }
}

} // namespace hostkit

extern "C" {

uint32_t uni_time_get_posix(void) {
    return static_cast<uint32_t>(hostkit::now_ms() / 1000);
}

int32_t uni_local_time_get_custom(uint32_t posix, struct tm *local) {
    if (local == nullptr) {
        return -1;
    }
    const time_t t = static_cast<time_t>(posix);
    return localtime_r(&t, local) != nullptr ? 0 : -1;
}

void vexo_hal_system_sleep(uint32_t ms) {
    hostkit::sleep_until_ms(hostkit::now_ms() + ms);
}

} // extern "C"

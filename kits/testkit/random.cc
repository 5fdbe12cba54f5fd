// Random numbers on script: queued values first, then the top of the asked range, so that
// every run of a test sees the same numbers.
#include <deque>
#include <mutex>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

std::mutex g_mu;
std::deque<uint32_t> g_queue;
std::vector<uint32_t> g_ranges;

} // namespace

namespace tk::detail {

void reset_random() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_queue.clear();
    g_ranges.clear();
}

} // namespace tk::detail

namespace tk {

void queue_random(uint32_t value) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_queue.push_back(value);
}

std::vector<uint32_t> random_calls() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_ranges;
}

} // namespace tk

extern "C" uint32_t vexo_hal_get_random_data(uint32_t range) {
    tk::detail::enter("vexo_hal_get_random_data");
    std::lock_guard<std::mutex> lock(g_mu);
    g_ranges.push_back(range);
    if (g_queue.empty()) {
        return range;
    }
    uint32_t value = g_queue.front();
    g_queue.pop_front();
    return value < range ? value : range;
}

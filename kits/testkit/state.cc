// The kit's shared bookkeeping: call counts, scripted results, hooks, misuse records, and the
// reset that puts every service group back to its defaults.
#include <deque>
#include <map>
#include <mutex>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

struct CallEntry {
    uint64_t count = 0;
    std::deque<int32_t> scripted;
    std::function<void()> hook;
};

std::mutex g_mu;
std::map<std::string, CallEntry, std::less<>> g_calls;
std::vector<tk::Misuse> g_misuses;

/// The entry's record, looked up without building a string when it exists (hot paths).
CallEntry &entry_locked(const char *entry) {
    auto it = g_calls.find(entry);
    if (it != g_calls.end()) {
        return it->second;
    }
    return g_calls[entry];
}

} // namespace

namespace tk::detail {

std::optional<int32_t> enter(const char *entry) {
    std::function<void()> hook;
    std::optional<int32_t> result;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        CallEntry &e = entry_locked(entry);
        ++e.count;
        hook = e.hook;
        if (!e.scripted.empty()) {
            int32_t code = e.scripted.front();
            e.scripted.pop_front();
            if (code != 0) {
                result = code;
            }
        }
    }
    // Counted even when a scripted result decides the call, so that call indexes do not
    // depend on what else the test scripted.
    if (std::optional<tk::Fallible> kind = fallible_kind(entry)) {
        if (fault(*kind) && !result) {
            result = -1;
        }
    }
    if (hook) {
        hook();
    }
    return result;
}

void count(const char *entry) {
    std::lock_guard<std::mutex> lock(g_mu);
    ++entry_locked(entry).count;
}

void record_misuse(const char *category, const std::string &message) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_misuses.push_back(tk::Misuse{category, message});
}

void reset_state() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_calls.clear();
    g_misuses.clear();
}

} // namespace tk::detail

namespace tk {

void reset() {
    // Threads first: the mutexes and readers they might still use are kept alive if any of
    // them has not finished.
    size_t abandoned = detail::reset_threads();
    bool threads_gone = abandoned == 0;
    detail::reset_mutexes(threads_gone);
    detail::reset_ring_buffer();
    detail::reset_kv();
    detail::reset_memory();
    detail::reset_clock();
    detail::reset_random();
    detail::reset_logs();
    detail::reset_crypto();
    detail::reset_cloud();
    detail::reset_device();
    detail::reset_state();
    detail::reset_faults();
    if (!threads_gone) {
        detail::record_misuse("thread", std::to_string(abandoned) +
                                            " kit thread(s) still running at reset; their "
                                            "mutexes and readers are kept alive");
    }
}

uint64_t calls(const std::string &entry) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_calls.find(entry);
    return it == g_calls.end() ? 0 : it->second.count;
}

void queue_result(const std::string &entry, int32_t code, uint32_t times) {
    std::lock_guard<std::mutex> lock(g_mu);
    CallEntry &e = g_calls[entry];
    for (uint32_t i = 0; i < times; ++i) {
        e.scripted.push_back(code);
    }
}

void set_hook(const std::string &entry, std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_calls[entry].hook = std::move(hook);
}

std::vector<Misuse> misuses() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_misuses;
}

size_t misuse_count(const std::string &category) {
    std::lock_guard<std::mutex> lock(g_mu);
    size_t n = 0;
    for (const Misuse &m : g_misuses) {
        if (category.empty() || m.category == category) {
            ++n;
        }
    }
    return n;
}

} // namespace tk

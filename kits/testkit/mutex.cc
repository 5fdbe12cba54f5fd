// Checking mutexes: non-recursive, owned by the kit until reset, and strict about their use.
// A second lock by the holder or an unlock by anyone but the holder is recorded as misuse and
// refused with -1 instead of deadlocking or corrupting the lock.
#include <atomic>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <unordered_set>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

struct KitMutex {
    std::mutex m;
    std::atomic<bool> locked{false};
    std::atomic<std::thread::id> owner{};
};

std::mutex g_mu;
std::vector<std::unique_ptr<KitMutex>> g_mutexes;
std::unordered_set<const void *> g_known;
// Mutexes kept alive past a reset because a kit thread might still use them.
std::vector<std::unique_ptr<KitMutex>> g_kept;

KitMutex *lookup(vexo_mutex_t mutex, const char *what) {
    {
        std::lock_guard<std::mutex> lock(g_mu);
        if (g_known.count(mutex) != 0) {
            return static_cast<KitMutex *>(mutex);
        }
    }
    std::ostringstream msg;
    msg << what << " of an unknown mutex " << mutex;
    tk::detail::record_misuse("mutex", msg.str());
    return nullptr;
}

std::string thread_text() {
    std::ostringstream s;
    s << std::this_thread::get_id();
    if (!tk::detail::current_thread_name().empty()) {
        s << " (" << tk::detail::current_thread_name() << ")";
    }
    return s.str();
}

} // namespace

namespace tk::detail {

void reset_mutexes(bool threads_gone) {
    std::lock_guard<std::mutex> lock(g_mu);
    for (auto &m : g_mutexes) {
        // A mutex still held cannot be destroyed, nor one a running kit thread may still use.
        if (!threads_gone || m->locked.load()) {
            g_kept.push_back(std::move(m));
        }
    }
    g_mutexes.clear();
    g_known.clear();
}

} // namespace tk::detail

namespace tk {

size_t mutex_count() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_mutexes.size();
}

size_t locked_mutex_count() {
    std::lock_guard<std::mutex> lock(g_mu);
    size_t n = 0;
    for (auto &m : g_mutexes) {
        if (m->locked.load()) {
            ++n;
        }
    }
    return n;
}

} // namespace tk

extern "C" {

int32_t vexo_hal_mutex_create_init(vexo_mutex_t *mutex) {
    if (auto scripted = tk::detail::enter("vexo_hal_mutex_create_init")) {
        return *scripted;
    }
    if (mutex == nullptr) {
        return -1;
    }
    auto m = std::make_unique<KitMutex>();
    std::lock_guard<std::mutex> lock(g_mu);
    *mutex = m.get();
    g_known.insert(m.get());
    g_mutexes.push_back(std::move(m));
    return 0;
}

int32_t vexo_hal_mutex_lock(vexo_mutex_t mutex) {
    tk::detail::count("vexo_hal_mutex_lock");
    if (mutex == nullptr) {
        return -1;
    }
    KitMutex *m = lookup(mutex, "lock");
    if (m == nullptr) {
        return -1;
    }
    if (m->locked.load() && m->owner.load() == std::this_thread::get_id()) {
        tk::detail::record_misuse("mutex", "second lock by its holder " + thread_text());
        return -1;
    }
    m->m.lock();
    m->owner.store(std::this_thread::get_id());
    m->locked.store(true);
    return 0;
}

int32_t vexo_hal_mutex_unlock(vexo_mutex_t mutex) {
    tk::detail::count("vexo_hal_mutex_unlock");
    if (mutex == nullptr) {
        return -1;
    }
    KitMutex *m = lookup(mutex, "unlock");
    if (m == nullptr) {
        return -1;
    }
    if (!m->locked.load()) {
        tk::detail::record_misuse("mutex", "unlock of a mutex not held, by " + thread_text());
        return -1;
    }
    if (m->owner.load() != std::this_thread::get_id()) {
        tk::detail::record_misuse("mutex", "unlock by " + thread_text() + ", not the holder");
        return -1;
    }
    m->locked.store(false);
    m->owner.store(std::thread::id());
    m->m.unlock();
    return 0;
}

} // extern "C"

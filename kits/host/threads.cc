// Threads on pthreads, mutexes, the allocators and the random numbers.
//
// Thread handles: a handle points to a record shared by the thread and its owner. The
// thread marks the record done when its function (and exit hook) returned. DeleteThrdHandle
// waits for that, at most Options::thread_join_timeout_ms of real time, and joins; a thread
// still running after that is detached with an error line, and the record stays alive until
// the thread itself ends. So the caller never hangs for good (a worker can sit in a long
// back-off sleep that does not look at any stop flag), and nothing the thread uses is freed
// under it: the module's own state is static and the record is reference counted.
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>

#include "host_internal.h"
#include "vexo_thread.h"

namespace hostkit {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers' instrumentation makes frames several times larger.
constexpr uint32_t kStackFactor = 4;
#else
constexpr uint32_t kStackFactor = 1;
#endif

struct ThreadRecord {
    pthread_t thread{};
    std::string name;
    vexo_thread_hook_t enter = nullptr;
    vexo_thread_hook_t exit = nullptr;
    vexo_thread_func_t func = nullptr;
    void *arg = nullptr;
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    /// The thread's own reference; released by the thread when it ends.
    std::shared_ptr<ThreadRecord> self;
};

/// What a handle points to: the owner's reference to the record.
struct Handle {
    std::shared_ptr<ThreadRecord> record;
};

void *thread_main(void *p) {
    ThreadRecord *rec = static_cast<ThreadRecord *>(p);
    if (!rec->name.empty()) {
        pthread_setname_np(pthread_self(), rec->name.substr(0, 15).c_str());
    }
    if (rec->enter != nullptr) {
        rec->enter();
    }
    rec->func(rec->arg);
    if (rec->exit != nullptr) {
        rec->exit();
    }
    std::shared_ptr<ThreadRecord> keep;
    {
        std::lock_guard<std::mutex> lock(rec->mu);
        rec->done = true;
        keep.swap(rec->self);
        rec->cv.notify_all();
    }
    return nullptr; // keep releases the thread's reference here
}

} // namespace
} // namespace hostkit

extern "C" {

int32_t CreateAndStart(vexo_thread_t *handle, vexo_thread_hook_t enter, vexo_thread_hook_t exit,
                       vexo_thread_func_t func, void *arg, const vexo_thread_param_t *param) {
    using namespace hostkit;
    if (handle == nullptr || func == nullptr) {
        internal::log_error("CreateAndStart: null %s", handle == nullptr ? "handle" : "func");
        return -1;
    }
    auto rec = std::make_shared<ThreadRecord>();
    rec->enter = enter;
    rec->exit = exit;
    rec->func = func;
    rec->arg = arg;
    if (param != nullptr && param->name != nullptr) {
        rec->name = param->name;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (param != nullptr && param->stack_size != 0) {
        const size_t wanted = std::max<size_t>(size_t{param->stack_size} * kStackFactor,
                                               static_cast<size_t>(PTHREAD_STACK_MIN));
        if (pthread_attr_setstacksize(&attr, wanted) != 0) {
            internal::log_error("CreateAndStart: stack size %u refused", param->stack_size);
        }
    }
    auto *h = new Handle{rec};
    // The handle is stored before the thread can run, as the contract asks.
    *handle = h;
    rec->self = rec;
    const int err = pthread_create(&rec->thread, &attr, thread_main, rec.get());
    pthread_attr_destroy(&attr);
    if (err != 0) {
        rec->self.reset();
        *handle = nullptr;
        delete h;
        internal::log_error("CreateAndStart: pthread_create: %s", std::strerror(err));
        return -1;
    }
    return 0;
}

int32_t DeleteThrdHandle(vexo_thread_t handle) {
    using namespace hostkit;
    if (handle == nullptr) {
        return 0;
    }
    std::unique_ptr<Handle> h(static_cast<Handle *>(handle));
    ThreadRecord &rec = *h->record;
    if (pthread_equal(rec.thread, pthread_self())) {
        // A thread releasing its own handle cannot wait for itself.
        pthread_detach(rec.thread);
        return 0;
    }
    const auto limit = std::chrono::milliseconds(internal::options().thread_join_timeout_ms);
    bool done = false;
    {
        std::unique_lock<std::mutex> lock(rec.mu);
        done = rec.cv.wait_for(lock, limit, [&] { return rec.done; });
    }
    if (done) {
        pthread_join(rec.thread, nullptr);
        return 0;
    }
    internal::log_error("thread '%s' still running after %u ms; detached, it ends on its own",
                        rec.name.c_str(), internal::options().thread_join_timeout_ms);
    pthread_detach(rec.thread);
    return 0;
}

int32_t vexo_hal_mutex_create_init(vexo_mutex_t *mutex) {
    if (mutex == nullptr) {
        return -1;
    }
    auto *m = new pthread_mutex_t;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    // Error checking: a relock or a foreign unlock is reported instead of hanging silently.
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
    *mutex = m;
    return 0;
}

int32_t vexo_hal_mutex_lock(vexo_mutex_t mutex) {
    if (mutex == nullptr) {
        return -1;
    }
    const int err = pthread_mutex_lock(static_cast<pthread_mutex_t *>(mutex));
    if (err != 0) {
        hostkit::internal::log_error("mutex lock: %s", std::strerror(err));
        return -1;
    }
    return 0;
}

int32_t vexo_hal_mutex_unlock(vexo_mutex_t mutex) {
    if (mutex == nullptr) {
        return -1;
    }
    const int err = pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
    if (err != 0) {
        hostkit::internal::log_error("mutex unlock: %s", std::strerror(err));
        return -1;
    }
    return 0;
}

void *Malloc(size_t size) {
    return std::malloc(size);
}

void Free(void *ptr) {
    std::free(ptr);
}

void *vexo_hal_system_malloc(size_t size) {
    return std::malloc(size);
}

void vexo_hal_system_free(void *ptr) {
    std::free(ptr);
}

uint32_t vexo_hal_get_random_data(uint32_t range) {
    static std::mutex mu;
    static std::mt19937 gen{std::random_device{}()};
    std::lock_guard<std::mutex> lock(mu);
    if (range == UINT32_MAX) {
        return static_cast<uint32_t>(gen());
    }
    return std::uniform_int_distribution<uint32_t>(0, range)(gen);
}

} // extern "C"

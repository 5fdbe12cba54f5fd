// Threads started for the module: real std::threads, each running the enter hook, the thread
// function and the exit hook. Handles stay valid until reset, so a released handle is never
// reused; DeleteThrdHandle only marks them, the kit joins finished threads itself.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

struct KitThread {
    std::string name;
    uint32_t stack_size = 0;
    int32_t priority = 0;
    bool handle_deleted = false;
    bool finished = false; // guarded by g_mu
    std::thread thread;
};

std::mutex g_mu;
std::condition_variable g_finished_cv;
std::vector<std::unique_ptr<KitThread>> g_threads;
// Threads still running at a reset: their records must outlive them.
std::vector<std::unique_ptr<KitThread>> g_abandoned;

thread_local std::string t_thread_name;

void run_thread(KitThread *rec, vexo_thread_hook_t enter_hook, vexo_thread_hook_t exit_hook,
                vexo_thread_func_t func, void *arg) {
    t_thread_name = rec->name;
    if (enter_hook != nullptr) {
        enter_hook();
    }
    func(arg);
    if (exit_hook != nullptr) {
        exit_hook();
    }
    std::lock_guard<std::mutex> lock(g_mu);
    rec->finished = true;
    g_finished_cv.notify_all();
}

KitThread *find_locked(void *handle) {
    for (auto &t : g_threads) {
        if (t.get() == handle) {
            return t.get();
        }
    }
    return nullptr;
}

size_t running_locked() {
    size_t n = 0;
    for (auto &t : g_threads) {
        if (!t->finished) {
            ++n;
        }
    }
    return n;
}

} // namespace

namespace tk::detail {

const std::string &current_thread_name() {
    return t_thread_name;
}

size_t reset_threads() {
    wait_threads_exited(10000);
    std::vector<std::unique_ptr<KitThread>> done;
    size_t abandoned = 0;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        for (auto &t : g_threads) {
            if (t->finished) {
                done.push_back(std::move(t));
            } else {
                t->thread.detach();
                g_abandoned.push_back(std::move(t));
                ++abandoned;
            }
        }
        g_threads.clear();
    }
    for (auto &t : done) {
        if (t->thread.joinable()) {
            t->thread.join();
        }
    }
    return abandoned;
}

} // namespace tk::detail

namespace tk {

std::vector<ThreadInfo> threads() {
    std::lock_guard<std::mutex> lock(g_mu);
    std::vector<ThreadInfo> out;
    out.reserve(g_threads.size());
    for (auto &t : g_threads) {
        out.push_back(
            ThreadInfo{t->name, t->stack_size, t->priority, t->handle_deleted, t->finished});
    }
    return out;
}

size_t running_thread_count() {
    std::lock_guard<std::mutex> lock(g_mu);
    return running_locked();
}

bool wait_threads_exited(uint32_t real_ms) {
    std::vector<std::thread *> to_join;
    {
        std::unique_lock<std::mutex> lock(g_mu);
        bool all = g_finished_cv.wait_for(lock, std::chrono::milliseconds(real_ms),
                                          [] { return running_locked() == 0; });
        if (!all) {
            return false;
        }
        for (auto &t : g_threads) {
            if (t->thread.joinable()) {
                to_join.push_back(&t->thread);
            }
        }
    }
    // Records are only destroyed by reset, which tests call from this same thread.
    for (std::thread *t : to_join) {
        if (t->joinable()) {
            t->join();
        }
    }
    return true;
}

} // namespace tk

extern "C" {

int32_t CreateAndStart(vexo_thread_t *handle, vexo_thread_hook_t enter, vexo_thread_hook_t exit,
                       vexo_thread_func_t func, void *arg, const vexo_thread_param_t *param) {
    if (auto scripted = tk::detail::enter("CreateAndStart")) {
        return *scripted;
    }
    if (handle == nullptr || func == nullptr) {
        return -1;
    }
    auto rec = std::make_unique<KitThread>();
    if (param != nullptr) {
        rec->name = param->name != nullptr ? param->name : "";
        rec->stack_size = param->stack_size;
        rec->priority = param->priority;
    }
    KitThread *raw = rec.get();
    std::lock_guard<std::mutex> lock(g_mu);
    // The handle is stored before the thread exists; starting the thread publishes it.
    *handle = raw;
    g_threads.push_back(std::move(rec));
    raw->thread = std::thread(run_thread, raw, enter, exit, func, arg);
    return 0;
}

int32_t DeleteThrdHandle(vexo_thread_t handle) {
    if (auto scripted = tk::detail::enter("DeleteThrdHandle")) {
        return *scripted;
    }
    if (handle == nullptr) {
        return 0;
    }
    std::string problem;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        KitThread *rec = find_locked(handle);
        if (rec == nullptr) {
            problem = "DeleteThrdHandle of an unknown handle";
        } else if (rec->handle_deleted) {
            problem = "DeleteThrdHandle twice for thread " + rec->name;
        } else {
            rec->handle_deleted = true;
            return 0;
        }
    }
    tk::detail::record_misuse("thread", problem);
    return -1;
}

} // extern "C"

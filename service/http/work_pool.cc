/// The job threads of the HTTP server.
#include "work_pool.h"

namespace vexo_cloud {

WorkPool::WorkPool(uint32_t threads) {
    for (uint32_t i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { work(); });
    }
}

WorkPool::~WorkPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread &thread : threads_) {
        thread.join();
    }
}

void WorkPool::post(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void WorkPool::work() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

} // namespace vexo_cloud

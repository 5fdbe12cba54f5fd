/// The thread of a repeating task: it waits on a condition variable, so that a stop ends the
/// wait at once instead of at the next run.
#include "repeating_task.h"

namespace vexo_cloud {

RepeatingTask::RepeatingTask(uint32_t interval_seconds, std::function<void()> job)
    : interval_(interval_seconds), job_(std::move(job)), thread_([this] { run(); }) {}

RepeatingTask::~RepeatingTask() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void RepeatingTask::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, interval_, [this] { return stopping_; })) {
        lock.unlock();
        job_();
        lock.lock();
    }
}

} // namespace vexo_cloud

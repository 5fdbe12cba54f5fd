/// A job run on a thread of its own every so many seconds until the task is destroyed;
/// destruction wakes the thread at once, whatever it was waiting for.
#ifndef VEXO_CLOUD_REPEATING_TASK_H
#define VEXO_CLOUD_REPEATING_TASK_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace vexo_cloud {

class RepeatingTask {
  public:
    /// Runs job every interval_seconds (> 0), the first time one interval from now.
    RepeatingTask(uint32_t interval_seconds, std::function<void()> job);
    /// Waits for a run under way to end; no run starts after.
    ~RepeatingTask();
    RepeatingTask(const RepeatingTask &) = delete;
    RepeatingTask &operator=(const RepeatingTask &) = delete;

  private:
    void run();

    const std::chrono::seconds interval_;
    const std::function<void()> job_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_; // last: started once everything it uses is there
};

} // namespace vexo_cloud

#endif

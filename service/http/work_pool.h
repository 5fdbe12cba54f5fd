/// A fixed number of threads running jobs in the order they were posted.
#ifndef VEXO_CLOUD_WORK_POOL_H
#define VEXO_CLOUD_WORK_POOL_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vexo_cloud {

class WorkPool {
  public:
    explicit WorkPool(uint32_t threads);
    /// Runs the jobs still queued, then joins the threads.
    ~WorkPool();
    WorkPool(const WorkPool &) = delete;
    WorkPool &operator=(const WorkPool &) = delete;

    /// From any thread. A job must not throw.
    void post(std::function<void()> job);

  private:
    void work();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace vexo_cloud

#endif

/// The spool sender: the kit's thread that replays the outage spool to the cloud, oldest item
/// first, each marked "x-vexo-replay: 1". An item leaves the spool only on a 2xx answer, or
/// when the cloud refuses it (any other answer but those below: logged, dropped, never retried).
/// No answer, a 5xx, 408 or 429 mean the cloud is still unreachable: the item stays first in
/// line and the sender waits, from SenderSettings::retry_min_ms doubling to retry_max_ms (real
/// time), each wait jittered down by up to half. stop() ends a wait at once and cancels a
/// request in flight.
#ifndef VEXO_HOST_SPOOL_SENDER_H
#define VEXO_HOST_SPOOL_SENDER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "spool.h"

namespace hostkit::spool {

/// True for the answers that say the cloud cannot take a request now (no answer, 5xx, 408
/// Request Timeout, 429 Too Many Requests), so that it should wait and be sent again.
bool cloud_unreachable(int32_t status);

struct SenderHooks {
    /// The transport now; null once the kit stops.
    std::function<std::shared_ptr<CloudTransport>()> transport;
    /// Adds what every request carries now (the kit's current token).
    std::function<void(CloudRequest *)> prepare;
    /// Told of every answer that removed an item: delivered (2xx) or refused.
    std::function<void(const Item &, const CloudResponse &, bool delivered)> answered;
};

struct SenderSettings {
    uint32_t retry_min_ms = 500;
    uint32_t retry_max_ms = 60000;
};

class Sender {
  public:
    enum class Pass {
        kEmpty,       ///< nothing queued
        kDelivered,   ///< the oldest item reached the cloud and left the spool
        kRefused,     ///< the cloud refused it: dropped
        kUnreachable, ///< no answer that counts: the item stays first
    };

    Sender(std::shared_ptr<Spool> spool, SenderHooks hooks, SenderSettings settings);
    ~Sender();
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    void start();
    /// Ends the thread: a back-off wait ends at once, a request in flight is cancelled.
    void stop();
    /// Something was queued: an idle sender starts trying (after the first back-off step, as
    /// the cloud just failed the live call).
    void wake();
    /// Tries the cloud at once instead of waiting out the back-off, which starts again from
    /// its first step: for a caller that has reason to think the cloud is back, or that is
    /// about to stop and wants the queue out first.
    void retry_now();

    /// One attempt: applies the bounds, then sends the oldest item. The thread's loop body.
    Pass pass();

  private:
    void run();
    /// The wait after `failures` failed attempts in a row, jittered.
    std::chrono::milliseconds backoff(uint32_t failures);

    std::shared_ptr<Spool> spool_;
    SenderHooks hooks_;
    SenderSettings settings_;
    std::atomic<bool> stopping_{false};
    std::mutex mu_;
    std::condition_variable cv_;
    bool woken_ = false;
    bool retry_now_ = false;
    uint32_t failures_ = 0; ///< failed attempts in a row (sender thread only)
    std::mt19937 rng_;
    std::thread thread_;
};

} // namespace hostkit::spool

#endif

// The spool sender's thread: replay oldest first, back off while the cloud does not answer.
#include "spool_sender.h"

#include <algorithm>
#include <chrono>

#include "host_internal.h"

namespace hostkit::spool {
namespace {

constexpr char kReplayHeader[] = "x-vexo-replay";

} // namespace

bool cloud_unreachable(int32_t status) {
    return status == 0 || status == 408 || status == 429 || (status >= 500 && status <= 599);
}

Sender::Sender(std::shared_ptr<Spool> spool, SenderHooks hooks, SenderSettings settings)
    : spool_(std::move(spool)), hooks_(std::move(hooks)), settings_(settings),
      rng_(std::random_device{}()) {}

Sender::~Sender() {
    stop();
}

void Sender::start() {
    stopping_ = false;
    thread_ = std::thread(&Sender::run, this);
}

void Sender::stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Sender::wake() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        woken_ = true;
    }
    cv_.notify_all();
}

void Sender::retry_now() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        retry_now_ = true;
    }
    cv_.notify_all();
}

std::chrono::milliseconds Sender::backoff(uint32_t failures) {
    uint64_t delay = std::max<uint32_t>(settings_.retry_min_ms, 1);
    for (uint32_t i = 0; i < failures && delay < settings_.retry_max_ms; ++i) {
        delay *= 2;
    }
    delay = std::min<uint64_t>(delay, std::max(settings_.retry_max_ms, settings_.retry_min_ms));
    std::uniform_int_distribution<uint64_t> jitter(delay / 2, delay);
    return std::chrono::milliseconds(jitter(rng_));
}

Sender::Pass Sender::pass() {
    spool_->enforce_bounds(now_ms());
    std::optional<Item> item = spool_->take_oldest();
    if (!item) {
        return Pass::kEmpty;
    }
    const uint64_t seq = item->info.seq;
    const std::shared_ptr<CloudTransport> transport = hooks_.transport();
    if (!transport) {
        spool_->release(seq);
        return Pass::kUnreachable;
    }
    CloudRequest req = item->request;
    req.headers[kReplayHeader] = "1";
    if (hooks_.prepare) {
        hooks_.prepare(&req);
    }
    req.cancel = &stopping_;
    const CloudResponse resp = transport->exchange(req);
    if (cloud_unreachable(resp.status)) {
        spool_->release(seq);
        if (failures_ == 0) {
            internal::log_debug("spool: cloud still unreachable (%s %d); %llu items wait",
                                item->info.what.c_str(), static_cast<int>(resp.status),
                                static_cast<unsigned long long>(spool_->stats().items));
        }
        return Pass::kUnreachable;
    }
    const bool delivered = resp.status >= 200 && resp.status <= 299;
    if (!delivered) {
        internal::log_error("spool: the cloud refused the replayed %s %s (%d %.200s); dropped",
                            kind_name(item->info.kind), item->info.what.c_str(),
                            static_cast<int>(resp.status), resp.body.c_str());
    }
    // Counted before it leaves, so that whoever sees the spool shrink sees the counts too.
    if (hooks_.answered) {
        hooks_.answered(*item, resp, delivered);
    }
    spool_->remove(seq, delivered);
    if (delivered) {
        if (failures_ > 0) {
            internal::log_debug("spool: the cloud answers again");
        }
        internal::log_debug("spool: sent %s %s (%llu bytes); %llu items left",
                            kind_name(item->info.kind), item->info.what.c_str(),
                            static_cast<unsigned long long>(item->info.body_bytes),
                            static_cast<unsigned long long>(spool_->stats().items));
    }
    return delivered ? Pass::kDelivered : Pass::kRefused;
}

void Sender::run() {
    while (!stopping_) {
        const Pass result = pass();
        if (result == Pass::kDelivered || result == Pass::kRefused) {
            failures_ = 0;
            if (spool_->empty()) {
                internal::log_debug("spool: every queued item sent");
            }
            continue;
        }
        std::unique_lock<std::mutex> lock(mu_);
        if (result == Pass::kEmpty) {
            cv_.wait(lock, [this] { return stopping_ || woken_; });
            woken_ = false;
            retry_now_ = false; // nothing was queued to retry
            // What woke it was queued because the cloud just failed a live call.
            failures_ = 0;
        } else {
            ++failures_;
        }
        cv_.wait_for(lock, backoff(failures_ == 0 ? 0 : failures_ - 1),
                     [this] { return stopping_.load() || retry_now_; });
        if (retry_now_) {
            retry_now_ = false;
            failures_ = 0;
        }
    }
}

} // namespace hostkit::spool

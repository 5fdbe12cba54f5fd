/// Login sessions: ids from OpenSSL's random generator, expiries checked on use.
#include "ui_sessions.h"

#include <openssl/rand.h>

#include <chrono>

namespace vexo_cloud {

namespace {
constexpr size_t kIdBytes = 32;
} // namespace

UiSessions::UiSessions(uint64_t lifetime_s, size_t max_sessions)
    : lifetime_(lifetime_s), max_sessions_(max_sessions == 0 ? 1 : max_sessions) {}

std::string UiSessions::create(uint64_t now) {
    unsigned char bytes[kIdBytes];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        return "";
    }
    static const char kHex[] = "0123456789abcdef";
    std::string id;
    for (unsigned char b : bytes) {
        id += kHex[b >> 4];
        id += kHex[b & 0x0f];
    }
    std::lock_guard<std::mutex> lock(mutex_);
    drop_expired(now);
    while (expiry_.size() >= max_sessions_) {
        auto oldest = expiry_.begin();
        for (auto it = expiry_.begin(); it != expiry_.end(); ++it) {
            if (it->second < oldest->second) {
                oldest = it;
            }
        }
        expiry_.erase(oldest);
    }
    expiry_[id] = now + lifetime_;
    return id;
}

bool UiSessions::valid(const std::string &id, uint64_t now) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = expiry_.find(id);
    if (it == expiry_.end()) {
        return false;
    }
    if (now >= it->second) {
        expiry_.erase(it);
        return false;
    }
    return true;
}

void UiSessions::end(const std::string &id) {
    std::lock_guard<std::mutex> lock(mutex_);
    expiry_.erase(id);
}

size_t UiSessions::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return expiry_.size();
}

void UiSessions::drop_expired(uint64_t now) {
    for (auto it = expiry_.begin(); it != expiry_.end();) {
        it = now >= it->second ? expiry_.erase(it) : std::next(it);
    }
}

uint64_t steady_seconds() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

} // namespace vexo_cloud

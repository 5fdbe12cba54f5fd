/// Login sessions: ids from OpenSSL's random generator, signed with HMAC-SHA256.
#include "ui_sessions.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <chrono>

namespace vexo_cloud {

namespace {

constexpr size_t kIdBytes = 32;
constexpr size_t kHexBytes = 2 * kIdBytes;
constexpr char kKeyLabel[] = "vexo-cloud browser session key 1";

std::string hex(const unsigned char *bytes, size_t size) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 0x0f];
    }
    return text;
}

std::string hmac(const std::string &key, const std::string &text) {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char *>(text.data()), text.size(), mac,
             &size) == nullptr) {
        return "";
    }
    return std::string(reinterpret_cast<const char *>(mac), size);
}

bool all_hex(const std::string &text) {
    return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

} // namespace

UiSessions::UiSessions(const std::string &admin_token, uint64_t lifetime_s, size_t max_revoked)
    : lifetime_(lifetime_s), max_revoked_(max_revoked == 0 ? 1 : max_revoked) {
    if (!admin_token.empty()) {
        key_ = hmac(admin_token, kKeyLabel);
    } else {
        unsigned char bytes[kIdBytes];
        if (RAND_bytes(bytes, sizeof bytes) == 1) {
            key_.assign(reinterpret_cast<const char *>(bytes), sizeof bytes);
        }
    }
}

std::string UiSessions::sign(const std::string &text) const {
    const std::string mac = hmac(key_, text);
    return hex(reinterpret_cast<const unsigned char *>(mac.data()), mac.size());
}

std::string UiSessions::create(uint64_t now) {
    unsigned char bytes[kIdBytes];
    if (key_.empty() || RAND_bytes(bytes, sizeof bytes) != 1) {
        return "";
    }
    const std::string text = hex(bytes, sizeof bytes) + "." + std::to_string(now + lifetime_);
    const std::string mac = sign(text);
    return mac.empty() ? "" : text + "." + mac;
}

bool UiSessions::parse(const std::string &value, std::string *id, uint64_t *expiry) const {
    const size_t first = value.find('.');
    const size_t last = value.rfind('.');
    if (key_.empty() || first != kHexBytes || last == first || value.size() - last - 1 != 64) {
        return false;
    }
    const std::string digits = value.substr(first + 1, last - first - 1);
    if (digits.empty() || digits.size() > 19 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const std::string mac = value.substr(last + 1);
    const std::string expected = sign(value.substr(0, last));
    if (!all_hex(mac) || expected.size() != mac.size() ||
        CRYPTO_memcmp(expected.data(), mac.data(), mac.size()) != 0) {
        return false;
    }
    *id = value.substr(0, first);
    *expiry = std::stoull(digits);
    return true;
}

bool UiSessions::valid(const std::string &value, uint64_t now) {
    std::string id;
    uint64_t expiry = 0;
    // A session expiring further out than one lifetime was not made with this lifetime.
    if (!parse(value, &id, &expiry) || now >= expiry || expiry - now > lifetime_) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return revoked_.count(id) == 0;
}

void UiSessions::end(const std::string &value, uint64_t now) {
    std::string id;
    uint64_t expiry = 0;
    if (!parse(value, &id, &expiry) || now >= expiry) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = revoked_.begin(); it != revoked_.end();) {
        it = now >= it->second ? revoked_.erase(it) : std::next(it);
    }
    while (revoked_.size() >= max_revoked_) {
        auto first = revoked_.begin();
        for (auto it = revoked_.begin(); it != revoked_.end(); ++it) {
            if (it->second < first->second) {
                first = it;
            }
        }
        revoked_.erase(first);
    }
    revoked_[id] = expiry;
}

size_t UiSessions::revoked() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return revoked_.size();
}

uint64_t wall_seconds() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

} // namespace vexo_cloud

/// A strict base64 decoder: what it accepts is exactly what an encoder can produce.
#include "base64.h"

#include <cstdint>

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

constexpr int kInvalid = -1;

int sextet(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return kInvalid;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<std::string> base64_decode(const std::string &text) {
    size_t length = text.size();
    if (length % 4 == 0 && length > 0) {
        // Up to two '=' close a padded text.
        for (int pad = 0; pad < 2 && length > 0 && text[length - 1] == '='; ++pad) {
            --length;
        }
    }
    if (length % 4 == 1) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(length / 4 * 3 + 2);
    uint32_t bits = 0;
    int bit_count = 0;
    for (size_t i = 0; i < length; ++i) {
        const int value = sextet(text[i]);
        if (value == kInvalid) {
            return std::nullopt;
        }
        bits = (bits << 6) | static_cast<uint32_t>(value);
        bit_count += 6;
        if (bit_count >= 8) {
            bit_count -= 8;
            bytes.push_back(static_cast<char>((bits >> bit_count) & 0xff));
        }
    }
    return bytes;
}

} // namespace vexo_cloud

/// Key generation and md5 with OpenSSL's libcrypto.
#include "key_crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <stdexcept>

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr char kKeyAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr unsigned kAlphabetSize = sizeof kKeyAlphabet - 1;
/// Random bytes at or above this value are dropped, so that every character is equally likely.
constexpr unsigned kUnbiasedLimit = 256 - 256 % kAlphabetSize;

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::string generate_key() {
    std::string key;
    while (key.size() < kKeyLength) {
        unsigned char random[32];
        if (RAND_bytes(random, sizeof random) != 1) {
            throw std::runtime_error("the random generator failed");
        }
        for (unsigned char byte : random) {
            if (byte < kUnbiasedLimit && key.size() < kKeyLength) {
                key.push_back(kKeyAlphabet[byte % kAlphabetSize]);
            }
        }
    }
    return key;
}

std::string md5_hex(const std::string &bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr) != 1) {
        throw std::runtime_error("md5 failed");
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(kHex[digest[i] >> 4]);
        text.push_back(kHex[digest[i] & 0x0f]);
    }
    return text;
}

} // namespace vexo_cloud

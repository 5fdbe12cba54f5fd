// AES-128-CBC with PKCS#7 padding through libcrypto's EVP interface.
#include "common/aes_cbc.h"

#include <cstring>
#include <memory>
#include <openssl/evp.h>

namespace kitcommon {

namespace {

/// EVP takes int lengths: longer inputs go through in pieces of this size (whole blocks).
constexpr uint32_t kMaxPiece = 1u << 30;

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

bool cbc(bool encrypt, const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
         uint32_t in_len, uint8_t *out, uint32_t *out_len) {
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    if (!ctx || key == nullptr || iv == nullptr || out == nullptr || out_len == nullptr ||
        (in == nullptr && in_len > 0)) {
        return false;
    }
    // EVP keeps its own copy of the IV, so the caller's bytes are never written.
    if (EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key, iv, encrypt ? 1 : 0) != 1) {
        return false;
    }
    uint64_t written = 0;
    uint32_t done = 0;
    while (done < in_len) {
        uint32_t piece = in_len - done < kMaxPiece ? in_len - done : kMaxPiece;
        int n = 0;
        if (EVP_CipherUpdate(ctx.get(), out + written, &n, in + done, static_cast<int>(piece)) !=
            1) {
            return false;
        }
        written += static_cast<uint64_t>(n);
        done += piece;
    }
    int n = 0;
    if (EVP_CipherFinal_ex(ctx.get(), out + written, &n) != 1) {
        return false;
    }
    written += static_cast<uint64_t>(n);
    if (written > UINT32_MAX) {
        return false;
    }
    *out_len = static_cast<uint32_t>(written);
    return true;
}

} // namespace

void pkcs7_last_block(const uint8_t *in, uint32_t in_len, uint8_t block[16]) {
    uint32_t tail = in_len % kAesBlockSize;
    if (tail > 0) {
        std::memcpy(block, in + (in_len - tail), tail);
    }
    std::memset(block + tail, static_cast<int>(kAesBlockSize - tail), kAesBlockSize - tail);
}

bool aes128_cbc_encrypt(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                        uint32_t in_len, uint8_t *out, uint32_t *out_len) {
    if (aes_cbc_padded_len(in_len) > UINT32_MAX) {
        return false;
    }
    return cbc(true, key, iv, in, in_len, out, out_len);
}

bool aes128_cbc_decrypt(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                        uint32_t in_len, uint8_t *out, uint32_t *out_len) {
    if (in_len == 0 || in_len % kAesBlockSize != 0) {
        return false;
    }
    return cbc(false, key, iv, in, in_len, out, out_len);
}

} // namespace kitcommon

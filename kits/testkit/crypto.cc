// AES-128-CBC and MD5 on OpenSSL's libcrypto. The "hardware engine" is the same software
// cipher behind the engine calls; it exists only when a test switches it on, so both of the
// module's cipher paths can be exercised. The key of an engine lives in the context's priv.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <openssl/evp.h>

#include "common/aes_cbc.h"
#include "common/md5_state.h"
#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr uintptr_t kEngineMarker = 0x48574145; // "HWAE"

std::atomic<bool> g_hw_engine{false};
std::atomic<uint64_t> g_hw_calls{0};
std::atomic<uint64_t> g_sw_calls{0};

static_assert(sizeof(vexo_hw_aes_t::priv) >= 16, "the engine key is kept in priv");

uint32_t cipher_len(uint32_t in_len) {
    return static_cast<uint32_t>(kitcommon::aes_cbc_padded_len(in_len));
}

bool is_engine(const vexo_hw_aes_t *ctx) {
    return ctx->engine == kEngineMarker;
}

} // namespace

namespace tk::detail {

void reset_crypto() {
    g_hw_engine.store(false);
    g_hw_calls.store(0);
    g_sw_calls.store(0);
}

} // namespace tk::detail

namespace tk {

void set_hw_engine(bool on) {
    g_hw_engine.store(on);
}
uint64_t hw_encrypt_calls() {
    return g_hw_calls.load();
}
uint64_t sw_encrypt_calls() {
    return g_sw_calls.load();
}

std::optional<std::vector<uint8_t>> aes_cbc_decrypt(const uint8_t key[16], const uint8_t iv[16],
                                                    const std::vector<uint8_t> &cipher) {
    if (cipher.empty() || cipher.size() % 16 != 0) {
        return std::nullopt;
    }
    std::vector<uint8_t> plain(cipher.size() + 16);
    uint32_t n = 0;
    if (!kitcommon::aes128_cbc_decrypt(key, iv, cipher.data(), static_cast<uint32_t>(cipher.size()),
                                       plain.data(), &n)) {
        return std::nullopt;
    }
    plain.resize(n);
    return plain;
}

std::vector<uint8_t> aes_cbc_encrypt(const uint8_t key[16], const uint8_t iv[16],
                                     const std::vector<uint8_t> &plain) {
    std::vector<uint8_t> out(cipher_len(static_cast<uint32_t>(plain.size())));
    uint32_t n = 0;
    if (!kitcommon::aes128_cbc_encrypt(key, iv, plain.data(), static_cast<uint32_t>(plain.size()),
                                       out.data(), &n)) {
        return {};
    }
    out.resize(n);
    return out;
}

std::string md5_hex(const std::vector<uint8_t> &bytes) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &n, EVP_md5(), nullptr) != 1) {
        return "";
    }
    std::string out;
    char hex[3];
    for (unsigned int i = 0; i < n; ++i) {
        // NOLINTNEXTLINE(cert-err33-c): two hex digits and the terminator fill the 3 bytes
        std::snprintf(hex, sizeof(hex), "%02x", digest[i]);
        out += hex;
    }
    return out;
}

} // namespace tk

extern "C" {

int32_t vexo_hw_aes_crypt_init(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    if (auto scripted = tk::detail::enter("vexo_hw_aes_crypt_init")) {
        return *scripted;
    }
    if (ctx == nullptr || key == nullptr) {
        return -1;
    }
    std::memset(ctx, 0, sizeof(*ctx));
    if (g_hw_engine.load()) {
        ctx->engine = kEngineMarker;
        std::memcpy(ctx->priv, key, 16);
    }
    return 0;
}

int32_t vexo_hw_aes_update_key(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    if (auto scripted = tk::detail::enter("vexo_hw_aes_update_key")) {
        return *scripted;
    }
    if (ctx == nullptr || key == nullptr) {
        return -1;
    }
    if (ctx->engine == 0) {
        return 0;
    }
    if (!is_engine(ctx)) {
        tk::detail::record_misuse("crypto", "vexo_hw_aes_update_key on a context not set up");
        return -1;
    }
    std::memcpy(ctx->priv, key, 16);
    return 0;
}

int32_t vexo_hw_aes_encrypt_cbc(vexo_hw_aes_t *ctx, uint8_t iv[16], uint32_t key_bits,
                                const uint8_t *in, uint32_t in_len, uint8_t *out,
                                uint32_t *out_len) {
    if (auto scripted = tk::detail::enter("vexo_hw_aes_encrypt_cbc")) {
        return *scripted;
    }
    if (ctx == nullptr || iv == nullptr || (in == nullptr && in_len > 0) || out == nullptr ||
        out_len == nullptr || key_bits != 128) {
        return -1;
    }
    if (!is_engine(ctx)) {
        tk::detail::record_misuse("crypto", "vexo_hw_aes_encrypt_cbc without an engine");
        return -1;
    }
    if (*out_len < cipher_len(in_len)) {
        return -1;
    }
    uint8_t key[16];
    std::memcpy(key, ctx->priv, 16);
    g_hw_calls.fetch_add(1);
    return kitcommon::aes128_cbc_encrypt(key, iv, in, in_len, out, out_len) ? 0 : -1;
}

int32_t vexo_hw_aes_crypt_uninit(vexo_hw_aes_t *ctx) {
    if (auto scripted = tk::detail::enter("vexo_hw_aes_crypt_uninit")) {
        return *scripted;
    }
    if (ctx == nullptr) {
        return -1;
    }
    std::memset(ctx, 0, sizeof(*ctx));
    return 0;
}

int32_t OpensslAES_CBC128_encrypt(const uint8_t *in, uint32_t in_len, uint8_t *out,
                                  uint32_t *out_len, const uint8_t key[16], uint8_t iv[16]) {
    if (auto scripted = tk::detail::enter("OpensslAES_CBC128_encrypt")) {
        return *scripted;
    }
    if ((in == nullptr && in_len > 0) || out == nullptr || out_len == nullptr || key == nullptr ||
        iv == nullptr) {
        return -1;
    }
    g_sw_calls.fetch_add(1);
    return kitcommon::aes128_cbc_encrypt(key, iv, in, in_len, out, out_len) ? 0 : -1;
}

void uni_md5_init(uni_md5_ctx_t *ctx) {
    tk::detail::count("uni_md5_init");
    if (ctx == nullptr) {
        return;
    }
    kitcommon::md5_start(ctx);
}

void uni_md5_update(uni_md5_ctx_t *ctx, const uint8_t *data, uint32_t len) {
    tk::detail::count("uni_md5_update");
    if (ctx == nullptr || (data == nullptr && len > 0)) {
        return;
    }
    if (!kitcommon::md5_add(ctx, data, len)) {
        tk::detail::record_misuse("crypto", "uni_md5_update without uni_md5_init");
    }
}

void uni_md5_final(uni_md5_ctx_t *ctx, uint8_t digest[16]) {
    tk::detail::count("uni_md5_final");
    if (ctx == nullptr || digest == nullptr) {
        return;
    }
    if (!kitcommon::md5_finish(ctx, digest)) {
        tk::detail::record_misuse("crypto", "uni_md5_final without uni_md5_init");
    }
}

} // extern "C"

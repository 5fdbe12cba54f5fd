// MD5 on libcrypto's low-level MD5_CTX, a plain struct copied in and out of the caller's
// 128-byte context. OpenSSL 3 marks the low-level digest calls deprecated in favour of EVP,
// whose contexts are heap objects; the plain struct is what lets the state live in the
// caller's memory, so the deprecation warning is silenced for this file only.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "common/md5_state.h"

#include <cstring>
#include <openssl/md5.h>

namespace kitcommon {

namespace {

/// Marks a context holding a started digest, so a context never started (or already
/// finished) is refused instead of hashing from garbage.
constexpr uint64_t kStartedMarker = 0x564d44357374'6172ull; // "VMD5star"

struct Md5State {
    MD5_CTX md5;
    uint64_t marker;
};
static_assert(sizeof(Md5State) <= sizeof(uni_md5_ctx_t::bytes),
              "the MD5 state fits in the caller's context");

bool load(const uni_md5_ctx_t *ctx, Md5State *state) {
    std::memcpy(state, ctx->bytes, sizeof(*state));
    return state->marker == kStartedMarker;
}

void store(uni_md5_ctx_t *ctx, const Md5State &state) {
    std::memcpy(ctx->bytes, &state, sizeof(state));
}

} // namespace

void md5_start(uni_md5_ctx_t *ctx) {
    Md5State state{};
    MD5_Init(&state.md5);
    state.marker = kStartedMarker;
    std::memset(ctx->bytes, 0, sizeof(ctx->bytes));
    store(ctx, state);
}

bool md5_add(uni_md5_ctx_t *ctx, const uint8_t *data, size_t len) {
    Md5State state;
    if (!load(ctx, &state)) {
        return false;
    }
    if (len > 0) {
        MD5_Update(&state.md5, data, len);
        store(ctx, state);
    }
    return true;
}

bool md5_finish(uni_md5_ctx_t *ctx, uint8_t digest[16]) {
    Md5State state;
    if (!load(ctx, &state)) {
        return false;
    }
    MD5_Final(digest, &state.md5);
    std::memset(ctx->bytes, 0, sizeof(ctx->bytes));
    return true;
}

} // namespace kitcommon

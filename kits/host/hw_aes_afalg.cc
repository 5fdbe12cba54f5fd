// The hardware AES engine: AES-128-CBC through the kernel's crypto API (AF_ALG, "skcipher"
// "cbc(aes)"), which uses whatever accelerator the kernel drives.
//
// An engine is a bound AF_ALG socket holding the key; ctx->engine is that socket + 1 and
// ctx->priv keeps a copy of the key. Each encryption accepts an operation socket, hands the
// kernel the IV with every request (so the caller's IV is never changed) and the plain text
// padded here, in pieces small enough never to block. Where the kernel has no AF_ALG,
// crypt_init leaves ctx->engine 0 and the module encrypts in software. Should the kernel fail
// later, the frame is encrypted in software with the kept key, so the output is always the
// same cipher text.
#include "hw_aes_afalg.h"

#include <cerrno>
#include <cstring>
#include <linux/if_alg.h>
#include <map>
#include <mutex>
#include <sys/socket.h>
#include <unistd.h>

#include "common/aes_cbc.h"
#include "host_internal.h"
#include "unique_fd.h"
#include "vexo_crypto.h"

#ifndef SOL_ALG
#define SOL_ALG 279
#endif

namespace {

constexpr uint32_t kKeyBits = 128;
constexpr size_t kKeyBytes = 16;
constexpr size_t kBlock = kitcommon::kAesBlockSize;

/// What an engine keeps in ctx->priv.
struct EngineState {
    uint8_t key[kKeyBytes];
    /// Set when the kernel may hold another key than `key` (a failed re-key): software only.
    uint8_t kernel_off;
    uint32_t kernel_failures;
};
static_assert(sizeof(EngineState) <= sizeof(vexo_hw_aes_t::priv), "engine state fits in priv");

/// Serialises re-keying and closing against encryption (the kernel must not see a new key in
/// the middle of a request), and guards g_engines.
std::mutex g_mu;
/// Sockets of the engines set up and not yet closed, with the context each was set up in, so
/// a stale or foreign engine word is never taken for a socket of ours.
std::map<int, const vexo_hw_aes_t *> g_engines;

EngineState load_state(const vexo_hw_aes_t *ctx) {
    EngineState state;
    std::memcpy(&state, ctx->priv, sizeof(state));
    return state;
}

void store_state(vexo_hw_aes_t *ctx, const EngineState &state) {
    std::memcpy(ctx->priv, &state, sizeof(state));
}

/// The engine's socket, or -1 when ctx holds no live engine. Call with g_mu held.
int engine_socket(const vexo_hw_aes_t *ctx) {
    if (ctx->engine == 0 || ctx->engine > static_cast<uintptr_t>(INT32_MAX)) {
        return -1;
    }
    int fd = static_cast<int>(ctx->engine - 1);
    return g_engines.count(fd) != 0 ? fd : -1;
}

bool set_kernel_key(int tfm, const uint8_t key[16]) {
    return setsockopt(tfm, SOL_ALG, ALG_SET_KEY, key, kKeyBytes) == 0;
}

/// A socket bound to cbc(aes) with the key loaded; -1 (errno set) when the kernel offers none.
int open_tfm(const uint8_t key[16]) {
    int tfm = socket(AF_ALG, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (tfm < 0) {
        return -1;
    }
    struct sockaddr_alg sa {};
    sa.salg_family = AF_ALG;
    std::strncpy(reinterpret_cast<char *>(sa.salg_type), "skcipher", sizeof(sa.salg_type) - 1);
    std::strncpy(reinterpret_cast<char *>(sa.salg_name), "cbc(aes)", sizeof(sa.salg_name) - 1);
    if (bind(tfm, reinterpret_cast<const struct sockaddr *>(&sa), sizeof(sa)) != 0 ||
        !set_kernel_key(tfm, key)) {
        int err = errno;
        close(tfm);
        errno = err;
        return -1;
    }
    return tfm;
}

/// One request on an operation socket: encrypt the parts from iv into out.
bool kernel_request(int op, const uint8_t iv[16], const struct iovec *parts, size_t part_count,
                    uint8_t *out, size_t len) {
    constexpr size_t kIvHeader = sizeof(struct af_alg_iv);
    alignas(struct cmsghdr) char
        control[CMSG_SPACE(sizeof(uint32_t)) + CMSG_SPACE(kIvHeader + kBlock)] = {};
    struct msghdr msg {};
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    msg.msg_iov = const_cast<struct iovec *>(parts);
    msg.msg_iovlen = part_count;

    struct cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_ALG;
    cmsg->cmsg_type = ALG_SET_OP;
    cmsg->cmsg_len = CMSG_LEN(sizeof(uint32_t));
    const uint32_t operation = ALG_OP_ENCRYPT;
    std::memcpy(CMSG_DATA(cmsg), &operation, sizeof(operation));

    cmsg = CMSG_NXTHDR(&msg, cmsg);
    if (cmsg == nullptr) {
        return false;
    }
    cmsg->cmsg_level = SOL_ALG;
    cmsg->cmsg_type = ALG_SET_IV;
    cmsg->cmsg_len = CMSG_LEN(kIvHeader + kBlock);
    const uint32_t iv_len = kBlock;
    std::memcpy(CMSG_DATA(cmsg), &iv_len, sizeof(iv_len)); // af_alg_iv.ivlen
    std::memcpy(CMSG_DATA(cmsg) + kIvHeader, iv, kBlock);  // af_alg_iv.iv

    // Never waits for room: a piece the socket cannot take whole fails instead (and the frame
    // is encrypted in software), where waiting would wait for a read that comes after.
    ssize_t sent;
    do {
        sent = sendmsg(op, &msg, MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 || static_cast<size_t>(sent) != len) {
        return false;
    }
    size_t got = 0;
    while (got < len) {
        ssize_t n = read(op, out + got, len - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

/// Encrypts through the kernel; false (errno set) when any step fails.
bool kernel_encrypt(int tfm, const uint8_t iv[16], const uint8_t *in, uint32_t in_len,
                    uint8_t *out) {
    int op_fd;
    do {
        op_fd = accept4(tfm, nullptr, nullptr, SOCK_CLOEXEC);
    } while (op_fd < 0 && errno == EINTR);
    if (op_fd < 0) {
        return false;
    }
    hostkit::UniqueFd op(op_fd);
    hostkit::afalg::CbcOperation request = [&op](const uint8_t *chain, const struct iovec *parts,
                                                 size_t part_count, uint8_t *dst, size_t len) {
        return kernel_request(op.get(), chain, parts, part_count, dst, len);
    };
    return hostkit::afalg::encrypt_padded(request, hostkit::afalg::kChunkBytes, iv, in, in_len,
                                          out);
}

/// Checks that the kernel's cipher text is libcrypto's, padding included, before the engine
/// is trusted with frames.
bool self_test(int tfm, const uint8_t key[16]) {
    uint8_t plain[37];
    uint8_t iv[kBlock];
    for (size_t i = 0; i < sizeof(plain); ++i) {
        plain[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    for (size_t i = 0; i < kBlock; ++i) {
        iv[i] = static_cast<uint8_t>(0xF0 ^ i);
    }
    uint8_t from_kernel[48];
    uint8_t from_software[48];
    uint32_t software_len = 0;
    return kernel_encrypt(tfm, iv, plain, sizeof(plain), from_kernel) &&
           kitcommon::aes128_cbc_encrypt(key, iv, plain, sizeof(plain), from_software,
                                         &software_len) &&
           software_len == sizeof(from_software) &&
           std::memcmp(from_kernel, from_software, sizeof(from_kernel)) == 0;
}

bool overlaps(const uint8_t *a, size_t a_len, const uint8_t *b, size_t b_len) {
    uintptr_t a0 = reinterpret_cast<uintptr_t>(a);
    uintptr_t b0 = reinterpret_cast<uintptr_t>(b);
    return a0 < b0 + b_len && b0 < a0 + a_len;
}

/// Closes the engine ctx holds, if it is one of ours; with only_own, only one set up in this
/// very context (its memory may hold anything before a first init). Call with g_mu held.
void close_engine(vexo_hw_aes_t *ctx, bool only_own) {
    int tfm = engine_socket(ctx);
    if (tfm >= 0 && (!only_own || g_engines[tfm] == ctx)) {
        g_engines.erase(tfm);
        close(tfm);
    }
}

} // namespace

namespace hostkit::afalg {

bool encrypt_padded(const CbcOperation &op, size_t chunk_bytes, const uint8_t iv[16],
                    const uint8_t *in, uint32_t in_len, uint8_t *out) {
    chunk_bytes -= chunk_bytes % kBlock;
    if (chunk_bytes == 0) {
        chunk_bytes = kBlock;
    }
    // Made before any output is written, in case out is in.
    uint8_t last[kBlock];
    kitcommon::pkcs7_last_block(in, in_len, last);
    const size_t full = in_len - in_len % kBlock; // whole blocks taken straight from in
    const size_t total = full + kBlock;
    uint8_t chain[kBlock];
    std::memcpy(chain, iv, kBlock);
    for (size_t off = 0; off < total;) {
        size_t len = total - off < chunk_bytes ? total - off : chunk_bytes;
        struct iovec parts[2];
        size_t count = 0;
        if (off < full) {
            size_t from_in = full - off < len ? full - off : len;
            parts[count++] = {const_cast<uint8_t *>(in + off), from_in};
        }
        if (off + len > full) { // whole blocks throughout, so the padded block is whole here
            parts[count++] = {last, kBlock};
        }
        if (!op(chain, parts, count, out + off, len)) {
            return false;
        }
        std::memcpy(chain, out + off + len - kBlock, kBlock);
        off += len;
    }
    return true;
}

} // namespace hostkit::afalg

extern "C" {

int32_t vexo_hw_aes_crypt_init(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    if (ctx == nullptr || key == nullptr) {
        hostkit::internal::log_error("vexo_hw_aes_crypt_init: null argument");
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    close_engine(ctx, true); // set up again without an uninit: the old socket is not leaked
    std::memset(ctx, 0, sizeof(*ctx));
    int tfm = open_tfm(key);
    if (tfm < 0) {
        hostkit::internal::log_debug("AES engine: kernel crypto API unavailable (%s), software "
                                     "AES is used",
                                     std::strerror(errno));
        return 0;
    }
    if (!self_test(tfm, key)) {
        hostkit::internal::log_error("AES engine: kernel cbc(aes) output differs from libcrypto "
                                     "or fails; software AES is used");
        close(tfm);
        return 0;
    }
    EngineState state{};
    std::memcpy(state.key, key, kKeyBytes);
    store_state(ctx, state);
    g_engines[tfm] = ctx;
    ctx->engine = static_cast<uintptr_t>(tfm) + 1;
    hostkit::internal::log_debug("AES engine: kernel cbc(aes) through AF_ALG");
    return 0;
}

int32_t vexo_hw_aes_update_key(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    if (ctx == nullptr || key == nullptr) {
        hostkit::internal::log_error("vexo_hw_aes_update_key: null argument");
        return -1;
    }
    if (ctx->engine == 0) {
        return 0; // no engine: the software path takes the key with every call
    }
    std::lock_guard<std::mutex> lock(g_mu);
    int tfm = engine_socket(ctx);
    if (tfm < 0) {
        hostkit::internal::log_error("vexo_hw_aes_update_key: context holds no engine of ours");
        return -1;
    }
    EngineState state = load_state(ctx);
    std::memcpy(state.key, key, kKeyBytes);
    if (!set_kernel_key(tfm, key)) {
        hostkit::internal::log_error("AES engine: kernel refused the new key (%s); this engine "
                                     "encrypts in software from now on",
                                     std::strerror(errno));
        state.kernel_off = 1;
    }
    store_state(ctx, state);
    return 0;
}

int32_t vexo_hw_aes_encrypt_cbc(vexo_hw_aes_t *ctx, uint8_t iv[16], uint32_t key_bits,
                                const uint8_t *in, uint32_t in_len, uint8_t *out,
                                uint32_t *out_len) {
    if (ctx == nullptr || iv == nullptr || (in == nullptr && in_len > 0) || out == nullptr ||
        out_len == nullptr) {
        hostkit::internal::log_error("vexo_hw_aes_encrypt_cbc: null argument");
        return -1;
    }
    if (key_bits != kKeyBits) {
        hostkit::internal::log_error("vexo_hw_aes_encrypt_cbc: %u-bit keys are not supported",
                                     key_bits);
        *out_len = 0;
        return -1;
    }
    const uint64_t padded = kitcommon::aes_cbc_padded_len(in_len);
    if (padded > *out_len) {
        hostkit::internal::log_error("vexo_hw_aes_encrypt_cbc: %u bytes need %llu bytes of room, "
                                     "got %u",
                                     in_len, static_cast<unsigned long long>(padded), *out_len);
        *out_len = 0;
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    int tfm = engine_socket(ctx);
    if (tfm < 0) {
        hostkit::internal::log_error("vexo_hw_aes_encrypt_cbc: context holds no engine");
        *out_len = 0;
        return -1;
    }
    EngineState state = load_state(ctx);
    if (state.kernel_off == 0 && kernel_encrypt(tfm, iv, in, in_len, out)) {
        *out_len = static_cast<uint32_t>(padded);
        return 0;
    }
    if (state.kernel_off == 0) {
        int err = errno;
        if (state.kernel_failures++ == 0) {
            hostkit::internal::log_error("AES engine: kernel request failed (%s); such frames are "
                                         "encrypted in software",
                                         std::strerror(err));
        }
        store_state(ctx, state);
        if (in_len > 0 && overlaps(in, in_len, out, padded)) {
            *out_len = 0; // the failed request may have overwritten the plain text
            return -1;
        }
    }
    if (!kitcommon::aes128_cbc_encrypt(state.key, iv, in, in_len, out, out_len)) {
        hostkit::internal::log_error("vexo_hw_aes_encrypt_cbc: libcrypto failed on %u bytes",
                                     in_len);
        *out_len = 0;
        return -1;
    }
    return 0;
}

int32_t vexo_hw_aes_crypt_uninit(vexo_hw_aes_t *ctx) {
    if (ctx == nullptr) {
        hostkit::internal::log_error("vexo_hw_aes_crypt_uninit: null argument");
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    close_engine(ctx, false);
    std::memset(ctx, 0, sizeof(*ctx)); // the key copy goes too
    return 0;
}

} // extern "C"

// Software AES-128-CBC and MD5 on libcrypto. The cipher follows the kits' rules: PKCS#7
// padding, (in_len / 16 + 1) * 16 bytes out, the caller's IV only read. The MD5 state lives in
// the caller's context, so nothing is allocated.
#include "common/aes_cbc.h"
#include "common/md5_state.h"
#include "host_internal.h"
#include "vexo_crypto.h"

extern "C" {

int32_t OpensslAES_CBC128_encrypt(const uint8_t *in, uint32_t in_len, uint8_t *out,
                                  uint32_t *out_len, const uint8_t key[16], uint8_t iv[16]) {
    if ((in == nullptr && in_len > 0) || out == nullptr || out_len == nullptr || key == nullptr ||
        iv == nullptr) {
        hostkit::internal::log_error("OpensslAES_CBC128_encrypt: null argument");
        return -1;
    }
    if (!kitcommon::aes128_cbc_encrypt(key, iv, in, in_len, out, out_len)) {
        hostkit::internal::log_error("OpensslAES_CBC128_encrypt: libcrypto failed on %u bytes",
                                     in_len);
        *out_len = 0;
        return -1;
    }
    return 0;
}

void uni_md5_init(uni_md5_ctx_t *ctx) {
    if (ctx == nullptr) {
        hostkit::internal::log_error("uni_md5_init: null context");
        return;
    }
    kitcommon::md5_start(ctx);
}

void uni_md5_update(uni_md5_ctx_t *ctx, const uint8_t *data, uint32_t len) {
    if (ctx == nullptr || (data == nullptr && len > 0)) {
        hostkit::internal::log_error("uni_md5_update: null argument");
        return;
    }
    if (!kitcommon::md5_add(ctx, data, len)) {
        hostkit::internal::log_error("uni_md5_update: context not started with uni_md5_init");
    }
}

void uni_md5_final(uni_md5_ctx_t *ctx, uint8_t digest[16]) {
    if (ctx == nullptr || digest == nullptr) {
        hostkit::internal::log_error("uni_md5_final: null argument");
        return;
    }
    if (!kitcommon::md5_finish(ctx, digest)) {
        hostkit::internal::log_error("uni_md5_final: context not started with uni_md5_init");
    }
}

} // extern "C"

/// AES-128-CBC (hardware engine or software) and MD5.
///
/// Cipher rules every kit follows: PKCS#7 padding, out_len = (in_len / 16 + 1) * 16; the IV is
/// input only: each call starts from the 16 bytes given and leaves them unchanged.
#ifndef VEXO_CRYPTO_H
#define VEXO_CRYPTO_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

typedef struct {
    uintptr_t engine; /* 0: no hardware engine */
    uintptr_t priv[7];
} vexo_hw_aes_t;

/// Sets up the hardware engine with a key; leaves ctx->engine 0 where there is none.
int32_t vexo_hw_aes_crypt_init(vexo_hw_aes_t *ctx, const uint8_t key[16]);
/// Loads a new key into an engine set up by vexo_hw_aes_crypt_init (no-op without engine).
int32_t vexo_hw_aes_update_key(vexo_hw_aes_t *ctx, const uint8_t key[16]);
/// Encrypts in_len bytes; *out_len holds the room at out on entry, the bytes written on exit.
int32_t vexo_hw_aes_encrypt_cbc(vexo_hw_aes_t *ctx, uint8_t iv[16], uint32_t key_bits,
                                const uint8_t *in, uint32_t in_len, uint8_t *out,
                                uint32_t *out_len);
int32_t vexo_hw_aes_crypt_uninit(vexo_hw_aes_t *ctx);
/// Software AES-128-CBC; *out_len receives the bytes written. 0 on success.
int32_t OpensslAES_CBC128_encrypt(const uint8_t *in, uint32_t in_len, uint8_t *out,
                                  uint32_t *out_len, const uint8_t key[16], uint8_t iv[16]);

typedef union {
    uint64_t align;
    uint8_t bytes[128];
} uni_md5_ctx_t; /* the kit keeps its state inside */
void uni_md5_init(uni_md5_ctx_t *ctx);
void uni_md5_update(uni_md5_ctx_t *ctx, const uint8_t *data, uint32_t len);
void uni_md5_final(uni_md5_ctx_t *ctx, uint8_t digest[16]);

VEXO_EXTERN_C_END

#endif

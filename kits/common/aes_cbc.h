/// AES-128-CBC with PKCS#7 padding on libcrypto, following the kits' cipher rules: the cipher
/// text is (in_len / 16 + 1) * 16 bytes and the IV is only read, so every call starts from
/// the same 16 bytes it was given.
#ifndef VEXO_KIT_COMMON_AES_CBC_H
#define VEXO_KIT_COMMON_AES_CBC_H

#include <cstddef>
#include <cstdint>

namespace kitcommon {

constexpr uint32_t kAesBlockSize = 16;

/// Cipher-text length of in_len bytes of plain text: in_len rounded up to the next whole
/// block, with a full block of padding when in_len is already a multiple of 16.
constexpr uint64_t aes_cbc_padded_len(uint64_t in_len) {
    return (in_len / kAesBlockSize + 1) * kAesBlockSize;
}

/// The last block of the padded plain text: the in_len % 16 trailing bytes of in, then
/// PKCS#7 padding.
void pkcs7_last_block(const uint8_t *in, uint32_t in_len, uint8_t block[16]);

/// Encrypts in_len bytes into out, which has room for aes_cbc_padded_len(in_len) bytes;
/// *out_len receives the bytes written. in and out may be the same buffer. False on a
/// libcrypto failure or a cipher text that does not fit in 32 bits.
bool aes128_cbc_encrypt(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                        uint32_t in_len, uint8_t *out, uint32_t *out_len);

/// Decrypts and strips the padding; out has room for in_len bytes. False for a cipher text
/// that is empty, not whole blocks, or whose padding is wrong.
bool aes128_cbc_decrypt(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                        uint32_t in_len, uint8_t *out, uint32_t *out_len);

} // namespace kitcommon

#endif

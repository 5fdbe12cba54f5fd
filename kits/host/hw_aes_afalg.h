// The hardware AES engine's user-space half, shared with its tests: how a padded encryption is
// cut into raw CBC operations for the kernel.
#ifndef VEXO_HOST_HW_AES_AFALG_H
#define VEXO_HOST_HW_AES_AFALG_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sys/uio.h>

namespace hostkit::afalg {

/// One raw CBC encryption (no padding) of the concatenated parts, len bytes in whole blocks,
/// starting from iv, into out. True on success.
using CbcOperation = std::function<bool(const uint8_t iv[16], const struct iovec *parts,
                                        size_t part_count, uint8_t *out, size_t len)>;

/// Bytes handed to the kernel per operation: well under a socket's default send buffer, so a
/// send never waits for a read that would only come after it.
constexpr size_t kChunkBytes = size_t{64} * 1024;

/// Encrypts in_len bytes with PKCS#7 padding into out (room for (in_len / 16 + 1) * 16 bytes)
/// by running op over pieces of at most chunk_bytes (rounded down to whole blocks), each
/// starting from the last cipher block of the one before. The padding is made here; iv is
/// only read. False when an operation fails (out then holds partial output).
bool encrypt_padded(const CbcOperation &op, size_t chunk_bytes, const uint8_t iv[16],
                    const uint8_t *in, uint32_t in_len, uint8_t *out);

} // namespace hostkit::afalg

#endif

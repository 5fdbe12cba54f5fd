/// MD5 whose whole state lives inside the caller's uni_md5_ctx_t: nothing is allocated, so a
/// context that is never finished leaks nothing.
#ifndef VEXO_KIT_COMMON_MD5_STATE_H
#define VEXO_KIT_COMMON_MD5_STATE_H

#include <cstddef>
#include <cstdint>

#include "vexo_crypto.h"

namespace kitcommon {

/// Starts a digest in ctx (whatever ctx held before).
void md5_start(uni_md5_ctx_t *ctx);
/// Adds len bytes. False, and nothing done, when ctx holds no started digest.
bool md5_add(uni_md5_ctx_t *ctx, const uint8_t *data, size_t len);
/// Writes the digest and ends it: ctx must be started again before further use. False, and
/// digest untouched, when ctx holds no started digest.
bool md5_finish(uni_md5_ctx_t *ctx, uint8_t digest[16]);

} // namespace kitcommon

#endif

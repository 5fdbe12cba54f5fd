/// Persistent key-value store and its self-delimiting record serialiser.
#ifndef VEXO_KV_H
#define VEXO_KV_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

enum { VEXO_KV_INT = 4, VEXO_KV_BYTES = 7 };
/* NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a fixed platform layout */
typedef struct {
    const char *key;
    uint8_t type;
    void *value;
    uint16_t len;
} vexo_kv_entry_t;

/// Serialises count entries into a new buffer (*out, released with Free). 0 on success.
int32_t iot_wd_utils_serialize(const vexo_kv_entry_t *entries, uint32_t count, uint8_t **out,
                               uint32_t *out_len);
/// Fills each entry's value (up to its len) from the field of the same name. 0 on success.
int32_t iot_wd_utils_deserialize(const uint8_t *in, vexo_kv_entry_t *entries, uint32_t count);
/// Reads a record into a new buffer released with iot_wd_common_free_data. 0 on success,
/// -6 when the record does not exist, another negative code on other failures. Blocking I/O.
int32_t iot_wd_common_read(const char *key, uint8_t **value, uint32_t *len);
/// Writes a record, replacing any earlier one. 0 on success. Blocking I/O.
int32_t iot_wd_common_write(const char *key, const uint8_t *value, uint32_t len);
int32_t iot_wd_common_free_data(uint8_t *data);

VEXO_EXTERN_C_END

#endif

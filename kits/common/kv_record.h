/// The kits' key-value record format and the serialiser calls built on it.
///
/// Record layout (all integers little-endian):
///   "VKV1" | total length u32 (whole record) | field count u32 |
///   per field: key length u16 | key bytes | type u8 | value length u16 | value bytes |
///   FNV-1a u32 over everything before it.
/// The total length makes a record self-delimiting; the checksum rejects damaged records.
#ifndef VEXO_KIT_COMMON_KV_RECORD_H
#define VEXO_KIT_COMMON_KV_RECORD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vexo_kv.h"

namespace kitcommon {

/// Largest record either kit writes or accepts, in bytes.
constexpr uint32_t kKvRecordMaxSize = 1u << 24;

/// Result codes of the serialiser calls.
constexpr int32_t kKvBadArgument = -1;
constexpr int32_t kKvCorrupt = -2;
constexpr int32_t kKvMissingField = -3;
constexpr int32_t kKvWrongType = -4;

struct KvRecordField {
    std::string key;
    uint8_t type = 0;
    std::vector<uint8_t> value;
};

/// The record's checksum (FNV-1a) over data[0, len).
uint32_t kv_record_checksum(const uint8_t *data, size_t len);

/// Encodes fields into *out. False (and *out untouched) when a key or a value is longer than
/// 65535 bytes or the record would be larger than kKvRecordMaxSize.
bool kv_record_encode(const std::vector<KvRecordField> &fields, std::vector<uint8_t> *out);

/// Length of the record at the start of in[0, available): the length its header declares,
/// once the magic, the length and the checksum are right and the record fits in `available`
/// bytes; 0 when it is not a valid record. Nothing beyond `available` is read.
uint32_t kv_record_length(const uint8_t *in, size_t available);

/// Decodes the record at the start of in[0, available) into *fields (replaced). False when
/// it is not a valid record.
bool kv_record_decode(const uint8_t *in, size_t available, std::vector<KvRecordField> *fields);

/// iot_wd_utils_serialize's work: encodes count entries into *out. 0, or kKvBadArgument for a
/// null key, a null value with a length, or a record too large.
int32_t kv_entries_encode(const vexo_kv_entry_t *entries, uint32_t count,
                          std::vector<uint8_t> *out);

/// iot_wd_utils_deserialize's work: fills each entry's value (up to its len) from the field of
/// the same name in the record at in[0, available). 0, kKvCorrupt for a record that is not
/// valid, kKvMissingField, kKvWrongType, or kKvBadArgument for a bad entry.
int32_t kv_entries_decode(const uint8_t *in, size_t available, vexo_kv_entry_t *entries,
                          uint32_t count);

} // namespace kitcommon

#endif

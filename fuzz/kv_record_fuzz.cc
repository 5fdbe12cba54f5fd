// Fuzz target: the kits' key-value record decoder, the read of one stored record.
//
// The input is decoded as it is. A record's total length and checksum make nearly every
// mutated input invalid before its fields are read, so the input is also decoded once more
// with those two put right (when it is long enough to hold them): that reaches the field walk.
// A record that decodes must encode back to the same bytes, and the module's reads of its
// key record (through kv_entries_decode) must stay within the buffers they give.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/kv_record.h"

namespace {

constexpr size_t kHeaderSize = 12;
constexpr size_t kChecksumSize = 4;

void fail(const char *what) {
    (void)std::fprintf(stderr, "kv_record_fuzz: %s\n", what);
    std::abort();
}

void put_u32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

void decode(const uint8_t *in, size_t size) {
    std::vector<kitcommon::KvRecordField> fields;
    const uint32_t length = kitcommon::kv_record_length(in, size);
    if (length > size) {
        fail("record length beyond the bytes given");
    }
    if (kitcommon::kv_record_decode(in, size, &fields)) {
        std::vector<uint8_t> again;
        if (!kitcommon::kv_record_encode(fields, &again) ||
            again != std::vector<uint8_t>(in, in + length)) {
            fail("a decoded record does not encode back to its bytes");
        }
    }
    // The module's key record: two lengths, then the md5 text and the key.
    uint32_t md5_len = 0;
    uint32_t key_len = 0;
    uint8_t md5[33] = {};
    uint8_t key[16] = {};
    vexo_kv_entry_t entries[] = {
        {"md5_len", VEXO_KV_INT, &md5_len, sizeof md5_len},
        {"encrypt_key_len", VEXO_KV_INT, &key_len, sizeof key_len},
        {"md5_value", VEXO_KV_BYTES, md5, sizeof md5},
        {"encrypt_key_value", VEXO_KV_BYTES, key, sizeof key},
    };
    (void)kitcommon::kv_entries_decode(in, size, entries, 4);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Copies sized exactly, so that any read past the end is caught.
    std::vector<uint8_t> bytes(data, data + size);
    decode(bytes.data(), bytes.size());
    if (size >= kHeaderSize + kChecksumSize) {
        put_u32(bytes.data() + 4, static_cast<uint32_t>(size));
        put_u32(bytes.data() + size - kChecksumSize,
                kitcommon::kv_record_checksum(bytes.data(), size - kChecksumSize));
        decode(bytes.data(), bytes.size());
    }
    return 0;
}

// The key-value record format: encoding, validation and decoding, and the serialiser calls'
// work on top of them. Every read is bounded by the bytes the caller says it has.
#include "common/kv_record.h"

#include <cstring>

namespace kitcommon {

namespace {

constexpr uint8_t kMagic[4] = {'V', 'K', 'V', '1'};
constexpr uint32_t kHeaderSize = 12; // magic, total length, field count
constexpr uint32_t kChecksumSize = 4;
constexpr uint32_t kMaxFieldPart = 0xFFFF; // key and value lengths are u16

void put_u16(std::vector<uint8_t> &out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

void put_u32(std::vector<uint8_t> &out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
}

uint32_t get_u16(const uint8_t *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8;
}

uint32_t get_u32(const uint8_t *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

/// Walks the fields of a record already checked by kv_record_length; false when they do not
/// fill the record exactly.
bool decode_fields(const uint8_t *in, uint32_t total, std::vector<KvRecordField> *fields) {
    uint32_t count = get_u32(in + 8);
    uint32_t pos = kHeaderSize;
    uint32_t end = total - kChecksumSize;
    fields->clear();
    for (uint32_t i = 0; i < count; ++i) {
        if (end - pos < 2) {
            return false;
        }
        uint32_t key_len = get_u16(in + pos);
        pos += 2;
        if (end - pos < key_len + 3) {
            return false;
        }
        KvRecordField f;
        f.key.assign(reinterpret_cast<const char *>(in + pos), key_len);
        pos += key_len;
        f.type = in[pos++];
        uint32_t value_len = get_u16(in + pos);
        pos += 2;
        if (end - pos < value_len) {
            return false;
        }
        f.value.assign(in + pos, in + pos + value_len);
        pos += value_len;
        fields->push_back(std::move(f));
    }
    return pos == end;
}

bool entry_usable(const vexo_kv_entry_t &e) {
    return e.key != nullptr && (e.value != nullptr || e.len == 0);
}

} // namespace

uint32_t kv_record_checksum(const uint8_t *data, size_t len) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i) {
        h ^= data[i];
        h *= 16777619u;
    }
    return h;
}

bool kv_record_encode(const std::vector<KvRecordField> &fields, std::vector<uint8_t> *out) {
    size_t total = kHeaderSize + kChecksumSize;
    for (const KvRecordField &f : fields) {
        if (f.key.size() > kMaxFieldPart || f.value.size() > kMaxFieldPart) {
            return false;
        }
        total += 5 + f.key.size() + f.value.size();
        if (total > kKvRecordMaxSize) {
            return false;
        }
    }
    std::vector<uint8_t> bytes(kMagic, kMagic + 4);
    bytes.reserve(total);
    put_u32(bytes, static_cast<uint32_t>(total));
    put_u32(bytes, static_cast<uint32_t>(fields.size()));
    for (const KvRecordField &f : fields) {
        put_u16(bytes, static_cast<uint32_t>(f.key.size()));
        bytes.insert(bytes.end(), f.key.begin(), f.key.end());
        bytes.push_back(f.type);
        put_u16(bytes, static_cast<uint32_t>(f.value.size()));
        bytes.insert(bytes.end(), f.value.begin(), f.value.end());
    }
    put_u32(bytes, kv_record_checksum(bytes.data(), bytes.size()));
    *out = std::move(bytes);
    return true;
}

uint32_t kv_record_length(const uint8_t *in, size_t available) {
    if (in == nullptr || available < kHeaderSize + kChecksumSize ||
        std::memcmp(in, kMagic, 4) != 0) {
        return 0;
    }
    uint32_t total = get_u32(in + 4);
    if (total < kHeaderSize + kChecksumSize || total > kKvRecordMaxSize || total > available) {
        return 0;
    }
    if (kv_record_checksum(in, total - kChecksumSize) != get_u32(in + total - kChecksumSize)) {
        return 0;
    }
    return total;
}

bool kv_record_decode(const uint8_t *in, size_t available, std::vector<KvRecordField> *fields) {
    uint32_t total = kv_record_length(in, available);
    return total != 0 && decode_fields(in, total, fields);
}

int32_t kv_entries_encode(const vexo_kv_entry_t *entries, uint32_t count,
                          std::vector<uint8_t> *out) {
    if ((entries == nullptr && count > 0) || out == nullptr) {
        return kKvBadArgument;
    }
    std::vector<KvRecordField> fields;
    fields.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const vexo_kv_entry_t &e = entries[i];
        if (!entry_usable(e)) {
            return kKvBadArgument;
        }
        const uint8_t *v = static_cast<const uint8_t *>(e.value);
        fields.push_back(KvRecordField{e.key, e.type, std::vector<uint8_t>(v, v + e.len)});
    }
    return kv_record_encode(fields, out) ? 0 : kKvBadArgument;
}

int32_t kv_entries_decode(const uint8_t *in, size_t available, vexo_kv_entry_t *entries,
                          uint32_t count) {
    if (in == nullptr || (entries == nullptr && count > 0)) {
        return kKvBadArgument;
    }
    std::vector<KvRecordField> fields;
    if (!kv_record_decode(in, available, &fields)) {
        return kKvCorrupt;
    }
    for (uint32_t i = 0; i < count; ++i) {
        vexo_kv_entry_t &e = entries[i];
        if (!entry_usable(e)) {
            return kKvBadArgument;
        }
        const KvRecordField *found = nullptr;
        for (const KvRecordField &f : fields) {
            if (f.key == e.key) {
                found = &f;
                break;
            }
        }
        if (found == nullptr) {
            return kKvMissingField;
        }
        if (found->type != e.type) {
            return kKvWrongType;
        }
        size_t n = found->value.size() < e.len ? found->value.size() : e.len;
        if (n > 0) {
            std::memcpy(e.value, found->value.data(), n);
        }
    }
    return 0;
}

} // namespace kitcommon

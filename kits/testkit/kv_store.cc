// The persistent key-value store, kept in memory, and the record serialiser.
//
// Record format (all integers little-endian):
//   "VKV1" | total length u32 (whole record) | field count u32 |
//   per field: key length u16 | key bytes | type u8 | value length u16 | value bytes |
//   FNV-1a u32 over everything before it.
// The total length makes the record self-delimiting; the checksum rejects damaged records.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr uint8_t kMagic[4] = {'V', 'K', 'V', '1'};
constexpr uint32_t kHeaderSize = 12;
constexpr uint32_t kMaxRecord = 1u << 24;

constexpr int32_t kBadArgument = -1;
constexpr int32_t kCorrupt = -2;
constexpr int32_t kMissingField = -3;
constexpr int32_t kWrongType = -4;
constexpr int32_t kNoRecord = -6;

std::mutex g_mu;
std::map<std::string, std::vector<uint8_t>> g_store;
std::vector<std::string> g_writes;
std::set<uint8_t *> g_reads; // buffers handed out by iot_wd_common_read

uint32_t fnv1a(const uint8_t *data, size_t len) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i) {
        h ^= data[i];
        h *= 16777619u;
    }
    return h;
}

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

std::vector<uint8_t> encode(const std::vector<tk::KvField> &fields) {
    std::vector<uint8_t> out(kMagic, kMagic + 4);
    put_u32(out, 0); // total length, filled below
    put_u32(out, static_cast<uint32_t>(fields.size()));
    for (const tk::KvField &f : fields) {
        put_u16(out, static_cast<uint32_t>(f.key.size()));
        out.insert(out.end(), f.key.begin(), f.key.end());
        out.push_back(f.type);
        put_u16(out, static_cast<uint32_t>(f.value.size()));
        out.insert(out.end(), f.value.begin(), f.value.end());
    }
    uint32_t total = static_cast<uint32_t>(out.size()) + 4;
    for (int i = 0; i < 4; ++i) {
        out[4 + static_cast<size_t>(i)] = static_cast<uint8_t>(total >> (8 * i));
    }
    put_u32(out, fnv1a(out.data(), out.size()));
    return out;
}

/// Length of the record starting at `in`, or 0 when it is not a valid record. Reads past the
/// header only once the header looks right.
uint32_t checked_length(const uint8_t *in) {
    if (std::memcmp(in, kMagic, 4) != 0) {
        return 0;
    }
    uint32_t total = get_u32(in + 4);
    if (total < kHeaderSize + 4 || total > kMaxRecord) {
        return 0;
    }
    if (fnv1a(in, total - 4) != get_u32(in + total - 4)) {
        return 0;
    }
    return total;
}

bool decode(const uint8_t *in, uint32_t total, std::vector<tk::KvField> &fields) {
    uint32_t count = get_u32(in + 8);
    uint32_t pos = kHeaderSize;
    uint32_t end = total - 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (end - pos < 2) {
            return false;
        }
        uint32_t key_len = get_u16(in + pos);
        pos += 2;
        if (end - pos < key_len + 3) {
            return false;
        }
        tk::KvField f;
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
        fields.push_back(std::move(f));
    }
    return pos == end;
}

} // namespace

namespace tk::detail {

void reset_kv() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_store.clear();
    g_writes.clear();
    for (uint8_t *p : g_reads) {
        std::free(p);
    }
    g_reads.clear();
}

} // namespace tk::detail

namespace tk {

void put_record(const std::string &name, const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_store[name] = bytes;
}

std::optional<std::vector<uint8_t>> get_record(const std::string &name) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_store.find(name);
    if (it == g_store.end()) {
        return std::nullopt;
    }
    return it->second;
}

void erase_record(const std::string &name) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_store.erase(name);
}

namespace {

std::vector<uint8_t> int_bytes(int32_t v) {
    std::vector<uint8_t> out(4);
    std::memcpy(out.data(), &v, 4);
    return out;
}

} // namespace

void put_key_record(const std::string &md5, uint32_t md5_len, const std::vector<uint8_t> &key,
                    uint32_t key_len) {
    put_record(
        "md5_encrypt_key",
        encode({{"md5_value", VEXO_KV_BYTES, std::vector<uint8_t>(md5.begin(), md5.end())},
                {"md5_len", VEXO_KV_INT, int_bytes(static_cast<int32_t>(md5_len))},
                {"encrypt_key_value", VEXO_KV_BYTES, key},
                {"encrypt_key_len", VEXO_KV_INT, int_bytes(static_cast<int32_t>(key_len))}}));
}

void put_slice_record(int32_t value) {
    put_record("storage_restriction", encode({{"slice_duration", VEXO_KV_INT, int_bytes(value)}}));
}

std::vector<uint8_t> encode_record(const std::vector<KvField> &fields) {
    return encode(fields);
}

std::optional<std::vector<KvField>> decode_record(const std::vector<uint8_t> &bytes) {
    if (bytes.size() < kHeaderSize + 4 || std::memcmp(bytes.data(), kMagic, 4) != 0 ||
        get_u32(bytes.data() + 4) != bytes.size()) {
        return std::nullopt;
    }
    uint32_t total = checked_length(bytes.data());
    std::vector<KvField> fields;
    if (total == 0 || !decode(bytes.data(), total, fields)) {
        return std::nullopt;
    }
    return fields;
}

std::optional<std::vector<uint8_t>> record_field(const std::string &name,
                                                 const std::string &field) {
    std::optional<std::vector<uint8_t>> bytes = get_record(name);
    if (!bytes) {
        return std::nullopt;
    }
    std::optional<std::vector<KvField>> fields = decode_record(*bytes);
    if (!fields) {
        return std::nullopt;
    }
    for (const KvField &f : *fields) {
        if (f.key == field) {
            return f.value;
        }
    }
    return std::nullopt;
}

std::optional<int32_t> record_int(const std::string &name, const std::string &field) {
    std::optional<std::vector<uint8_t>> value = record_field(name, field);
    if (!value || value->size() != 4) {
        return std::nullopt;
    }
    int32_t v = 0;
    std::memcpy(&v, value->data(), 4);
    return v;
}

std::vector<std::string> kv_writes() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_writes;
}

size_t kv_outstanding_reads() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_reads.size();
}

} // namespace tk

extern "C" {

int32_t iot_wd_utils_serialize(const vexo_kv_entry_t *entries, uint32_t count, uint8_t **out,
                               uint32_t *out_len) {
    if (auto scripted = tk::detail::enter("iot_wd_utils_serialize")) {
        return *scripted;
    }
    if ((entries == nullptr && count > 0) || out == nullptr || out_len == nullptr) {
        return kBadArgument;
    }
    std::vector<tk::KvField> fields;
    for (uint32_t i = 0; i < count; ++i) {
        const vexo_kv_entry_t &e = entries[i];
        if (e.key == nullptr || (e.value == nullptr && e.len > 0) || std::strlen(e.key) > 0xFFFF) {
            return kBadArgument;
        }
        const uint8_t *v = static_cast<const uint8_t *>(e.value);
        fields.push_back(tk::KvField{e.key, e.type, std::vector<uint8_t>(v, v + e.len)});
    }
    std::vector<uint8_t> bytes = encode(fields);
    void *block = tk::detail::kit_block(bytes.size());
    if (block == nullptr) {
        return kBadArgument;
    }
    std::memcpy(block, bytes.data(), bytes.size());
    *out = static_cast<uint8_t *>(block);
    *out_len = static_cast<uint32_t>(bytes.size());
    return 0;
}

int32_t iot_wd_utils_deserialize(const uint8_t *in, vexo_kv_entry_t *entries, uint32_t count) {
    if (auto scripted = tk::detail::enter("iot_wd_utils_deserialize")) {
        return *scripted;
    }
    if (in == nullptr || (entries == nullptr && count > 0)) {
        return kBadArgument;
    }
    uint32_t total = checked_length(in);
    std::vector<tk::KvField> fields;
    if (total == 0 || !decode(in, total, fields)) {
        return kCorrupt;
    }
    for (uint32_t i = 0; i < count; ++i) {
        vexo_kv_entry_t &e = entries[i];
        if (e.key == nullptr || (e.value == nullptr && e.len > 0)) {
            return kBadArgument;
        }
        const tk::KvField *found = nullptr;
        for (const tk::KvField &f : fields) {
            if (f.key == e.key) {
                found = &f;
                break;
            }
        }
        if (found == nullptr) {
            return kMissingField;
        }
        if (found->type != e.type) {
            return kWrongType;
        }
        size_t n = found->value.size() < e.len ? found->value.size() : e.len;
        if (n > 0) {
            std::memcpy(e.value, found->value.data(), n);
        }
    }
    return 0;
}

int32_t iot_wd_common_read(const char *key, uint8_t **value, uint32_t *len) {
    if (auto scripted = tk::detail::enter("iot_wd_common_read")) {
        return *scripted;
    }
    if (key == nullptr || value == nullptr || len == nullptr) {
        return kBadArgument;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_store.find(key);
    if (it == g_store.end()) {
        return kNoRecord;
    }
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(it->second.empty() ? 1 : it->second.size()));
    if (buf == nullptr) {
        return kBadArgument;
    }
    if (!it->second.empty()) {
        std::memcpy(buf, it->second.data(), it->second.size());
    }
    g_reads.insert(buf);
    *value = buf;
    *len = static_cast<uint32_t>(it->second.size());
    return 0;
}

int32_t iot_wd_common_write(const char *key, const uint8_t *value, uint32_t len) {
    if (auto scripted = tk::detail::enter("iot_wd_common_write")) {
        std::lock_guard<std::mutex> lock(g_mu);
        g_writes.push_back(key != nullptr ? key : "");
        return *scripted;
    }
    if (key == nullptr || (value == nullptr && len > 0)) {
        return kBadArgument;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_writes.push_back(key);
    g_store[key] = std::vector<uint8_t>(value, value + len);
    return 0;
}

int32_t iot_wd_common_free_data(uint8_t *data) {
    tk::detail::count("iot_wd_common_free_data");
    if (data == nullptr) {
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        auto it = g_reads.find(data);
        if (it != g_reads.end()) {
            g_reads.erase(it);
            std::free(data);
            return 0;
        }
    }
    tk::detail::record_misuse("kv", "iot_wd_common_free_data of a buffer not handed out");
    return -1;
}

} // extern "C"

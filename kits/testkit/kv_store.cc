// The persistent key-value store, kept in memory, and the record serialiser (the record
// format is the kits' shared one, common/kv_record.h).
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "common/kv_record.h"
#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr int32_t kBadArgument = kitcommon::kKvBadArgument;
constexpr int32_t kNoRecord = -6;

std::mutex g_mu;
std::map<std::string, std::vector<uint8_t>> g_store;
std::vector<std::string> g_writes;
/// Buffers handed out by iot_wd_common_read, and their sizes.
std::map<uint8_t *, size_t, std::less<>> g_reads;

std::vector<uint8_t> encode(const std::vector<tk::KvField> &fields) {
    std::vector<kitcommon::KvRecordField> record;
    record.reserve(fields.size());
    for (const tk::KvField &f : fields) {
        record.push_back(kitcommon::KvRecordField{f.key, f.type, f.value});
    }
    std::vector<uint8_t> out;
    kitcommon::kv_record_encode(record, &out); // left empty when a field is too long
    return out;
}

/// Bytes readable at `in`: the size of a buffer handed out by iot_wd_common_read, else as many
/// as the record's header declares (the caller's own memory).
size_t readable_at(const uint8_t *in) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_reads.find(in);
    return it != g_reads.end() ? it->second : kitcommon::kKvRecordMaxSize;
}

} // namespace

namespace tk::detail {

void reset_kv() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_store.clear();
    g_writes.clear();
    for (const auto &read : g_reads) {
        std::free(read.first);
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
    std::vector<kitcommon::KvRecordField> record;
    if (kitcommon::kv_record_length(bytes.data(), bytes.size()) != bytes.size() ||
        !kitcommon::kv_record_decode(bytes.data(), bytes.size(), &record)) {
        return std::nullopt;
    }
    std::vector<KvField> fields;
    fields.reserve(record.size());
    for (kitcommon::KvRecordField &f : record) {
        fields.push_back(KvField{std::move(f.key), f.type, std::move(f.value)});
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
    if (out == nullptr || out_len == nullptr) {
        return kBadArgument;
    }
    std::vector<uint8_t> bytes;
    int32_t ret = kitcommon::kv_entries_encode(entries, count, &bytes);
    if (ret != 0) {
        return ret;
    }
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
    if (in == nullptr) {
        return kBadArgument;
    }
    return kitcommon::kv_entries_decode(in, readable_at(in), entries, count);
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
    g_reads.emplace(buf, it->second.size());
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

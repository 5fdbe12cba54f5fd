/// The two persisted records: the AES key with the md5 text that names it to the cloud
/// ("md5_encrypt_key") and the slice duration last offered by the cloud ("storage_restriction").
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr const char *FIELD_MD5_VALUE = "md5_value";
constexpr const char *FIELD_MD5_LEN = "md5_len";
constexpr const char *FIELD_KEY_VALUE = "encrypt_key_value";
constexpr const char *FIELD_KEY_LEN = "encrypt_key_len";
constexpr const char *FIELD_SLICE_DURATION = "slice_duration";
constexpr uint32_t KEY_BYTES = 16;
constexpr uint32_t MD5_TEXT_LEN = 32;

/// The store's "no such record" code is passed on; every other read failure becomes -18.
int32_t read_failure_code(int32_t code) {
    return code == CS_KV_NO_RECORD ? CS_KV_NO_RECORD : CS_KV_READ_FAILED;
}

vexo_kv_entry_t int_entry(const char *key, uint32_t *value) {
    return vexo_kv_entry_t{key, VEXO_KV_INT, value, sizeof(uint32_t)};
}

vexo_kv_entry_t bytes_entry(const char *key, const uint8_t *value, uint32_t len) {
    // The serialiser only reads through the pointer when writing.
    return vexo_kv_entry_t{key, VEXO_KV_BYTES, const_cast<uint8_t *>(value),
                           static_cast<uint16_t>(len)};
}

/// Reads a record and fills the given entries from it; the record data is released here.
/// Returns 0, the store's failure mapped by read_failure_code, or the deserialiser's code
/// (deserialise_failed tells the two apart for the caller's log line).
int32_t read_entries(const char *name, vexo_kv_entry_t *entries, uint32_t count,
                     bool *deserialise_failed) {
    *deserialise_failed = false;
    uint8_t *data = nullptr;
    uint32_t len = 0;
    int32_t ret = iot_wd_common_read(name, &data, &len);
    if (ret != 0) {
        CS_ERR("iot_wd_common_read fails %s %d", name, static_cast<int>(ret));
        return read_failure_code(ret);
    }
    ret = iot_wd_utils_deserialize(data, entries, count);
    iot_wd_common_free_data(data);
    if (ret != 0) {
        *deserialise_failed = true;
    }
    return ret;
}

} // namespace

void cloud_storage_key_md5_text(const uint8_t *key, char *out) {
    uni_md5_ctx_t md5;
    uint8_t digest[16];
    uni_md5_init(&md5);
    uni_md5_update(&md5, key, KEY_BYTES);
    uni_md5_final(&md5, digest);
    static constexpr char HEX_DIGITS[] = "0123456789abcdef";
    for (size_t i = 0; i < sizeof digest; ++i) {
        out[2 * i] = HEX_DIGITS[digest[i] >> 4];
        out[2 * i + 1] = HEX_DIGITS[digest[i] & 0x0f];
    }
    out[MD5_TEXT_LEN] = '\0';
}

int32_t __base_md5_key_read(const char *name, uint8_t **md5, uint32_t *md5_len, uint8_t **key,
                            uint32_t *key_len) {
    if (name == nullptr || md5 == nullptr || md5_len == nullptr || key == nullptr ||
        key_len == nullptr) {
        CS_ERR("input is null");
        return CS_BAD_ARG;
    }

    // Pass 1: the two lengths, so that the value buffers can be sized.
    vexo_kv_entry_t lengths[] = {int_entry(FIELD_MD5_LEN, md5_len),
                                 int_entry(FIELD_KEY_LEN, key_len)};
    bool deserialise_failed = false;
    int32_t ret = read_entries(name, lengths, 2, &deserialise_failed);
    if (ret != 0) {
        if (deserialise_failed) {
            CS_ERR("read len fails %d", static_cast<int>(ret));
        }
        return ret;
    }
    if (*md5_len == 0 || *key_len == 0) {
        CS_ERR("read len fails %s %d %d %d", name, static_cast<int>(*md5_len),
               static_cast<int>(*key_len), 0);
        return CS_FAIL;
    }

    auto *md5_buf = static_cast<uint8_t *>(Malloc(*md5_len));
    if (md5_buf == nullptr) {
        CS_ERR("malloc fails %d", static_cast<int>(*md5_len));
        return CS_NO_MEMORY;
    }
    auto *key_buf = static_cast<uint8_t *>(Malloc(*key_len));
    if (key_buf == nullptr) {
        CS_ERR("malloc fails %d", static_cast<int>(*key_len));
        Free(md5_buf);
        return CS_NO_MEMORY;
    }

    // Pass 2: the values themselves.
    vexo_kv_entry_t values[] = {bytes_entry(FIELD_MD5_VALUE, md5_buf, *md5_len),
                                bytes_entry(FIELD_KEY_VALUE, key_buf, *key_len)};
    ret = read_entries(name, values, 2, &deserialise_failed);
    if (ret != 0) {
        Free(md5_buf);
        Free(key_buf);
        if (deserialise_failed) {
            CS_ERR("read len fails %d", static_cast<int>(ret));
        }
        return ret;
    }

    CS_DBG("gw base read success");
    *md5 = md5_buf;
    *key = key_buf;
    return CS_OK;
}

int32_t __base_md5_key_write(const char *name, const uint8_t *md5, uint32_t md5_len,
                             const uint8_t *key, uint32_t key_len) {
    if (name == nullptr || md5 == nullptr || key == nullptr) {
        // The message names a bound that is not enforced: lengths are written as given.
        CS_ERR("input is null or the len is bigger than 48");
        return CS_BAD_ARG;
    }

    vexo_kv_entry_t entries[] = {
        bytes_entry(FIELD_MD5_VALUE, md5, md5_len),
        int_entry(FIELD_MD5_LEN, &md5_len),
        bytes_entry(FIELD_KEY_VALUE, key, key_len),
        int_entry(FIELD_KEY_LEN, &key_len),
    };
    uint8_t *data = nullptr;
    uint32_t len = 0;
    int32_t ret = iot_wd_utils_serialize(entries, 4, &data, &len);
    if (ret != 0) {
        return ret;
    }
    ret = iot_wd_common_write(name, data, len);
    Free(data);
    if (ret != 0) {
        CS_ERR("kvs_write fails %s %d", name, static_cast<int>(ret));
        return CS_KV_WRITE_FAILED;
    }
    CS_DBG("md5_key_value write success");
    return CS_OK;
}

int32_t __base_slice_duration_read(const char *name, uint32_t *value) {
    if (name == nullptr || value == nullptr) {
        CS_ERR("input is null");
        return CS_BAD_ARG;
    }
    vexo_kv_entry_t entry = int_entry(FIELD_SLICE_DURATION, value);
    bool deserialise_failed = false;
    int32_t ret = read_entries(name, &entry, 1, &deserialise_failed);
    if (ret != 0) {
        if (deserialise_failed) {
            CS_ERR("read slice_duration fails %d", static_cast<int>(ret));
        }
        return ret;
    }
    if (*value == 0) {
        CS_ERR("read slice_duration fails %s %d %d", name, 0, 0);
        return CS_FAIL;
    }
    return CS_OK;
}

void __base_slice_duration_write(const char *name, uint32_t value) {
    vexo_kv_entry_t entry = int_entry(FIELD_SLICE_DURATION, &value);
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (iot_wd_utils_serialize(&entry, 1, &data, &len) != 0) {
        CS_ERR("write slice_duration failed.");
        return;
    }
    int32_t ret = iot_wd_common_write(name, data, len);
    Free(data);
    if (ret != 0) {
        CS_ERR("kvs_write fails %s %d", name, static_cast<int>(ret));
        CS_ERR("write slice_duration failed.");
        return;
    }
    CS_DBG("slice_duration write success");
}

int32_t __update_encrypt_key(const uint8_t *key, char *md5_out) {
    if (key == nullptr) {
        return CS_BAD_ARG;
    }
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    // Made even without a hardware context: the kit ignores it then.
    vexo_hw_aes_update_key(&ctl.aes_handle, key);
    cloud_storage_key_md5_text(key, md5_out);
    int32_t ret = __base_md5_key_write(KV_KEY_RECORD, reinterpret_cast<const uint8_t *>(md5_out),
                                       MD5_TEXT_LEN, key, KEY_BYTES);
    if (ret != 0) {
        CS_ERR("write key_key file failed.\r\n");
        return CS_BAD_ARG;
    }
    CS_DBG("new encrypt key and md5 saved");
    return CS_OK;
}

int32_t __check_md5_encrypt_key() {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    uint8_t *md5 = nullptr;
    uint8_t *key = nullptr;
    uint32_t md5_len = 0;
    uint32_t key_len = 0;
    int32_t result = CS_OK;

    if (__base_md5_key_read(KV_KEY_RECORD, &md5, &md5_len, &key, &key_len) != 0) {
        CS_ERR("read key_key file failed.\r\n");
        result = CS_BAD_ARG;
    } else if (md5_len != MD5_TEXT_LEN || key_len != KEY_BYTES) {
        CS_ERR("len error md5_len %d, encrypt_key_len %d", static_cast<int>(md5_len),
               static_cast<int>(key_len));
        result = CS_FAIL;
    } else {
        char computed[MD5_TEXT_LEN + 1];
        cloud_storage_key_md5_text(key, computed);
        if (std::memcmp(computed, md5, md5_len) != 0) {
            CS_ERR("MD5 check failed!\r\n");
            result = CS_FAIL;
        } else {
            CS_DBG("encrypt key and md5 check pass");
            std::memcpy(ctl.encrypt_key_md5, computed, MD5_TEXT_LEN);
            std::memcpy(ctl.encrypt_key, key, KEY_BYTES);
        }
    }
    Free(md5);
    Free(key);

    if (result == CS_OK) {
        CS_DBG("use current encrypt key");
        ctl.key_update_needed = 0;
        return result;
    }
    // No valid key: announce "0000" so that the cloud hands out a new one.
    std::memcpy(ctl.encrypt_key_md5, "0000", 5);
    ctl.key_update_needed = 1;
    CS_DBG("__check_md5_encrypt_key fail, need update from server");
    return result;
}

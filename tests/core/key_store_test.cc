// The persisted key record and slice-duration record, driven through the internal functions.
// The record's values after a key update are checked end to end by the system tests.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "core_test_util.h"

namespace {

using core_test::dbg;
using core_test::err;

class CoreKeyStore : public KitTest {};

const std::vector<uint8_t> kKey = {0xa0, 0x01, 0x12, 0x23, 0x34, 0x45, 0x56, 0x67,
                                   0x78, 0x89, 0x9a, 0xab, 0xbc, 0xcd, 0xde, 0xef};

/// Reads the key record; expects the code and log, no buffers handed out and nothing left over.
void expect_key_read_fails(int32_t code, const char *log) {
    uint8_t *md5 = nullptr;
    uint8_t *key = nullptr;
    uint32_t md5_len = 0;
    uint32_t key_len = 0;
    EXPECT_EQ(__base_md5_key_read("md5_encrypt_key", &md5, &md5_len, &key, &key_len), code);
    EXPECT_EQ(err(log), 1u);
    EXPECT_TRUE(md5 == nullptr && key == nullptr);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_EQ(tk::kv_outstanding_reads(), 0u);
}

// The check made at init; the sequence entry it gives there is checked by the init tests.
TEST_F(CoreKeyStore, KeyCheckTakesTheStoredKeyOnlyWhenItsMd5Matches) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const std::string md5 = tk::md5_hex(kKey);
    EXPECT_EQ(__check_md5_encrypt_key(), -2); // no record
    EXPECT_EQ(err("read key_key file failed.\r\n"), 1u);
    tk::put_key_record(md5.substr(0, 31), 31, kKey, 16);
    EXPECT_EQ(__check_md5_encrypt_key(), -1);
    EXPECT_EQ(err("len error md5_len 31, encrypt_key_len 16"), 1u);
    std::string upper = md5;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    std::string last_differs = md5;
    last_differs.back() = last_differs.back() == '0' ? '1' : '0';
    for (const std::string &wrong : {upper, last_differs}) { // case and every character count
        tk::put_key_record(wrong, 32, kKey, 16);
        EXPECT_EQ(__check_md5_encrypt_key(), -1) << wrong;
    }
    EXPECT_EQ(err("MD5 check failed!\r\n"), 2u);
    EXPECT_EQ(dbg("__check_md5_encrypt_key fail, need update from server"), 4u);
    EXPECT_STREQ(ctl.encrypt_key_md5, "0000");
    EXPECT_EQ(ctl.key_update_needed, 1);

    tk::put_key_record(md5, 32, kKey, 16);
    EXPECT_EQ(__check_md5_encrypt_key(), 0);
    EXPECT_EQ(dbg("encrypt key and md5 check pass"), 1u);
    EXPECT_EQ(dbg("use current encrypt key"), 1u);
    EXPECT_STREQ(ctl.encrypt_key_md5, md5.c_str());
    EXPECT_EQ(std::vector<uint8_t>(ctl.encrypt_key, ctl.encrypt_key + 16), kKey);
    EXPECT_EQ(ctl.key_update_needed, 0);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
}

// A missing record (-6 passed on) is covered by the slice-duration read below.
TEST_F(CoreKeyStore, KeyReadFailuresReturnTheirCodeAndReleaseEveryBuffer) {
    tk::put_key_record(tk::md5_hex(kKey), 32, kKey, 16);
    tk::queue_result("iot_wd_common_read", -5); // any other store failure becomes -18
    expect_key_read_fails(-18, "iot_wd_common_read fails md5_encrypt_key -5");
    tk::fail_alloc_call(tk::Pool::malloc, 2); // the key buffer, after the md5 buffer
    expect_key_read_fails(-3, "malloc fails 16");
    tk::queue_result("iot_wd_utils_deserialize", 0); // pass 2, after both buffers
    tk::queue_result("iot_wd_utils_deserialize", -3);
    expect_key_read_fails(-3, "read len fails -3");
    tk::put_key_record(tk::md5_hex(kKey), 0, kKey, 16);
    expect_key_read_fails(-1, "read len fails md5_encrypt_key 0 16 0");
}

TEST_F(CoreKeyStore, UpdateEncryptKeyPersistsFourFieldsInOrderAndKeepsMd5OnWriteFailure) {
    char md5_text[33] = {};
    EXPECT_EQ(__update_encrypt_key(nullptr, md5_text), -2);
    EXPECT_TRUE(tk::logs().empty());
    ASSERT_EQ(__update_encrypt_key(kKey.data(), md5_text), 0);
    const std::string md5 = tk::md5_hex(kKey);
    EXPECT_EQ(std::string(md5_text), md5);
    EXPECT_EQ(dbg("new encrypt key and md5 saved"), 1u);
    const auto fields =
        tk::decode_record(tk::get_record("md5_encrypt_key").value_or(std::vector<uint8_t>{}));
    ASSERT_TRUE(fields.has_value());
    std::string layout;
    for (const tk::KvField &f : *fields) {
        layout += f.key + ":" + std::to_string(f.type) + " ";
    }
    EXPECT_EQ(layout, "md5_value:7 md5_len:4 encrypt_key_value:7 encrypt_key_len:4 ");

    std::memset(md5_text, 0, sizeof md5_text);
    tk::queue_result("iot_wd_common_write", -9);
    EXPECT_EQ(__update_encrypt_key(kKey.data(), md5_text), -2);
    EXPECT_EQ(std::string(md5_text), md5);
    EXPECT_EQ(err("kvs_write fails md5_encrypt_key -9"), 1u);
    EXPECT_EQ(err("write key_key file failed.\r\n"), 1u);
}

TEST_F(CoreKeyStore, KeyWriteTakesLengthsAsGivenAndPassesSerialiserFailureSilently) {
    const std::vector<uint8_t> md5(100, 'a');
    ASSERT_EQ(__base_md5_key_write("md5_encrypt_key", md5.data(), 100, kKey.data(), 16), 0);
    EXPECT_EQ(tk::record_field("md5_encrypt_key", "md5_value"), md5);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "md5_len"), 100);
    EXPECT_EQ(dbg("md5_key_value write success"), 1u);
    EXPECT_EQ(__base_md5_key_write(nullptr, md5.data(), 32, kKey.data(), 16), -2);
    EXPECT_EQ(err("input is null or the len is bigger than 48"), 1u);
    tk::queue_result("iot_wd_utils_serialize", -4);
    EXPECT_EQ(__base_md5_key_write("md5_encrypt_key", md5.data(), 32, kKey.data(), 16), -4);
    EXPECT_EQ(tk::logs().size(), 2u);
}

TEST_F(CoreKeyStore, SliceDurationReadRejectsOnlyZeroAndMissingRecords) {
    uint32_t value = 77;
    EXPECT_EQ(__base_slice_duration_read("storage_restriction", &value), -6);
    EXPECT_EQ(__base_slice_duration_read("storage_restriction", nullptr), -2);
    EXPECT_EQ(err("input is null"), 1u);
    tk::put_slice_record(0);
    EXPECT_EQ(__base_slice_duration_read("storage_restriction", &value), -1);
    EXPECT_EQ(err("read slice_duration fails storage_restriction 0 0"), 1u);
    tk::put_slice_record(1000);
    EXPECT_EQ(__base_slice_duration_read("storage_restriction", &value), 0);
    EXPECT_EQ(value, 1000u);
}

} // namespace

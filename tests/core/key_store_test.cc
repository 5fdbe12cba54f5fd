// The persisted key record and slice-duration record, driven through the internal functions.
#include <cstring>
#include <functional>

#include "core_test_util.h"

namespace {

using core_test::dbg;
using core_test::err;

class CoreKeyStore : public KitTest {};

const std::vector<uint8_t> kKey = {0xa0, 0x01, 0x12, 0x23, 0x34, 0x45, 0x56, 0x67,
                                   0x78, 0x89, 0x9a, 0xab, 0xbc, 0xcd, 0xde, 0xef};

void fail_second(const char *entry, int32_t code) {
    tk::queue_result(entry, 0);
    tk::queue_result(entry, code);
}

TEST_F(CoreKeyStore, KeyReadFailuresReturnTheirCodeAndReleaseEveryBuffer) {
    const std::string md5 = tk::md5_hex(kKey);
    struct Row {
        const char *name;
        std::function<void()> setup;
        int32_t code;
        const char *log;
        uint64_t mallocs;
    };
    const Row rows[] = {
        {"no record", [] { tk::erase_record("md5_encrypt_key"); }, -6,
         "iot_wd_common_read fails md5_encrypt_key -6", 0},
        {"store error", [] { tk::queue_result("iot_wd_common_read", -5); }, -18,
         "iot_wd_common_read fails md5_encrypt_key -5", 0},
        {"md5_len 0", [&] { tk::put_key_record(md5, 0, kKey, 16); }, -1,
         "read len fails md5_encrypt_key 0 16 0", 0},
        {"key allocation", [] { tk::fail_alloc_call(tk::Pool::malloc, 2); }, -3, "malloc fails 16",
         2},
        {"pass 2 read", [] { fail_second("iot_wd_common_read", -5); }, -18,
         "iot_wd_common_read fails md5_encrypt_key -5", 2},
        {"pass 2 deserialise", [] { fail_second("iot_wd_utils_deserialize", -3); }, -3,
         "read len fails -3", 2},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        tk::reset();
        tk::put_key_record(md5, 32, kKey, 16);
        r.setup();
        uint8_t *md5_out = nullptr;
        uint8_t *key_out = nullptr;
        uint32_t md5_len = 0;
        uint32_t key_len = 0;
        EXPECT_EQ(__base_md5_key_read("md5_encrypt_key", &md5_out, &md5_len, &key_out, &key_len),
                  r.code);
        EXPECT_EQ(err(r.log), 1u);
        EXPECT_TRUE(md5_out == nullptr && key_out == nullptr);
        EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).calls, r.mallocs);
        EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
        EXPECT_EQ(tk::kv_outstanding_reads(), 0u);
    }
}

TEST_F(CoreKeyStore, UpdateEncryptKeyPersistsFourFieldsInOrderAndKeepsMd5OnWriteFailure) {
    char md5_text[33] = {};
    EXPECT_EQ(__update_encrypt_key(nullptr, md5_text), -2);
    EXPECT_TRUE(tk::logs().empty());
    ASSERT_EQ(__update_encrypt_key(kKey.data(), md5_text), 0);
    const std::string md5 = tk::md5_hex(kKey);
    EXPECT_EQ(std::string(md5_text), md5);
    EXPECT_EQ(tk::calls("vexo_hw_aes_update_key"), 1u);
    EXPECT_EQ(dbg("new encrypt key and md5 saved"), 1u);
    const auto fields =
        tk::decode_record(tk::get_record("md5_encrypt_key").value_or(std::vector<uint8_t>{}));
    ASSERT_TRUE(fields.has_value());
    std::string layout;
    for (const tk::KvField &f : *fields) {
        layout += f.key + ":" + std::to_string(f.type) + " ";
    }
    EXPECT_EQ(layout, "md5_value:7 md5_len:4 encrypt_key_value:7 encrypt_key_len:4 ");
    EXPECT_EQ((*fields)[0].value, std::vector<uint8_t>(md5.begin(), md5.end()));
    EXPECT_EQ((*fields)[2].value, kKey);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "md5_len"), 32);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "encrypt_key_len"), 16);

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

// The host kit's key-value store on files and its record serialiser: round trips, key names,
// file permissions, leftovers of interrupted writes, damaged records and a failing device.
#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "kv_test_dir.h"
#include "vexo_thread.h"

namespace {

using kvtest::KvStoreTest;

std::vector<uint8_t> bytes_of(const std::string &text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

/// A record as the module writes its key record: bytes, an int and more bytes.
std::vector<uint8_t> sample_record() {
    uint8_t md5[32];
    std::memset(md5, 'm', sizeof(md5));
    int32_t md5_len = 32;
    uint8_t key[16];
    for (int i = 0; i < 16; ++i) {
        key[i] = static_cast<uint8_t>(i * 17);
    }
    vexo_kv_entry_t entries[] = {{"md5_value", VEXO_KV_BYTES, md5, 32},
                                 {"md5_len", VEXO_KV_INT, &md5_len, 4},
                                 {"encrypt_key_value", VEXO_KV_BYTES, key, 16}};
    uint8_t *out = nullptr;
    uint32_t out_len = 0;
    EXPECT_EQ(iot_wd_utils_serialize(entries, 3, &out, &out_len), 0);
    std::vector<uint8_t> record(out, out + out_len);
    Free(out);
    return record;
}

/// Deserialises the sample record's fields from what the store hands out for key; the
/// deserialiser's result. On failure the outputs must still hold their fill bytes.
int32_t deserialize_stored(const std::string &key) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(iot_wd_common_read(key.c_str(), &data, &len), 0);
    if (data == nullptr) {
        return -100;
    }
    uint8_t md5[32];
    int32_t md5_len = 0x5A5A5A5A;
    uint8_t key_bytes[16];
    std::memset(md5, 0xEE, sizeof(md5));
    std::memset(key_bytes, 0xEE, sizeof(key_bytes));
    vexo_kv_entry_t wanted[] = {{"md5_value", VEXO_KV_BYTES, md5, 32},
                                {"md5_len", VEXO_KV_INT, &md5_len, 4},
                                {"encrypt_key_value", VEXO_KV_BYTES, key_bytes, 16}};
    int32_t ret = iot_wd_utils_deserialize(data, wanted, 3);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    if (ret == 0) {
        EXPECT_EQ(md5_len, 32);
        EXPECT_EQ(md5[31], 'm');
        EXPECT_EQ(key_bytes[15], 15 * 17);
    } else {
        EXPECT_EQ(md5_len, 0x5A5A5A5A);
        EXPECT_EQ(md5[0], 0xEE);
        EXPECT_EQ(key_bytes[0], 0xEE);
    }
    return ret;
}

// ---- records on files ----------------------------------------------------------------------

TEST_F(KvStoreTest, WriteThenReadReturnsTheSameBytesReplaceOverwritesAndTheFileIsPrivate) {
    std::vector<uint8_t> got;
    EXPECT_EQ(read("storage_restriction", &got), -6);

    ASSERT_EQ(write("storage_restriction", bytes_of("first value, rather long")), 0);
    ASSERT_EQ(read("storage_restriction", &got), 0);
    EXPECT_EQ(got, bytes_of("first value, rather long"));

    ASSERT_EQ(write("storage_restriction", bytes_of("short")), 0);
    ASSERT_EQ(read("storage_restriction", &got), 0);
    EXPECT_EQ(got, bytes_of("short"));

    ASSERT_EQ(write("storage_restriction", {}), 0);
    ASSERT_EQ(read("storage_restriction", &got), 0);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(files(), std::vector<std::string>{"storage_restriction.rec"});
    struct stat st {};
    ASSERT_EQ(stat(hostkit::kv::record_path("storage_restriction").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "private to the owner";
}

TEST_F(KvStoreTest, KeysThatAreNotPlainFileNamesAreRefused) {
    const std::string longest(64, 'k');
    EXPECT_EQ(hostkit::kv::record_path(longest), kv_dir() + "/" + longest + ".rec");
    ASSERT_EQ(write(longest, bytes_of("ok")), 0);

    const std::vector<std::string> unsafe = {"",       std::string(65, 'k'), ".hidden",
                                             "..",     "../escape",          "a/b",
                                             "sp ace", "new\nline",          "star*"};
    for (const std::string &key : unsafe) {
        SCOPED_TRACE(key);
        EXPECT_EQ(hostkit::kv::record_path(key), "");
        EXPECT_EQ(write(key, bytes_of("x")), -1);
        std::vector<uint8_t> got;
        EXPECT_EQ(read(key, &got), -1);
    }
    EXPECT_EQ(files().size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(data_dir_ + "/escape.rec"));
}

TEST_F(KvStoreTest, NullArgumentsForeignBuffersAndUnreadableRecordsAreRefused) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(iot_wd_common_read(nullptr, &data, &len), -1);
    EXPECT_EQ(iot_wd_common_read("k", nullptr, &len), -1);
    EXPECT_EQ(iot_wd_common_read("k", &data, nullptr), -1);
    EXPECT_EQ(iot_wd_common_write(nullptr, data, 0), -1);
    EXPECT_EQ(iot_wd_common_write("k", nullptr, 4), -1);
    EXPECT_EQ(iot_wd_common_free_data(nullptr), 0);

    // A buffer the store did not hand out is left alone (no double free), and one it did
    // is released only once.
    uint8_t *foreign = static_cast<uint8_t *>(Malloc(8));
    ASSERT_NE(foreign, nullptr);
    EXPECT_EQ(iot_wd_common_free_data(foreign), -1);
    Free(foreign);
    ASSERT_EQ(write("k", bytes_of("value")), 0);
    ASSERT_EQ(iot_wd_common_read("k", &data, &len), 0);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    EXPECT_EQ(iot_wd_common_free_data(data), -1);

    // A directory where the record file should be: an error, but not "missing".
    ASSERT_TRUE(std::filesystem::create_directory(hostkit::kv::record_path("odd")));
    const int32_t ret = iot_wd_common_read("odd", &data, &len);
    EXPECT_LT(ret, 0);
    EXPECT_NE(ret, -6);
}

TEST_F(KvStoreTest, LeftoverTemporaryFilesAreIgnoredThenRemovedAtStart) {
    ASSERT_EQ(write("md5_encrypt_key", bytes_of("complete")), 0);
    const std::string record = hostkit::kv::record_path("md5_encrypt_key");
    const std::string leftover = record + ".tmp.4242.7";
    const uint8_t torn[] = {'t', 'o', 'r'};
    put_file(leftover, torn, sizeof(torn));
    // A record whose key merely looks like a temporary name is a record, not a leftover.
    ASSERT_EQ(write("x.rec.tmp.1.2", bytes_of("keep me")), 0);

    std::vector<uint8_t> got;
    ASSERT_EQ(read("md5_encrypt_key", &got), 0);
    EXPECT_EQ(got, bytes_of("complete"));

    hostkit::internal::kv_start(data_dir_);
    EXPECT_FALSE(std::filesystem::exists(leftover));
    ASSERT_EQ(read("md5_encrypt_key", &got), 0);
    EXPECT_EQ(got, bytes_of("complete"));
    ASSERT_EQ(read("x.rec.tmp.1.2", &got), 0);
    EXPECT_EQ(got, bytes_of("keep me"));
}

TEST_F(KvStoreTest, FailedWriteOnAFullDeviceKeepsTheOldRecordAndNoTemporaryFile) {
    ASSERT_EQ(write("md5_encrypt_key", bytes_of("old and intact")), 0);

    // A file-size limit makes write() fail with EFBIG past 1 KiB, even for root, the way a
    // full device makes it fail with ENOSPC: after a short write, then an error.
    struct rlimit saved {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit small = saved;
    small.rlim_cur = 1024;
    if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max < small.rlim_cur) {
        small.rlim_cur = saved.rlim_max;
    }
    void (*old_handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int32_t ret = write("md5_encrypt_key", std::vector<uint8_t>(4096, 0xAB));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    std::signal(SIGXFSZ, old_handler);

    EXPECT_LT(ret, 0);
    EXPECT_NE(ret, -6);
    std::vector<uint8_t> got;
    ASSERT_EQ(read("md5_encrypt_key", &got), 0);
    EXPECT_EQ(got, bytes_of("old and intact"));
    EXPECT_EQ(files(), std::vector<std::string>{"md5_encrypt_key.rec"});
}

TEST_F(KvStoreTest, ConcurrentWritersAndReadersSeeWholeRecords) {
    // Each writer stores its own value under one shared key; every read must be one whole value.
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> bad(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &bad] {
            const std::vector<uint8_t> mine(200, static_cast<uint8_t>('a' + t));
            for (int i = 0; i < 25; ++i) {
                bad[t] += iot_wd_common_write("shared", mine.data(), 200) != 0;
                uint8_t *data = nullptr;
                uint32_t len = 0;
                if (iot_wd_common_read("shared", &data, &len) != 0 || len != 200 ||
                    std::count(data, data + len, data[0]) != 200 || data[0] < 'a' ||
                    data[0] >= 'a' + kThreads) {
                    ++bad[t];
                }
                iot_wd_common_free_data(data);
            }
        });
    }
    for (std::thread &th : threads) {
        th.join();
    }
    EXPECT_EQ(bad, std::vector<int>(kThreads, 0));
    EXPECT_EQ(files(), std::vector<std::string>{"shared.rec"});
}

// ---- damaged records -----------------------------------------------------------------------

TEST_F(KvStoreTest, RecordTruncatedOrWithAnyByteChangedFailsToDeserializeTrailingBytesDoNot) {
    const std::vector<uint8_t> record = sample_record();
    const std::string path = hostkit::kv::record_path("md5_encrypt_key");
    for (size_t i = 0; i < record.size(); ++i) {
        SCOPED_TRACE(i);
        put_file(path, record.data(), i);
        EXPECT_EQ(deserialize_stored("md5_encrypt_key"), -2) << "cut to " << i << " bytes";
        for (uint8_t flip : {uint8_t{0x01}, uint8_t{0x80}, uint8_t{0xFF}}) {
            std::vector<uint8_t> damaged = record;
            damaged[i] ^= flip;
            put_file(path, damaged.data(), damaged.size());
            EXPECT_EQ(deserialize_stored("md5_encrypt_key"), -2) << "byte ^ " << int{flip};
        }
    }
    // The record delimits itself: bytes after it (a longer buffer) are not part of it.
    std::vector<uint8_t> longer = record;
    longer.insert(longer.end(), {1, 2, 3});
    ASSERT_EQ(write("md5_encrypt_key", longer), 0);
    EXPECT_EQ(deserialize_stored("md5_encrypt_key"), 0);
}

// ---- serialiser ------------------------------------------------------------------------------

TEST(KvSerializer, FieldsComeBackByNameWithTypeChecksAndLengthLimits) {
    int32_t slice = 12;
    uint8_t blob[5] = {9, 8, 7, 6, 5};
    vexo_kv_entry_t entries[] = {{"slice_duration", VEXO_KV_INT, &slice, 4},
                                 {"blob", VEXO_KV_BYTES, blob, 5},
                                 {"empty", VEXO_KV_BYTES, nullptr, 0}};
    uint8_t *out = nullptr;
    uint32_t out_len = 0;
    ASSERT_EQ(iot_wd_utils_serialize(entries, 3, &out, &out_len), 0);
    ASSERT_NE(out, nullptr);

    // Asked in another order, with a shorter room for the blob.
    int32_t got_slice = 0;
    uint8_t got_blob[3] = {};
    uint8_t untouched = 0x77;
    vexo_kv_entry_t wanted[] = {{"blob", VEXO_KV_BYTES, got_blob, 3},
                                {"slice_duration", VEXO_KV_INT, &got_slice, 4},
                                {"empty", VEXO_KV_BYTES, &untouched, 1}};
    ASSERT_EQ(iot_wd_utils_deserialize(out, wanted, 3), 0);
    EXPECT_EQ(got_slice, 12);
    EXPECT_EQ(got_blob[2], 7);
    EXPECT_EQ(untouched, 0x77);

    vexo_kv_entry_t missing[] = {{"slice", VEXO_KV_INT, &got_slice, 4}};
    EXPECT_EQ(iot_wd_utils_deserialize(out, missing, 1), -3);
    vexo_kv_entry_t wrong_type[] = {{"slice_duration", VEXO_KV_BYTES, &got_slice, 4}};
    EXPECT_EQ(iot_wd_utils_deserialize(out, wrong_type, 1), -4);
    vexo_kv_entry_t null_key[] = {{nullptr, VEXO_KV_INT, &got_slice, 4}};
    EXPECT_EQ(iot_wd_utils_deserialize(out, null_key, 1), -1);
    EXPECT_EQ(iot_wd_utils_deserialize(nullptr, wanted, 1), -1);
    Free(out);

    const std::string huge_key(70000, 'k');
    vexo_kv_entry_t too_long[] = {{huge_key.c_str(), VEXO_KV_INT, &slice, 4}};
    EXPECT_EQ(iot_wd_utils_serialize(too_long, 1, &out, &out_len), -1);
    vexo_kv_entry_t null_value[] = {{"v", VEXO_KV_BYTES, nullptr, 3}};
    EXPECT_EQ(iot_wd_utils_serialize(null_value, 1, &out, &out_len), -1);
    EXPECT_EQ(iot_wd_utils_serialize(entries, 1, nullptr, &out_len), -1);
}

} // namespace

// A fresh data directory for the host kit's key-value store, removed after the test.
#ifndef VEXO_TESTS_HOST_KV_TEST_DIR_H
#define VEXO_TESTS_HOST_KV_TEST_DIR_H

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <system_error>
#include <vector>

#include "host_internal.h"
#include "tests/support/temp_dir.h"
#include "vexo_kv.h"

namespace kvtest {

class KvStoreTest : public ::testing::Test {
  protected:
    void SetUp() override { hostkit::internal::kv_start(data_dir_); }

    std::string kv_dir() const { return data_dir_ + "/kv"; }

    /// Names of the files in the store's directory.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(kv_dir())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    /// Reads a record through the store into *bytes (released at once); the read's result.
    int32_t read(const std::string &key, std::vector<uint8_t> *bytes) {
        uint8_t *data = nullptr;
        uint32_t len = 0;
        int32_t ret = iot_wd_common_read(key.c_str(), &data, &len);
        if (ret == 0) {
            bytes->assign(data, data + len);
            EXPECT_EQ(iot_wd_common_free_data(data), 0);
        }
        return ret;
    }

    int32_t write(const std::string &key, const std::vector<uint8_t> &bytes) {
        return iot_wd_common_write(key.c_str(), bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    /// Replaces a file's content behind the store's back (damage, leftovers).
    static void put_file(const std::string &path, const uint8_t *data, size_t len) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(len));
        ASSERT_TRUE(out.good()) << path;
    }

    vexo_test::TempDir tmp_{"vexo-kv"};
    std::string data_dir_ = tmp_.path();
};

} // namespace kvtest

#endif

// Every file-system call of a key-value write fails in turn, with a full device and with an
// I/O error: the write reports the failure, no temporary file is left beside the records, and
// the store opened again from disk holds the old record or the new one, whole, with every
// other record as it was.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host_internal.h"
#include "kit_faulty_fs.h"
#include "tests/support/temp_dir.h"
#include "vexo_kv.h"

namespace {

using Bytes = std::vector<uint8_t>;

int32_t kv_write(const std::string &key, const Bytes &value) {
    return iot_wd_common_write(key.c_str(), value.data(), static_cast<uint32_t>(value.size()));
}

/// The record's bytes; empty with *found false when there is none.
Bytes kv_read(const std::string &key, bool *found) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    const int32_t ret = iot_wd_common_read(key.c_str(), &data, &len);
    *found = ret == 0;
    Bytes bytes;
    if (ret == 0) {
        bytes.assign(data, data + len);
        EXPECT_EQ(iot_wd_common_free_data(data), 0);
    }
    return bytes;
}

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

const Bytes kOld(300, 'o');
const Bytes kNew(5000, 'n');
const Bytes kOther(40, 'x');

class KvFaults : public ::testing::Test {
  protected:
    // The store must not keep a file system that goes away with a test.
    void TearDown() override { hostkit::internal::kv_start(spare_.path()); }

    /// A fresh store on fs with "other" (and "rec" when overwrite) acknowledged.
    void prepare(const vexo_test::TempDir &dir, iofault::KitFaultyFs *fs, bool overwrite) {
        hostkit::internal::kv_start(dir.path(), fs);
        ASSERT_EQ(kv_write("other", kOther), 0);
        if (overwrite) {
            ASSERT_EQ(kv_write("rec", kOld), 0);
        }
    }

    vexo_test::TempDir spare_{"vexo-kv-spare"};
};

TEST_F(KvFaults, EveryFailedStepLeavesTheOldOrTheNewRecordWhole) {
    for (const bool overwrite : {true, false}) {
        SCOPED_TRACE(overwrite ? "overwriting a record" : "a new record");
        size_t first = 0;
        std::vector<std::string> steps;
        {
            vexo_test::TempDir dir("vexo-kv-faults");
            iofault::KitFaultyFs fs;
            ASSERT_NO_FATAL_FAILURE(prepare(dir, &fs, overwrite));
            first = fs.calls().size();
            ASSERT_EQ(kv_write("rec", kNew), 0);
            steps.assign(fs.calls().begin() + static_cast<std::ptrdiff_t>(first), fs.calls().end());
        }
        // Create, write, sync, close, rename, sync the directory: each must be checked.
        ASSERT_EQ(steps, (std::vector<std::string>{"open", "write", "fsync", "close", "rename",
                                                   "sync_dir"}));
        for (size_t step = 0; step < steps.size(); ++step) {
            for (const int error : iofault::kSweepErrors) {
                SCOPED_TRACE(steps[step] + " fails with " + std::strerror(error));
                vexo_test::TempDir dir("vexo-kv-faults");
                iofault::KitFaultyFs fs;
                ASSERT_NO_FATAL_FAILURE(prepare(dir, &fs, overwrite));
                fs.fail_call(first + step, error);
                EXPECT_NE(kv_write("rec", kNew), 0);
                EXPECT_TRUE(fs.fault_hit());
                const std::string kv = dir.path() + "/kv";
                const std::vector<std::string> before = names_in(kv);
                for (const std::string &name : before) {
                    EXPECT_TRUE(name == "other.rec" || name == "rec.rec") << name << " left behind";
                }

                hostkit::internal::kv_start(dir.path()); // opened again from disk
                bool found = false;
                const Bytes rec = kv_read("rec", &found);
                if (overwrite) {
                    ASSERT_TRUE(found);
                    EXPECT_TRUE(rec == kOld || rec == kNew) << rec.size() << " bytes";
                } else {
                    EXPECT_TRUE(!found || rec == kNew) << rec.size() << " bytes";
                }
                EXPECT_EQ(kv_read("other", &found), kOther);
                EXPECT_TRUE(found);
                // The store goes on working once the disk does.
                ASSERT_EQ(kv_write("rec", kNew), 0);
                EXPECT_EQ(kv_read("rec", &found), kNew);
            }
        }
    }
}

} // namespace

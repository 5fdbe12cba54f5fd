// A power cut after any file-system call of a run of key-value writes: the store opened on
// the directory as the cut left it holds every acknowledged record, or the one write under
// way at the cut, whole; never a torn record, an older value or a temporary file.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "durable_file.h"
#include "host_internal.h"
#include "power_cut_fs.h"
#include "tests/support/temp_dir.h"
#include "vexo_kv.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Write {
    std::string key;
    Bytes value;
    size_t begin = 0; ///< calls journaled before it
    size_t end = 0;   ///< calls journaled once it returned
};

/// The record's bytes, or nullopt when there is none.
std::optional<Bytes> kv_read(const std::string &key) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (iot_wd_common_read(key.c_str(), &data, &len) != 0) {
        return std::nullopt;
    }
    Bytes bytes(data, data + len);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    return bytes;
}

TEST(KvPowerCut, EveryAcknowledgedWriteSurvivesACutAfterAnyCall) {
    vexo_test::TempDir tmp("vexo-kv-cut");
    hostkit::internal::kv_start(tmp.path()); // makes the empty kv directory
    iofault::PowerCutFs fs(tmp.path() + "/kv");
    hostkit::internal::kv_start(tmp.path(), &fs);
    // Lengths and fill differ from write to write, so no torn or mixed record passes.
    std::vector<Write> writes;
    const char *keys[] = {"a", "b", "a", "c", "b", "a"};
    for (size_t i = 0; i < std::size(keys); ++i) {
        Write w{keys[i], Bytes(100 + 1500 * i, static_cast<uint8_t>('0' + i))};
        w.begin = fs.calls();
        ASSERT_EQ(iot_wd_common_write(w.key.c_str(), w.value.data(),
                                      static_cast<uint32_t>(w.value.size())),
                  0);
        w.end = fs.calls();
        writes.push_back(w);
    }
    hostkit::internal::kv_start(tmp.path()); // the store lets go of the journal

    for (size_t cut = 0; cut <= fs.calls(); ++cut) {
        for (const iofault::CutModel &model : iofault::kCutModels) {
            SCOPED_TRACE("cut after " + std::to_string(cut) + " calls, " + model.label);
            vexo_test::TempDir image("vexo-kv-image");
            std::filesystem::create_directory(image.path() + "/kv");
            fs.rebuild(cut, model, image.path() + "/kv");
            hostkit::internal::kv_start(image.path());
            for (const char *key : {"a", "b", "c"}) {
                std::optional<Bytes> acknowledged;
                std::optional<Bytes> under_way;
                for (const Write &w : writes) {
                    if (w.key == key && w.end <= cut) {
                        acknowledged = w.value;
                    } else if (w.key == key && w.begin < cut) {
                        under_way = w.value;
                    }
                }
                const std::optional<Bytes> got = kv_read(key);
                EXPECT_TRUE(got == acknowledged || (under_way && got == under_way))
                    << key << ": " << (got ? std::to_string(got->size()) + " bytes" : "none");
            }
            for (const auto &entry : std::filesystem::directory_iterator(image.path() + "/kv")) {
                const std::string name = entry.path().filename().string();
                EXPECT_EQ(name.find(hostkit::kTempInfix), std::string::npos) << name << " left";
            }
        }
    }
    hostkit::internal::kv_start(tmp.path());
}

} // namespace

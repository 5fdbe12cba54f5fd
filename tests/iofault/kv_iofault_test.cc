// The key-value store under file-system faults and power cuts: a write whose step fails says
// so and leaves the old record or the new one, whole, beside every other record; after a cut
// at any call each acknowledged record is there, or the one being written, never torn.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "durable_file.h"
#include "host_internal.h"
#include "kit_faulty_fs.h"
#include "power_cut_fs.h"
#include "vexo_kv.h"

namespace {

bool kv_write(const std::string &key, const std::string &value) {
    return iot_wd_common_write(key.c_str(), reinterpret_cast<const uint8_t *>(value.data()),
                               static_cast<uint32_t>(value.size())) == 0;
}

std::optional<std::string> kv_read(const std::string &key) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (iot_wd_common_read(key.c_str(), &data, &len) != 0) {
        return std::nullopt;
    }
    std::string bytes(reinterpret_cast<const char *>(data), len);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    return bytes;
}

const std::string kOld(300, 'o');
const std::string kNew(5000, 'n');
const std::string kOther(40, 'x');

iofault::SweepCase<iofault::KitFaultyFs> write_case(bool overwrite) {
    return {overwrite ? "overwriting a record" : "a new record",
            {"open", "write", "fsync", "close", "rename", "sync_dir"},
            6,
            [overwrite](const std::string &dir, iofault::KitFaultyFs &fs) {
                hostkit::internal::kv_start(dir, &fs);
                EXPECT_TRUE(kv_write("other", kOther) && (!overwrite || kv_write("rec", kOld)));
                fs.plan.begin();
                const bool ok = kv_write("rec", kNew);
                hostkit::internal::kv_start(dir); // lets go of fs
                return ok;
            },
            [overwrite](const std::string &dir, bool ok) {
                for (const auto &entry : std::filesystem::directory_iterator(dir + "/kv")) {
                    const std::string name = entry.path().filename().string();
                    EXPECT_TRUE(name == "other.rec" || name == "rec.rec") << name << " left";
                }
                hostkit::internal::kv_start(dir);
                const std::optional<std::string> rec = kv_read("rec");
                const std::optional<std::string> old =
                    overwrite ? kOld : std::optional<std::string>();
                EXPECT_TRUE(rec == kNew || (!ok && rec == old))
                    << rec.value_or("").size() << " bytes";
                EXPECT_EQ(kv_read("other"), kOther);
                EXPECT_TRUE(kv_write("rec", kNew) && kv_read("rec") == kNew); // goes on working
            }};
}

TEST(KvIoFaults, EveryFailedStepOfAWriteLeavesTheOldOrTheNewRecordWhole) {
    iofault::sweep(write_case(true));
    iofault::sweep(write_case(false));
}

TEST(KvIoFaults, EveryAcknowledgedWriteSurvivesAPowerCutAfterAnyCall) {
    iofault::cut_sweep(
        {"kv",
         [](const std::string &root, iofault::PowerCutFs &fs, iofault::CutScript &script) {
             hostkit::internal::kv_start(root, &fs);
             // Lengths and fill differ from write to write, so no torn or mixed record passes.
             const char *keys[] = {"a", "b", "a", "c", "b", "a"};
             for (size_t i = 0; i < std::size(keys); ++i) {
                 const std::string value(100 + 1500 * i, static_cast<char>('0' + i));
                 script.begin();
                 ASSERT_TRUE(kv_write(keys[i], value));
                 script.done({{keys[i], value}});
             }
             hostkit::internal::kv_start(root);
         },
         [](const std::string &root) {
             hostkit::internal::kv_start(root);
             std::map<std::string, std::string> held;
             for (const char *key : {"a", "b", "c"}) {
                 if (std::optional<std::string> value = kv_read(key)) {
                     held[key] = *value;
                 }
             }
             return held;
         }});
}

} // namespace

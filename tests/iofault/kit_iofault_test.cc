// The kit's key-value store and outage spool under file-system faults and power cuts: a write
// or append whose step fails says so; the store opened again from disk holds every
// acknowledged record or item whole (a removed item perhaps again), the one under way whole
// or not at all, and a recording the spool's bounds drop goes only with its gap report.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "durable_file.h"
#include "fault_sweep.h"
#include "host_internal.h"
#include "power_cut_fs.h"
#include "spool.h"
#include "vexo_kv.h"

namespace {

using hostkit::spool::Spool;
using KitFs = iofault::Faulty<hostkit::FileSystem, hostkit::real_file_system>;
using Value = std::optional<std::string>;

bool kv_write(const std::string &key, const std::string &value) {
    return iot_wd_common_write(key.c_str(), reinterpret_cast<const uint8_t *>(value.data()),
                               static_cast<uint32_t>(value.size())) == 0;
}

Value kv_read(const std::string &key) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (iot_wd_common_read(key.c_str(), &data, &len) != 0) {
        return std::nullopt;
    }
    const std::string bytes(reinterpret_cast<const char *>(data), len);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    return bytes;
}

const std::vector<std::string> kWrite = {"open", "write", "fsync", "close", "rename", "sync_dir"};

TEST(KitIoFaults, EveryFailedStepOfAKvWriteLeavesTheOldOrTheNewRecordWhole) {
    const std::string other(40, 'x');
    const std::string fresh(5000, 'n');
    for (const Value &old : {Value(std::string(300, 'o')), Value()}) {
        iofault::sweep(iofault::SweepCase<KitFs>{
            old ? "overwriting a record" : "a new record", kWrite, 6,
            [&](const std::string &dir, KitFs &fs) {
                hostkit::internal::kv_start(dir, &fs);
                EXPECT_TRUE(kv_write("other", other) && (!old || kv_write("rec", *old)));
                fs.begin();
                const bool ok = kv_write("rec", fresh);
                hostkit::internal::kv_start(dir); // lets go of fs
                return ok;
            },
            [&](const std::string &dir, bool ok) {
                for (const auto &entry : std::filesystem::directory_iterator(dir + "/kv")) {
                    const std::string name = entry.path().filename();
                    EXPECT_TRUE(name == "other.rec" || name == "rec.rec") << name << " left";
                }
                hostkit::internal::kv_start(dir);
                const Value rec = kv_read("rec");
                EXPECT_TRUE(rec == fresh || (!ok && rec == old)) << rec.value_or("").size();
                EXPECT_EQ(kv_read("other"), other);
                EXPECT_TRUE(kv_write("rec", fresh) && kv_read("rec") == fresh); // goes on
            }});
    }
}

TEST(KitIoFaults, EveryAcknowledgedKvWriteSurvivesAPowerCutAfterAnyCall) {
    iofault::cut_sweep(
        {"kv",
         [](const std::string &root, iofault::PowerCutFs &fs, iofault::CutScript &script) {
             hostkit::internal::kv_start(root, &fs);
             // Lengths and fill differ from write to write, so no torn or mixed record passes.
             const char *keys[] = {"a", "b", "a", "c", "b", "a"};
             for (size_t i = 0; i < std::size(keys); ++i) {
                 const std::string value(100 + 1500 * i, static_cast<char>('0' + i));
                 const size_t begin = fs.calls();
                 ASSERT_TRUE(kv_write(keys[i], value));
                 script.ops.push_back({{{keys[i], value}}, false, false, begin, fs.calls()});
             }
             hostkit::internal::kv_start(root);
         },
         [](const std::string &root) {
             hostkit::internal::kv_start(root);
             std::map<std::string, std::string> held;
             for (const char *key : {"a", "b", "c"}) {
                 if (const Value value = kv_read(key)) {
                     held[key] = *value;
                 }
             }
             return held;
         }});
}

/// Paths in the order the spool's tests append them; "/gap" is the spool's report.
const std::vector<std::string> kOrder = {"/0", "/1", "/a",   "/b",   "/s",
                                         "/m", "/t", "/big", "/gap", "/c"};

std::string body_for(const std::string &path) {
    return std::string(path.size() * 1000, path.back());
}

std::unique_ptr<Spool> open_spool(const std::string &dir, hostkit::FileSystem *fs) {
    hostkit::spool::Config config;
    config.dir = dir;
    config.max_bytes = 9000; // "/s", "/m", "/t" and "/big" do not fit
    config.fs = fs;
    config.gap_request = [](const hostkit::spool::Gap &) {
        return hostkit::CloudRequest{"POST", "/gap", "", {}, body_for("/gap")};
    };
    std::string error;
    std::unique_ptr<Spool> spool = Spool::open(config, &error);
    EXPECT_NE(spool, nullptr) << error;
    return spool;
}

/// Recording 100 is "/s" (start), "/m" (media), "/t" (stop); every other item stands alone.
bool append(Spool &spool, const std::string &path) {
    using hostkit::spool::Kind;
    hostkit::spool::ItemInfo info;
    info.kind = path == "/s" ? Kind::kStart : path == "/t" ? Kind::kStop : Kind::kMedia;
    info.recording = path == "/s" || path == "/m" || path == "/t" ? 100 : 0;
    return spool.append(info, hostkit::CloudRequest{"PUT", path, "", {}, body_for(path)}, 1);
}

/// Delivers the oldest item: its path.
std::string deliver(Spool &spool) {
    std::optional<hostkit::spool::Item> item = spool.take_oldest();
    if (item) {
        spool.remove(item->info.seq, true);
    }
    return item ? item->request.path : "";
}

/// Checks every item on disk is whole, then opens the spool and delivers everything, checking
/// each body: the paths, in order.
std::vector<std::string> drain(const std::string &dir) {
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::optional<uint64_t> seq = hostkit::spool::seq_of(entry.path().filename());
        const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        std::string why = "not an item";
        EXPECT_TRUE(entry.path().string().find(hostkit::kTempInfix) != std::string::npos ||
                    (seq && hostkit::spool::load(fd, entry.file_size(), *seq, true, &why)))
            << entry.path() << ": " << why;
        ::close(fd);
    }
    std::vector<std::string> paths;
    std::unique_ptr<Spool> spool = open_spool(dir, nullptr);
    while (std::optional<hostkit::spool::Item> item = spool->take_oldest()) {
        EXPECT_EQ(item->request.body, body_for(item->request.path)) << item->request.path;
        paths.push_back(item->request.path);
        spool->remove(item->info.seq, true);
    }
    EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end(), [](const auto &x, const auto &y) {
        return std::find(kOrder.begin(), kOrder.end(), x) <
               std::find(kOrder.begin(), kOrder.end(), y);
    }));
    return paths;
}

/// Appends `before`, then runs the operation: the spool then holds one of `allowed`, the last
/// when the operation reported success (a removal's is not reported).
iofault::SweepCase<KitFs> spool_case(const char *name, std::vector<std::string> steps,
                                     size_t reported, std::vector<std::string> before,
                                     std::function<bool(Spool &)> operation,
                                     std::vector<std::vector<std::string>> allowed) {
    return {name, std::move(steps), reported,
            [before, operation](const std::string &dir, KitFs &fs) {
                std::unique_ptr<Spool> spool = open_spool(dir + "/spool", &fs);
                for (const std::string &path : before) {
                    EXPECT_TRUE(append(*spool, path));
                }
                fs.begin();
                return operation(*spool);
            },
            [allowed, reported](const std::string &dir, bool ok) {
                const std::vector<std::string> paths = drain(dir + "/spool");
                EXPECT_NE(std::find(allowed.begin(), allowed.end(), paths), allowed.end());
                EXPECT_TRUE(!ok || reported == 0 || paths == allowed.back()) << paths.size();
                std::unique_ptr<Spool> spool = open_spool(dir + "/spool", nullptr);
                EXPECT_TRUE(append(*spool, "/c") && deliver(*spool) == "/c"); // goes on
            }};
}

TEST(KitIoFaults, EveryFailedStepOfTheSpoolLosesNoAcknowledgedItemAndLeavesNothingTorn) {
    iofault::sweep(spool_case("append", kWrite, 6, {"/a"},
                              [](Spool &spool) { return append(spool, "/b"); },
                              {{"/a"}, {"/a", "/b"}}));
    iofault::sweep(spool_case("removal of a delivered item", {"unlink", "sync_dir"}, 0,
                              {"/a", "/b"}, [](Spool &spool) { return deliver(spool) == "/a"; },
                              {{"/a", "/b"}, {"/b"}}));
    // The item, the gap report, then each of the recording's items removed.
    std::vector<std::string> drop = kWrite;
    drop.insert(drop.end(), kWrite.begin(), kWrite.end());
    for (int i = 0; i < 3; ++i) {
        drop.insert(drop.end(), {"unlink", "sync_dir"});
    }
    iofault::sweep(spool_case("append that drops a recording", drop, 6, {"/s", "/m", "/t"},
                              [](Spool &spool) { return append(spool, "/big"); },
                              {{"/s", "/m", "/t"}, {"/big", "/gap"}}));
}

TEST(KitIoFaults, EveryAcknowledgedSpoolItemSurvivesAPowerCutAfterAnyCall) {
    iofault::cut_sweep(
        {"spool",
         [](const std::string &root, iofault::PowerCutFs &fs, iofault::CutScript &script) {
             std::unique_ptr<Spool> spool = open_spool(root + "/spool", &fs);
             for (const std::string path :
                  {"/0", "/1", "", "/s", "/m", "/t", "", "/big", "", "/c"}) {
                 const size_t begin = fs.calls();
                 if (path.empty()) { // a removal lost in a cut only sends the item again
                     const std::string gone = deliver(*spool);
                     script.ops.push_back({{{gone, std::nullopt}}, false, true, begin, fs.calls()});
                     continue;
                 }
                 ASSERT_TRUE(append(*spool, path));
                 script.ops.push_back({{{path, body_for(path)}}, false, false, begin, fs.calls()});
                 if (path == "/big") { // the recording goes with its report, or stays
                     script.ops.push_back({{{"/gap", body_for("/gap")},
                                            {"/s", std::nullopt},
                                            {"/m", std::nullopt},
                                            {"/t", std::nullopt}},
                                           true,
                                           false,
                                           begin,
                                           fs.calls()});
                 }
             }
         },
         [](const std::string &root) {
             std::map<std::string, std::string> held;
             for (const std::string &path : drain(root + "/spool")) {
                 EXPECT_TRUE(held.emplace(path, body_for(path)).second) << path << " twice";
             }
             return held;
         }});
}

} // namespace

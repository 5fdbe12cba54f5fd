// The outage spool under file-system faults and power cuts: an append whose step fails says
// so; what the spool holds afterwards, opened again from disk, is every acknowledged item not
// yet removed, whole and in order (a removed one perhaps again); and footage the bounds drop
// is gone only once its gap report is queued.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "durable_file.h"
#include "kit_faulty_fs.h"
#include "power_cut_fs.h"
#include "spool.h"

namespace {

using hostkit::spool::Kind;
using hostkit::spool::Spool;

/// Paths in the order a test appends them; "/gap" is the spool's report.
const std::vector<std::string> kOrder = {"/0", "/1", "/a",   "/b",   "/s",
                                         "/m", "/t", "/big", "/gap", "/c"};

std::string body_for(const std::string &path) {
    return std::string(path.size() * 1000, path.back());
}

std::unique_ptr<Spool> open_spool(const std::string &dir, hostkit::FileSystem *fs) {
    hostkit::spool::Config config;
    config.dir = dir;
    config.fs = fs;
    config.max_bytes = 9000; // "/s", "/m", "/t" and "/big" do not fit
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
    hostkit::spool::ItemInfo info;
    info.kind = path == "/s" ? Kind::kStart : path == "/t" ? Kind::kStop : Kind::kMedia;
    info.recording = path == "/s" || path == "/m" || path == "/t" ? 100 : 0;
    return spool.append(info, hostkit::CloudRequest{"PUT", path, "", {}, body_for(path)}, 1);
}

/// Delivers the oldest item: its path.
std::string deliver(Spool &spool) {
    std::optional<hostkit::spool::Item> item = spool.take_oldest();
    if (!item) {
        return "";
    }
    spool.remove(item->info.seq, true);
    return item->request.path;
}

/// Every item on disk whole, then the spool opened and delivered: each path's body, in order.
std::vector<std::pair<std::string, std::string>> drain(const std::string &dir) {
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::optional<uint64_t> seq = hostkit::spool::seq_of(entry.path().filename());
        const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        std::string why = "not an item";
        EXPECT_TRUE(entry.path().string().find(hostkit::kTempInfix) != std::string::npos ||
                    (seq && hostkit::spool::load(fd, entry.file_size(), *seq, true, &why)))
            << entry.path() << ": " << why;
        ::close(fd);
    }
    std::vector<std::pair<std::string, std::string>> items;
    std::unique_ptr<Spool> spool = open_spool(dir, nullptr);
    while (std::optional<hostkit::spool::Item> item = spool ? spool->take_oldest() : std::nullopt) {
        items.emplace_back(item->request.path, item->request.body);
        spool->remove(item->info.seq, true);
    }
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end(), [](const auto &x, const auto &y) {
        return std::find(kOrder.begin(), kOrder.end(), x.first) <
               std::find(kOrder.begin(), kOrder.end(), y.first);
    }));
    return items;
}

/// Appends `before`, then runs the operation; the spool then holds one of `allowed`.
iofault::SweepCase<iofault::KitFaultyFs> spool_case(const char *name,
                                                    std::vector<std::string> steps, size_t reported,
                                                    std::vector<std::string> before,
                                                    std::function<bool(Spool &)> operation,
                                                    std::vector<std::vector<std::string>> allowed) {
    return {name, std::move(steps), reported,
            [before, operation](const std::string &dir, iofault::KitFaultyFs &fs) {
                std::unique_ptr<Spool> spool = open_spool(dir + "/spool", &fs);
                for (const std::string &path : before) {
                    EXPECT_TRUE(append(*spool, path));
                }
                fs.plan.begin();
                return operation(*spool);
            },
            [allowed, reported](const std::string &dir, bool ok) {
                std::vector<std::string> paths;
                for (const auto &[path, body] : drain(dir + "/spool")) {
                    EXPECT_EQ(body, body_for(path)) << path;
                    paths.push_back(path);
                }
                // What reported success is there, unless the operation swallows failures.
                EXPECT_NE(std::find(allowed.begin(), allowed.end(), paths), allowed.end());
                EXPECT_TRUE(!ok || reported == 0 || paths == allowed.back()) << paths.size();
                std::unique_ptr<Spool> spool = open_spool(dir + "/spool", nullptr);
                EXPECT_TRUE(append(*spool, "/c")); // goes on working
                EXPECT_EQ(deliver(*spool), "/c");
            }};
}

const std::vector<std::string> kWrite = {"open", "write", "fsync", "close", "rename", "sync_dir"};

TEST(SpoolIoFaults, EveryFailedStepLosesNoAcknowledgedItemAndLeavesNothingTorn) {
    iofault::sweep(spool_case("append", kWrite, 6, {"/a"},
                              [](Spool &spool) { return append(spool, "/b"); },
                              {{"/a"}, {"/a", "/b"}}));
    // A removal lost only sends the item again.
    iofault::sweep(spool_case("removal of a delivered item", {"unlink", "sync_dir"}, 0,
                              {"/a", "/b"}, [](Spool &spool) { return deliver(spool) == "/a"; },
                              {{"/b"}, {"/a", "/b"}}));
    // The item, the gap report, then each of the recording's items removed.
    std::vector<std::string> drop_steps = kWrite;
    drop_steps.insert(drop_steps.end(), kWrite.begin(), kWrite.end());
    for (int i = 0; i < 3; ++i) {
        drop_steps.insert(drop_steps.end(), {"unlink", "sync_dir"});
    }
    iofault::sweep(spool_case("append that drops a recording", drop_steps, 6, {"/s", "/m", "/t"},
                              [](Spool &spool) { return append(spool, "/big"); },
                              {{"/s", "/m", "/t"}, {"/big", "/gap"}}));
}

TEST(SpoolIoFaults, EveryAcknowledgedItemSurvivesAPowerCutAfterAnyCall) {
    iofault::cut_sweep(
        {"spool",
         [](const std::string &root, iofault::PowerCutFs &fs, iofault::CutScript &script) {
             std::unique_ptr<Spool> spool = open_spool(root + "/spool", &fs);
             for (const std::string path :
                  {"/0", "/1", "", "/s", "/m", "/t", "", "/big", "", "/c"}) {
                 script.begin();
                 if (path.empty()) { // a removal lost in a cut only sends the item again
                     const std::string gone = deliver(*spool);
                     script.done({{gone, std::nullopt}}, false, true);
                     continue;
                 }
                 ASSERT_TRUE(append(*spool, path));
                 script.done({{path, body_for(path)}});
                 if (path == "/big") { // the recording goes with its report, or stays
                     script.done({{"/gap", body_for("/gap")},
                                  {"/s", std::nullopt},
                                  {"/m", std::nullopt},
                                  {"/t", std::nullopt}},
                                 true);
                 }
             }
         },
         [](const std::string &root) {
             std::map<std::string, std::string> held;
             for (auto &[path, body] : drain(root + "/spool")) {
                 EXPECT_TRUE(held.emplace(path, body).second) << path << " handed out twice";
             }
             return held;
         }});
}

} // namespace

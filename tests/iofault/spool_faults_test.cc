// Every file-system call of a spool append and of a removal fails in turn, with a full device
// and with an I/O error: a failed append says so, no temporary file is left, and the spool
// opened again from disk hands out every acknowledged item whole, in order, and nothing torn.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kit_faulty_fs.h"
#include "spool.h"
#include "tests/support/temp_dir.h"

namespace {

using hostkit::spool::Spool;

hostkit::CloudRequest request(const std::string &path, size_t body_bytes) {
    hostkit::CloudRequest req;
    req.method = "PUT";
    req.path = path;
    req.body = std::string(body_bytes, path.back());
    return req;
}

const hostkit::CloudRequest kA = request("/a", 700);
const hostkit::CloudRequest kB = request("/b", 9000);
const hostkit::CloudRequest kC = request("/c", 30);

std::unique_ptr<Spool> open_spool(const std::string &dir, hostkit::FileSystem *fs) {
    hostkit::spool::Config config;
    config.dir = dir;
    config.fs = fs;
    std::string error;
    std::unique_ptr<Spool> spool = Spool::open(config, &error);
    EXPECT_NE(spool, nullptr) << error;
    return spool;
}

bool append(Spool &spool, const hostkit::CloudRequest &req) {
    return spool.append(hostkit::spool::ItemInfo{}, req, 1);
}

/// Opens the spool from disk and takes everything out: the requests' paths in order, each
/// checked to be the whole request appended under that path.
std::vector<std::string> reopen_and_drain(const std::string &dir) {
    std::unique_ptr<Spool> spool = open_spool(dir, nullptr);
    std::vector<std::string> paths;
    if (!spool) {
        return paths;
    }
    EXPECT_EQ(spool->stats().dropped, 0u) << "a damaged item was on disk";
    while (std::optional<hostkit::spool::Item> item = spool->take_oldest()) {
        const hostkit::CloudRequest *sent = item->request.path == "/a"   ? &kA
                                            : item->request.path == "/b" ? &kB
                                                                         : &kC;
        EXPECT_EQ(item->request.body, sent->body) << item->request.path;
        paths.push_back(item->request.path);
        spool->remove(item->info.seq, true);
    }
    EXPECT_EQ(spool->stats().dropped, 0u) << "a damaged item was handed out";
    return paths;
}

/// Only item files in the spool's directory.
void expect_no_temporary_files(const std::string &dir) {
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(hostkit::spool::seq_of(name).has_value()) << name << " left behind";
    }
}

/// One operation on a spool holding /a (and /b for removals), its calls swept.
struct Case {
    const char *name;
    bool with_b;         ///< /b appended before the operation
    bool reports_errors; ///< a failed step makes the operation return false
    std::vector<std::string> steps;
    /// Runs the operation; false when it reported a failure.
    bool (*run)(Spool &spool);
    /// What the spool may hold afterwards, as paths in order.
    std::vector<std::vector<std::string>> allowed;
};

const Case kCases[] = {
    {"append",
     false,
     true,
     {"open", "write", "fsync", "close", "rename", "sync_dir"},
     [](Spool &spool) { return append(spool, kB); },
     {{"/a"}, {"/a", "/b"}}},
    {"removal of a delivered item",
     true,
     false,
     {"unlink", "sync_dir"},
     [](Spool &spool) {
         std::optional<hostkit::spool::Item> item = spool.take_oldest();
         if (!item) {
             return false;
         }
         spool.remove(item->info.seq, true);
         return true;
     },
     // A removal lost only sends the item again.
     {{"/b"}, {"/a", "/b"}}},
};

TEST(SpoolFaults, EveryFailedStepLosesNoAcknowledgedItemAndLeavesNothingTorn) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        size_t first = 0;
        {
            vexo_test::TempDir tmp("vexo-spool-faults");
            iofault::KitFaultyFs fs;
            std::unique_ptr<Spool> spool = open_spool(tmp.path() + "/spool", &fs);
            ASSERT_TRUE(spool && append(*spool, kA) && (!c.with_b || append(*spool, kB)));
            first = fs.calls().size();
            ASSERT_TRUE(c.run(*spool));
            ASSERT_EQ(
                std::vector<std::string>(fs.calls().begin() + static_cast<std::ptrdiff_t>(first),
                                         fs.calls().end()),
                c.steps);
        }
        for (size_t step = 0; step < c.steps.size(); ++step) {
            for (const int error : iofault::kSweepErrors) {
                SCOPED_TRACE(c.steps[step] + " fails with " + std::strerror(error));
                vexo_test::TempDir tmp("vexo-spool-faults");
                const std::string dir = tmp.path() + "/spool";
                iofault::KitFaultyFs fs;
                {
                    std::unique_ptr<Spool> spool = open_spool(dir, &fs);
                    ASSERT_TRUE(spool && append(*spool, kA) && (!c.with_b || append(*spool, kB)));
                    fs.fail_call(first + step, error);
                    const bool ok = c.run(*spool);
                    EXPECT_TRUE(fs.fault_hit());
                    if (c.reports_errors) {
                        EXPECT_FALSE(ok) << "a failed step was acknowledged";
                    }
                }
                expect_no_temporary_files(dir);
                const std::vector<std::string> held = reopen_and_drain(dir);
                EXPECT_NE(std::find(c.allowed.begin(), c.allowed.end(), held), c.allowed.end())
                    << held.size() << " items";
                // The spool goes on working once the disk does.
                {
                    std::unique_ptr<Spool> spool = open_spool(dir, nullptr);
                    ASSERT_TRUE(spool && append(*spool, kC));
                }
                EXPECT_EQ(reopen_and_drain(dir), std::vector<std::string>{"/c"});
            }
        }
    }
}

} // namespace

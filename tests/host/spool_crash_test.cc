// A camera killed while it spools: a child process appends items in a tight loop and is killed
// at a random moment, again and again; every item the spool then hands out is whole (its body
// is the one written for its name), none is torn, and no temporary file is left.
#include <filesystem>
#include <random>

#include "kill_while_running.h"
#include "spool.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int kRounds = 30;
constexpr uint32_t kSeed = 20260611;
constexpr int kMaxKillDelayUs = 20000;
constexpr int kChildMaxItems = 100000;

/// The body an item named n carries: its length and bytes follow from n.
std::string body_for(int n) {
    return std::string(1000 + static_cast<size_t>(n % 7) * 3000, static_cast<char>('a' + n % 26));
}

std::unique_ptr<hostkit::spool::Spool> open_spool(const std::string &dir) {
    hostkit::spool::Config config;
    config.dir = dir;
    std::string error;
    return hostkit::spool::Spool::open(config, &error);
}

TEST(SpoolCrash, EveryItemIsWholeAfterAKillDuringAppends) {
    vexo_test::TempDir tmp("vexo-spool-crash");
    const std::string dir = tmp.path() + "/spool";
    std::mt19937 rng(kSeed);
    int next = 0; // names go on from the last item read back
    size_t total = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(vexo_test::kill_while_running(
            [&](int ready_fd) {
                std::unique_ptr<hostkit::spool::Spool> spool = open_spool(dir);
                for (int n = next; spool && n < next + kChildMaxItems; ++n) {
                    hostkit::CloudRequest req;
                    req.method = "PUT";
                    req.path = "/" + std::to_string(n);
                    req.body = body_for(n);
                    if (!spool->append(hostkit::spool::ItemInfo{}, req, 1) ||
                        (n == next && ::write(ready_fd, "1", 1) != 1)) {
                        _exit(2);
                    }
                }
            },
            rng, kMaxKillDelayUs));
        std::unique_ptr<hostkit::spool::Spool> spool = open_spool(dir);
        ASSERT_NE(spool, nullptr);
        int expected = next;
        while (std::optional<hostkit::spool::Item> item = spool->take_oldest()) {
            ASSERT_EQ(item->request.path, "/" + std::to_string(expected)) << "order or a gap";
            ASSERT_EQ(item->request.body, body_for(expected));
            spool->remove(item->info.seq, true);
            ++expected;
        }
        EXPECT_EQ(spool->stats().dropped, 0u) << "a torn item was found";
        EXPECT_GT(expected, next);
        total += static_cast<size_t>(expected - next);
        next = expected;
        EXPECT_TRUE(std::filesystem::is_empty(dir)) << "temporary files left";
    }
    RecordProperty("items", static_cast<int>(total));
}

} // namespace

// The key-value store survives a crash at any moment of a write: a child process rewrites one
// record in a tight loop and is killed at a random moment, again and again; the record must
// always read back as one of the two values, never a mix, a truncation or nothing.
#include <random>
#include <string>
#include <vector>

#include "kill_while_running.h"
#include "kv_test_dir.h"

namespace {

using kvtest::KvStoreTest;

constexpr int kRounds = 50;
constexpr uint32_t kSeed = 20240611;
/// Longest real wait before the kill, microseconds: a few dozen writes' worth.
constexpr int kMaxKillDelayUs = 15000;
/// The child gives up on its own after this many writes, should the parent be gone.
constexpr int kChildMaxWrites = 200000;

TEST_F(KvStoreTest, RecordIsAlwaysOneWholeValueAfterAKillDuringRewrites) {
    // Different lengths and contents, so a torn or mixed file cannot pass for either.
    const std::vector<uint8_t> a(300, 'A');
    const std::vector<uint8_t> b(5000, 'B');
    ASSERT_EQ(write("alternating", a), 0);
    const auto rewrite = [&](int ready_fd) {
        for (int i = 0; i < kChildMaxWrites; ++i) {
            const std::vector<uint8_t> &value = (i % 2 == 0) ? b : a;
            if (write("alternating", value) != 0 || (i == 0 && ::write(ready_fd, "1", 1) != 1)) {
                _exit(2);
            }
        }
    };
    std::mt19937 rng(kSeed);
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(vexo_test::kill_while_running(rewrite, rng, kMaxKillDelayUs));
        std::vector<uint8_t> got;
        ASSERT_EQ(read("alternating", &got), 0);
        ASSERT_TRUE(got == a || got == b) << "record of " << got.size() << " bytes";
    }

    // Temporary files of killed writes are gone once the store starts again.
    hostkit::internal::kv_start(data_dir_);
    EXPECT_EQ(files(), std::vector<std::string>{"alternating.rec"});
    std::vector<uint8_t> got;
    ASSERT_EQ(read("alternating", &got), 0);
    EXPECT_TRUE(got == a || got == b);
}

} // namespace

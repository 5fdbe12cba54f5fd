// The key-value store survives a crash at any moment of a write: a child process rewrites one
// record in a tight loop and is killed at a random moment, again and again; the record must
// always read back as one of the two values, never a mix, a truncation or nothing.
#include <csignal>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "kv_test_dir.h"

namespace {

using kvtest::KvStoreTest;

constexpr int kRounds = 50;
constexpr uint32_t kSeed = 20240611;
/// Longest real wait before the kill, microseconds: a few dozen writes' worth.
constexpr int kMaxKillDelayUs = 15000;
/// The child gives up on its own after this many writes, should the parent be gone.
constexpr int kChildMaxWrites = 200000;

[[noreturn]] void rewrite_forever(int ready_fd, const std::vector<uint8_t> &a,
                                  const std::vector<uint8_t> &b) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 0; i < kChildMaxWrites; ++i) {
        const std::vector<uint8_t> &value = (i % 2 == 0) ? b : a;
        if (iot_wd_common_write("alternating", value.data(), static_cast<uint32_t>(value.size())) !=
            0) {
            _exit(2);
        }
        if (i == 0) {
            const char one = 1;
            if (::write(ready_fd, &one, 1) != 1) {
                _exit(3);
            }
            close(ready_fd);
        }
    }
    _exit(0);
}

TEST_F(KvStoreTest, RecordIsAlwaysOneWholeValueAfterAKillDuringRewrites) {
    // Different lengths and contents, so a torn or mixed file cannot pass for either.
    const std::vector<uint8_t> a(300, 'A');
    const std::vector<uint8_t> b(5000, 'B');
    ASSERT_EQ(write("alternating", a), 0);

    std::mt19937 rng(kSeed);
    std::uniform_int_distribution<int> delay_us(0, kMaxKillDelayUs);
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(ready[0]);
            rewrite_forever(ready[1], a, b);
        }
        close(ready[1]);
        char byte = 0;
        const ssize_t n = ::read(ready[0], &byte, 1); // the child is inside its loop
        close(ready[0]);
        usleep(static_cast<useconds_t>(delay_us(rng)));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(n, 1) << "the child failed before its first write completed";
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended on its own, status " << status;

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

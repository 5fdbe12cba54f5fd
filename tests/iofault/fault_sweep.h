// Fault sweeps: an operation's file-system calls are listed once, then on a fresh store each
// call in turn fails with a full device (ENOSPC) and with an I/O error (EIO), and the store,
// opened again from disk, is checked.
#ifndef VEXO_TESTS_IOFAULT_FAULT_SWEEP_H
#define VEXO_TESTS_IOFAULT_FAULT_SWEEP_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace iofault {

/// The calls a faulty file system has seen and the one it fails, with the chosen errno.
class FaultPlan {
  public:
    /// The operation under test starts: its calls are counted from here.
    void begin() { first_ = calls_.size(); }
    std::vector<std::string> steps() const {
        return {calls_.begin() + static_cast<std::ptrdiff_t>(first_), calls_.end()};
    }
    void fail_step(size_t step, int error) {
        step_ = step;
        error_ = error;
    }
    bool hit() const { return hit_; }
    /// Notes a call; true (errno set) when it is the one to fail.
    bool fails(const char *name) {
        const bool fail = first_ != SIZE_MAX && calls_.size() - first_ == step_;
        calls_.emplace_back(name);
        hit_ = hit_ || fail;
        errno = fail ? error_ : errno;
        return fail;
    }

  private:
    std::vector<std::string> calls_;
    size_t first_ = SIZE_MAX;
    size_t step_ = SIZE_MAX;
    int error_ = 0;
    bool hit_ = false;
};

/// The calls the kit's and the service's file systems share, on the real disk unless the plan
/// fails them: a failed call does nothing, except that a write writes half its bytes first (as
/// a filling device does) and a close still releases the descriptor (as on Linux).
template <class Fs, Fs &(*real)()> struct Faulty : Fs {
    int open(const std::string &path, int flags, mode_t mode) override {
        return plan.fails("open") ? -1 : real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override {
        const bool fail = plan.fails("write");
        const int error = errno;
        const ssize_t n = real().write(fd, data, fail ? len / 2 : len);
        errno = fail ? error : errno;
        return fail ? -1 : n;
    }
    int fsync(int fd) override { return plan.fails("fsync") ? -1 : real().fsync(fd); }
    int close(int fd) override {
        const bool fail = plan.fails("close");
        const int error = errno;
        const int ret = real().close(fd);
        errno = fail ? error : errno;
        return fail ? -1 : ret;
    }
    int rename(const std::string &from, const std::string &to) override {
        return plan.fails("rename") ? -1 : real().rename(from, to);
    }
    int unlink(const std::string &path) override {
        return plan.fails("unlink") ? -1 : real().unlink(path);
    }
    int sync_dir(const std::string &dir) override {
        return plan.fails("sync_dir") ? -1 : real().sync_dir(dir);
    }

    FaultPlan plan;
};

/// One operation to sweep on a Faulty file system Fs.
template <class Fs> struct SweepCase {
    const char *name;
    std::vector<std::string> steps; ///< the operation's calls, in order
    size_t reported;                ///< the first steps, whose failure the operation reports
    /// Makes the store in the fresh directory on fs, calls fs.plan.begin() and runs the
    /// operation, closing the store; false when the operation reported a failure.
    std::function<bool(const std::string &dir, Fs &fs)> run;
    /// Opens the store again from disk and checks what the failed step left; ok: what the
    /// operation returned.
    std::function<void(const std::string &dir, bool ok)> check;
};

template <class Fs> void sweep(const SweepCase<Fs> &c) {
    SCOPED_TRACE(c.name);
    {
        vexo_test::TempDir dir("vexo-iofault");
        Fs fs;
        ASSERT_TRUE(c.run(dir.path(), fs));
        ASSERT_EQ(fs.plan.steps(), c.steps);
    }
    for (size_t step = 0; step < c.steps.size(); ++step) {
        for (const int error : {ENOSPC, EIO}) {
            SCOPED_TRACE(std::to_string(step) + ": " + c.steps[step] + " fails with " +
                         std::strerror(error));
            vexo_test::TempDir dir("vexo-iofault");
            Fs fs;
            fs.plan.fail_step(step, error);
            const bool ok = c.run(dir.path(), fs);
            EXPECT_TRUE(fs.plan.hit());
            EXPECT_TRUE(step >= c.reported || !ok) << "a failed step was acknowledged";
            c.check(dir.path(), ok);
        }
    }
}

} // namespace iofault

#endif

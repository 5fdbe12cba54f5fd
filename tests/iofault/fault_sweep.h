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

/// The calls the kit's and the service's file systems share, on the real disk, but for the one
/// the sweep fails: it does nothing and returns -1 with the chosen errno, except that a write
/// writes half its bytes first (as a filling device does) and a close still releases the
/// descriptor (as on Linux).
template <class Fs, Fs &(*real)()> struct Faulty : Fs {
    std::vector<std::string> calls;
    size_t first = SIZE_MAX;     ///< calls before the operation under test
    size_t fail_step = SIZE_MAX; ///< the operation's call to fail
    int error = 0;
    bool hit = false;

    void begin() { first = calls.size(); }
    /// Notes a call; true (errno set) when it is the one to fail.
    bool fails(const char *name) {
        const bool fail = first != SIZE_MAX && calls.size() - first == fail_step;
        calls.emplace_back(name);
        hit = hit || fail;
        errno = fail ? error : errno;
        return fail;
    }
    int open(const std::string &path, int flags, mode_t mode) override {
        return fails("open") ? -1 : real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override {
        const bool fail = fails("write");
        const ssize_t n = real().write(fd, data, fail ? len / 2 : len);
        errno = fail ? error : errno;
        return fail ? -1 : n;
    }
    int fsync(int fd) override { return fails("fsync") ? -1 : real().fsync(fd); }
    int close(int fd) override {
        const bool fail = fails("close");
        const int ret = real().close(fd);
        errno = fail ? error : errno;
        return fail ? -1 : ret;
    }
    int rename(const std::string &from, const std::string &to) override {
        return fails("rename") ? -1 : real().rename(from, to);
    }
    int unlink(const std::string &path) override {
        return fails("unlink") ? -1 : real().unlink(path);
    }
    int sync_dir(const std::string &dir) override {
        return fails("sync_dir") ? -1 : real().sync_dir(dir);
    }
};

/// One operation to sweep on a Faulty file system Fs.
template <class Fs> struct SweepCase {
    const char *name;
    std::vector<std::string> steps; ///< the operation's calls, in order
    size_t reported;                ///< the first steps, whose failure the operation reports
    /// Makes the store in the fresh directory on fs, calls fs.begin() and runs the
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
        ASSERT_EQ(std::vector<std::string>(fs.calls.begin() + fs.first, fs.calls.end()), c.steps);
    }
    for (size_t step = 0; step < c.steps.size(); ++step) {
        for (const int error : {ENOSPC, EIO}) {
            SCOPED_TRACE(std::to_string(step) + ": " + c.steps[step] + " fails with " +
                         std::strerror(error));
            vexo_test::TempDir dir("vexo-iofault");
            Fs fs;
            fs.fail_step = step;
            fs.error = error;
            const bool ok = c.run(dir.path(), fs);
            EXPECT_TRUE(fs.hit);
            EXPECT_TRUE(step >= c.reported || !ok) << "a failed step was acknowledged";
            c.check(dir.path(), ok);
        }
    }
}

} // namespace iofault

#endif

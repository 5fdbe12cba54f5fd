// A file system for the kit's stores that passes every call to the disk, counts them, and
// makes one chosen call fail with a chosen errno without doing anything, except that a
// failing write writes half its bytes first and a failing close still releases the
// descriptor (as close(2) does on Linux).
#ifndef VEXO_TESTS_IOFAULT_KIT_FAULTY_FS_H
#define VEXO_TESTS_IOFAULT_KIT_FAULTY_FS_H

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "file_system.h"

namespace iofault {

class KitFaultyFs : public hostkit::FileSystem {
  public:
    /// Calls made so far, by name ("open", "write", ...).
    const std::vector<std::string> &calls() const { return calls_; }
    /// Makes call number `index` (counted from the first call ever) fail with `error`.
    void fail_call(size_t index, int error) {
        fail_at_ = index;
        error_ = error;
    }
    bool fault_hit() const { return hit_; }

    int open(const std::string &path, int flags, mode_t mode) override {
        return fails("open") ? -1 : real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override {
        if (fails("write")) {
            // What a device filling up mid-write leaves: the first half, then the error.
            real().write(fd, data, len / 2);
            errno = error_;
            return -1;
        }
        return real().write(fd, data, len);
    }
    int fsync(int fd) override { return fails("fsync") ? -1 : real().fsync(fd); }
    int close(int fd) override {
        if (fails("close")) {
            real().close(fd);
            errno = error_;
            return -1;
        }
        return real().close(fd);
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

  private:
    static hostkit::FileSystem &real() { return hostkit::real_file_system(); }
    bool fails(const char *name) {
        const bool fail = calls_.size() == fail_at_;
        calls_.emplace_back(name);
        if (fail) {
            hit_ = true;
            errno = error_;
        }
        return fail;
    }

    std::vector<std::string> calls_;
    size_t fail_at_ = SIZE_MAX;
    int error_ = 0;
    bool hit_ = false;
};

/// The errors a sweep fails each step with: a full device and a failing one.
constexpr int kSweepErrors[] = {ENOSPC, EIO};

} // namespace iofault

#endif

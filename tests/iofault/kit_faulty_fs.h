// The kit's file-system calls on the real disk, one of which fails as its FaultPlan says.
#ifndef VEXO_TESTS_IOFAULT_KIT_FAULTY_FS_H
#define VEXO_TESTS_IOFAULT_KIT_FAULTY_FS_H

#include "fault_sweep.h"
#include "file_system.h"

namespace iofault {

struct KitFaultyFs : hostkit::FileSystem {
    int open(const std::string &path, int flags, mode_t mode) override {
        return plan.fails("open") ? -1 : real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override {
        if (!plan.fails("write")) {
            return real().write(fd, data, len);
        }
        real().write(fd, data, len / 2);
        errno = plan.error();
        return -1;
    }
    int fsync(int fd) override { return plan.fails("fsync") ? -1 : real().fsync(fd); }
    int close(int fd) override {
        const bool fail = plan.fails("close");
        const int ret = real().close(fd);
        errno = fail ? plan.error() : errno;
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
    static hostkit::FileSystem &real() { return hostkit::real_file_system(); }

    FaultPlan plan;
};

} // namespace iofault

#endif

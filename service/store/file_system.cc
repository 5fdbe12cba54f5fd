/// The service's file-system calls on the real disk.
#include "file_system.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo_cloud {
namespace {

class PosixFileSystem : public FileSystem {
  public:
    int create_temporary(std::string *pattern) override {
        return ::mkostemp(pattern->data(), O_CLOEXEC);
    }
    int open(const std::string &path, int flags, mode_t mode) override {
        return ::open(path.c_str(), flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override { return ::write(fd, data, len); }
    int fsync(int fd) override { return ::fsync(fd); }
    int close(int fd) override { return ::close(fd); }
    int mkdir(const std::string &path, mode_t mode) override { return ::mkdir(path.c_str(), mode); }
    int rename(const std::string &from, const std::string &to) override {
        return ::rename(from.c_str(), to.c_str());
    }
    int rename_no_replace(const std::string &from, const std::string &to) override {
        if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
            return 0;
        }
        if (errno != EINVAL && errno != ENOSYS) {
            return -1;
        }
        // A file system without RENAME_NOREPLACE: a link fails on an existing name too.
        if (::link(from.c_str(), to.c_str()) != 0) {
            return -1;
        }
        ::unlink(from.c_str());
        return 0;
    }
    int unlink(const std::string &path) override { return ::unlink(path.c_str()); }
    int sync_dir(const std::string &dir) override {
        const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) {
            return -1;
        }
        const int ret = ::fsync(fd);
        const int error = errno;
        ::close(fd);
        errno = error;
        return ret;
    }
};

} // namespace

FileSystem &real_file_system() {
    static PosixFileSystem posix;
    return posix;
}

} // namespace vexo_cloud

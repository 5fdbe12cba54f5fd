// The kit's file-system calls on the real disk.
#include "file_system.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace hostkit {
namespace {

class PosixFileSystem : public FileSystem {
  public:
    int open(const std::string &path, int flags, mode_t mode) override {
        return ::open(path.c_str(), flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override { return ::write(fd, data, len); }
    int fsync(int fd) override { return ::fsync(fd); }
    int close(int fd) override { return ::close(fd); }
    int rename(const std::string &from, const std::string &to) override {
        return ::rename(from.c_str(), to.c_str());
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

} // namespace hostkit

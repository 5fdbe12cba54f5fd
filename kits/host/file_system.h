/// The file-system calls through which the kit's stores change files on disk: the key-value
/// store and the outage spool write, sync, rename and remove only through a FileSystem, so a
/// test can hand them one that fails a chosen call or records what reached the disk.
/// Production uses real_file_system(), the plain POSIX calls. Reads go straight to the disk.
#ifndef VEXO_HOST_FILE_SYSTEM_H
#define VEXO_HOST_FILE_SYSTEM_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace hostkit {

/// Each call behaves as its POSIX namesake: -1 with errno set on failure.
class FileSystem {
  public:
    virtual ~FileSystem() = default;
    virtual int open(const std::string &path, int flags, mode_t mode) = 0;
    virtual ssize_t write(int fd, const void *data, size_t len) = 0;
    virtual int fsync(int fd) = 0;
    virtual int close(int fd) = 0;
    virtual int rename(const std::string &from, const std::string &to) = 0;
    virtual int unlink(const std::string &path) = 0;
    /// Flushes a directory's entries (names created, renamed or removed in it) to the device.
    virtual int sync_dir(const std::string &dir) = 0;
};

/// The plain POSIX calls; lives as long as the program.
FileSystem &real_file_system();

} // namespace hostkit

#endif

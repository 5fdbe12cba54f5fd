/// The file-system calls through which the service's file stores change the data directory:
/// durable files and the media store create, write, sync, rename and remove only through a
/// FileSystem, so a test can hand them one that fails a chosen call. Production uses
/// real_file_system(), the plain POSIX calls. Reads and listings go straight to the disk.
#ifndef VEXO_CLOUD_FILE_SYSTEM_H
#define VEXO_CLOUD_FILE_SYSTEM_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace vexo_cloud {

/// Each call behaves as its POSIX namesake: -1 with errno set on failure.
class FileSystem {
  public:
    virtual ~FileSystem() = default;
    /// mkostemp(pattern, O_CLOEXEC): replaces the XXXXXX at the end of *pattern.
    virtual int create_temporary(std::string *pattern) = 0;
    virtual int open(const std::string &path, int flags, mode_t mode) = 0;
    virtual ssize_t write(int fd, const void *data, size_t len) = 0;
    virtual int fsync(int fd) = 0;
    virtual int close(int fd) = 0;
    virtual int mkdir(const std::string &path, mode_t mode) = 0;
    virtual int rename(const std::string &from, const std::string &to) = 0;
    /// Renames without replacing: EEXIST when `to` is there.
    virtual int rename_no_replace(const std::string &from, const std::string &to) = 0;
    virtual int unlink(const std::string &path) = 0;
    /// Flushes a directory's entries (names created, renamed or removed in it) to the device.
    virtual int sync_dir(const std::string &dir) = 0;
};

/// The plain POSIX calls; lives as long as the program.
FileSystem &real_file_system();

} // namespace vexo_cloud

#endif

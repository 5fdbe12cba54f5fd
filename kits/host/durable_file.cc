// The write-sync-rename-sync sequence behind the kit's crash-safe files.
#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace hostkit {
namespace {

/// Makes temporary names unique among the threads of this process; the pid among processes.
std::atomic<uint64_t> g_temp_serial{0};

bool write_all(FileSystem &fs, int fd, const char *data, size_t len) {
    while (len > 0) {
        const ssize_t n = fs.write(fd, data, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = ENOSPC; // no progress: treat as a full device
            }
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool sync_directory(FileSystem &fs, const std::string &dir) {
    return fs.sync_dir(dir) == 0 || errno == EINVAL || errno == EROFS;
}

DurableWrite durable_write(FileSystem &fs, const std::string &path, const void *data, size_t len) {
    DurableWrite result;
    result.temp = path + kTempInfix + std::to_string(getpid()) + "." +
                  std::to_string(g_temp_serial.fetch_add(1));
    int fd = fs.open(result.temp, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) {
        result.failed_step = "create";
        result.error = errno;
        return result;
    }
    if (!write_all(fs, fd, static_cast<const char *>(data), len)) {
        result.failed_step = "write";
    } else if (fs.fsync(fd) != 0) {
        result.failed_step = "fsync";
    }
    if (result.failed_step != nullptr) {
        result.error = errno;
        fs.close(fd);
    } else if (fs.close(fd) != 0) {
        result.failed_step = "close";
        result.error = errno;
    } else if (fs.rename(result.temp, path) != 0) {
        result.failed_step = "rename";
        result.error = errno;
    }
    if (result.failed_step != nullptr) {
        fs.unlink(result.temp);
        return result;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    if (!sync_directory(fs, dir)) {
        result.directory_unsynced = true;
        result.error = errno;
    }
    return result;
}

} // namespace hostkit

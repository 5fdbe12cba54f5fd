// The write-sync-rename-sync sequence behind the kit's crash-safe files.
#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "unique_fd.h"

namespace hostkit {
namespace {

/// Makes temporary names unique among the threads of this process; the pid among processes.
std::atomic<uint64_t> g_temp_serial{0};

bool write_all(int fd, const char *data, size_t len) {
    while (len > 0) {
        const ssize_t n = write(fd, data, len);
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

bool sync_directory(const std::string &dir) {
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) {
        return false;
    }
    return fsync(fd.get()) == 0 || errno == EINVAL || errno == EROFS;
}

DurableWrite durable_write(const std::string &path, const void *data, size_t len) {
    DurableWrite result;
    result.temp = path + kTempInfix + std::to_string(getpid()) + "." +
                  std::to_string(g_temp_serial.fetch_add(1));
    UniqueFd fd(open(result.temp.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        result.failed_step = "create";
        result.error = errno;
        return result;
    }
    if (!write_all(fd.get(), static_cast<const char *>(data), len)) {
        result.failed_step = "write";
    } else if (fsync(fd.get()) != 0) {
        result.failed_step = "fsync";
    } else if (fd.close_now() != 0) {
        result.failed_step = "close";
    } else if (rename(result.temp.c_str(), path.c_str()) != 0) {
        result.failed_step = "rename";
    }
    if (result.failed_step != nullptr) {
        result.error = errno;
        unlink(result.temp.c_str());
        return result;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    if (!sync_directory(dir)) {
        result.directory_unsynced = true;
        result.error = errno;
    }
    return result;
}

} // namespace hostkit

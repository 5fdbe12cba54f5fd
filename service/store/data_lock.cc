/// The data directory's lock file.
#include "data_lock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include "durable_file.h"
#include "media_names.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

constexpr mode_t kFileMode = 0644;
constexpr size_t kPidTextMax = 32;

/// The pid text the holder wrote, without its line end; empty when unknown.
std::string holder_pid(int fd) {
    char text[kPidTextMax] = {};
    const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
    if (n <= 0) {
        return "";
    }
    std::string pid(text, static_cast<size_t>(n));
    const size_t end = pid.find_first_not_of("0123456789");
    return pid.substr(0, end);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

DataLock::DataLock(const std::string &data_dir) {
    const std::string path = data_dir + "/" + kLockFile;
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd_ < 0) {
        throw FileError("cannot open the lock file " + path + ": " + std::strerror(errno), errno);
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const int error_number = errno;
        const std::string pid = holder_pid(fd_);
        ::close(fd_);
        fd_ = -1;
        if (error_number == EWOULDBLOCK) {
            throw DataDirectoryInUse("the data directory " + data_dir +
                                     " is in use by another program" +
                                     (pid.empty() ? "" : " (pid " + pid + ")"));
        }
        throw FileError("cannot lock " + path + ": " + std::strerror(error_number), error_number);
    }
    // Only a note for whoever finds the directory locked: the lock is the flock itself.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) < 0) {
        // The lock holds without the note.
    }
}

DataLock::~DataLock() {
    if (fd_ >= 0) {
        // The pid goes before the lock, so a note never names a process that let go.
        if (::ftruncate(fd_, 0) != 0) {
            // Nothing to do: the next holder rewrites it.
        }
        ::close(fd_);
    }
}

} // namespace vexo_cloud

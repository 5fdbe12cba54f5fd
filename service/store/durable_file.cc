/// Durable writes with POSIX calls: every step that can fail is checked, and a failed write
/// never leaves a partial file under the final name.
#include "durable_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;

[[noreturn]] void fail(const std::string &what, const std::string &path, int error_number) {
    throw FileError(what + " " + path + ": " + std::strerror(error_number), error_number);
}

/// Closes a descriptor when it goes out of scope, unless released.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    /// Closes now and reports close's result (errno is set on failure).
    bool close_checked() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

  private:
    int fd_;
};

void write_all(int fd, const char *data, size_t size, const std::string &path) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("cannot write", path, errno);
        }
        done += static_cast<size_t>(n);
    }
}

std::string parent_of(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

void sync_directory(const std::string &path) {
    Descriptor dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) {
        fail("cannot open directory", path, errno);
    }
    if (::fsync(dir.get()) != 0) {
        fail("cannot sync directory", path, errno);
    }
}

FileError::FileError(const std::string &what, int error_number)
    : std::runtime_error(what), error_number_(error_number) {}

bool make_directory(const std::string &path) {
    if (::mkdir(path.c_str(), kDirectoryMode) != 0) {
        if (errno != EEXIST) {
            fail("cannot create directory", path, errno);
        }
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            fail("not a directory:", path, ENOTDIR);
        }
        return false;
    }
    sync_directory(parent_of(path));
    return true;
}

AtomicFile::AtomicFile(const std::string &dir, const std::string &name)
    : AtomicFile(dir, name, dir) {}

AtomicFile::AtomicFile(const std::string &dir, const std::string &name,
                       const std::string &target_dir)
    : dir_(dir), target_dir_(target_dir), target_(target_dir + "/" + name) {
    // The temporary name starts with a dot: directory listings of the service skip it.
    std::string pattern = dir + "/." + name + ".tmp-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    fd_ = ::mkostemp(buffer.data(), O_CLOEXEC);
    if (fd_ < 0) {
        fail("cannot create a temporary file in", dir, errno);
    }
    temporary_.assign(buffer.data());
    if (::fchmod(fd_, kFileMode) != 0) {
        const int error_number = errno;
        discard();
        fail("cannot set the mode of", temporary_, error_number);
    }
}

AtomicFile::~AtomicFile() {
    discard();
}

void AtomicFile::discard() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!committed_ && !temporary_.empty()) {
        ::unlink(temporary_.c_str());
        temporary_.clear();
    }
}

void AtomicFile::write(const char *data, size_t size) {
    if (fd_ < 0) {
        throw FileError("write after the end of " + target_, EBADF);
    }
    write_all(fd_, data, size, temporary_);
    written_ += size;
}

void AtomicFile::commit() {
    if (fd_ < 0) {
        throw FileError("commit after the end of " + target_, EBADF);
    }
    Descriptor fd(fd_);
    fd_ = -1;
    if (::fsync(fd.get()) != 0) {
        fail("cannot sync", temporary_, errno);
    }
    if (!fd.close_checked()) {
        fail("cannot close", temporary_, errno);
    }
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        fail("cannot rename to", target_, errno);
    }
    committed_ = true;
    sync_directory(target_dir_);
    if (target_dir_ != dir_) {
        sync_directory(dir_);
    }
}

void write_file_atomic(const std::string &dir, const std::string &name, const std::string &bytes) {
    AtomicFile file(dir, name);
    file.write(bytes.data(), bytes.size());
    file.commit();
}

void append_line(const std::string &path, const std::string &line) {
    Descriptor fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode));
    if (fd.get() < 0) {
        fail("cannot open", path, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        fail("cannot stat", path, errno);
    }
    try {
        const std::string text = line + "\n";
        write_all(fd.get(), text.data(), text.size(), path);
        if (::fsync(fd.get()) != 0) {
            fail("cannot sync", path, errno);
        }
    } catch (...) {
        // Leave no partial line: the next append starts on a line of its own.
        if (::ftruncate(fd.get(), st.st_size) != 0) {
            // The original error is the one to report.
        }
        throw;
    }
}

std::string read_file(const std::string &path) {
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        fail("cannot open", path, errno);
    }
    std::string content;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("cannot read", path, errno);
        }
        if (n == 0) {
            return content;
        }
        content.append(chunk, static_cast<size_t>(n));
    }
}

} // namespace vexo_cloud

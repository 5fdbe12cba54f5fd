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
    Descriptor(int fd, FileSystem &fs) : fs_(fs), fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            fs_.close(fd_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    /// Closes now and reports close's result (errno is set on failure).
    bool close_checked() {
        const int fd = fd_;
        fd_ = -1;
        return fs_.close(fd) == 0;
    }

  private:
    FileSystem &fs_;
    int fd_;
};

void write_all(FileSystem &fs, int fd, const char *data, size_t size, const std::string &path) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = fs.write(fd, data + done, size - done);
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

void sync_directory(const std::string &path, FileSystem &fs) {
    if (fs.sync_dir(path) != 0) {
        fail("cannot sync directory", path, errno);
    }
}

FileError::FileError(const std::string &what, int error_number)
    : std::runtime_error(what), error_number_(error_number) {}

bool make_directory(const std::string &path, FileSystem &fs) {
    if (fs.mkdir(path, kDirectoryMode) != 0) {
        if (errno != EEXIST) {
            fail("cannot create directory", path, errno);
        }
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            fail("not a directory:", path, ENOTDIR);
        }
        return false;
    }
    sync_directory(parent_of(path), fs);
    return true;
}

AtomicFile::AtomicFile(const std::string &dir, const std::string &name)
    : AtomicFile(dir, name, dir) {}

AtomicFile::AtomicFile(const std::string &dir, const std::string &name,
                       const std::string &target_dir, FileSystem &fs)
    : fs_(fs), dir_(dir), target_dir_(target_dir), target_(target_dir + "/" + name) {
    // The temporary name starts with a dot: directory listings of the service skip it.
    std::string pattern = dir + "/." + name + ".tmp-XXXXXX";
    fd_ = fs_.create_temporary(&pattern);
    if (fd_ < 0) {
        fail("cannot create a temporary file in", dir, errno);
    }
    temporary_ = pattern;
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
        fs_.close(fd_);
        fd_ = -1;
    }
    if (!committed_ && !temporary_.empty()) {
        fs_.unlink(temporary_);
        temporary_.clear();
    }
}

void AtomicFile::write(const char *data, size_t size) {
    if (fd_ < 0) {
        throw FileError("write after the end of " + target_, EBADF);
    }
    write_all(fs_, fd_, data, size, temporary_);
    written_ += size;
}

void AtomicFile::commit() {
    if (fd_ < 0) {
        throw FileError("commit after the end of " + target_, EBADF);
    }
    Descriptor fd(fd_, fs_);
    fd_ = -1;
    if (fs_.fsync(fd.get()) != 0) {
        fail("cannot sync", temporary_, errno);
    }
    if (!fd.close_checked()) {
        fail("cannot close", temporary_, errno);
    }
    if (fs_.rename(temporary_, target_) != 0) {
        fail("cannot rename to", target_, errno);
    }
    committed_ = true;
    sync_directory(target_dir_, fs_);
    if (target_dir_ != dir_) {
        sync_directory(dir_, fs_);
    }
}

void write_file_atomic(const std::string &dir, const std::string &name, const std::string &bytes,
                       FileSystem &fs) {
    AtomicFile file(dir, name, dir, fs);
    file.write(bytes.data(), bytes.size());
    file.commit();
}

void append_line(const std::string &path, const std::string &line, FileSystem &fs) {
    Descriptor fd(fs.open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode), fs);
    if (fd.get() < 0) {
        fail("cannot open", path, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        fail("cannot stat", path, errno);
    }
    try {
        const std::string text = line + "\n";
        write_all(fs, fd.get(), text.data(), text.size(), path);
        if (fs.fsync(fd.get()) != 0) {
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
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC), real_file_system());
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

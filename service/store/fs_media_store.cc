/// Media objects as files under the data directory.
#include "fs_media_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "durable_file.h"
#include "media_names.h"
#include "sha256.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFileMode = 0644;
constexpr size_t kReadChunk = 1 << 16;
/// An object name is <device>/<folder>/<file>.
constexpr size_t kNameParts = 3;

// ---- helpers -------------------------------------------------------------------------------

[[noreturn]] void fail(const std::string &what, const std::string &path, int error_number) {
    throw FileError(what + " " + path + ": " + std::strerror(error_number), error_number);
}

std::vector<std::string> split(const std::string &name) {
    std::vector<std::string> parts;
    size_t pos = 0;
    for (;;) {
        const size_t slash = name.find('/', pos);
        parts.push_back(name.substr(pos, slash - pos));
        if (slash == std::string::npos) {
            return parts;
        }
        pos = slash + 1;
    }
}

class FsUpload : public MediaUpload {
  public:
    FsUpload(FileSystem &fs, const std::string &incoming, std::string root, std::string name)
        : fs_(fs), incoming_(incoming), root_(std::move(root)), name_(std::move(name)) {
        std::string pattern = incoming + "/upload-XXXXXX";
        fd_ = fs_.create_temporary(&pattern);
        if (fd_ < 0) {
            fail("cannot create a temporary file in", incoming, errno);
        }
        temporary_ = pattern;
        if (::fchmod(fd_, kFileMode) != 0) {
            const int error_number = errno;
            discard();
            fail("cannot set the mode of", temporary_, error_number);
        }
    }
    ~FsUpload() override { discard(); }

    void write(const char *data, size_t size) override {
        if (fd_ < 0) {
            throw FileError("write after the end of " + name_, EBADF);
        }
        size_t done = 0;
        while (done < size) {
            const ssize_t n = fs_.write(fd_, data + done, size - done);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                fail("cannot write", temporary_, errno);
            }
            done += static_cast<size_t>(n);
        }
        sha_.add(data, size);
        size_ += size;
    }
    uint64_t size() const override { return size_; }
    std::string sha256() const override { return sha_.text(); }

    void finish() override {
        if (fd_ < 0) {
            throw FileError("finish after the end of " + name_, EBADF);
        }
        const int fd = fd_;
        fd_ = -1;
        const bool synced = fs_.fsync(fd) == 0;
        const int sync_errno = errno;
        if (fs_.close(fd) != 0 && synced) {
            fail("cannot close", temporary_, errno);
        }
        if (!synced) {
            fail("cannot sync", temporary_, sync_errno);
        }
        finished_ = true;
    }

    bool commit() override {
        if (!finished_ || committed_) {
            throw FileError("commit of an unfinished upload " + name_, EBADF);
        }
        const std::vector<std::string> parts = split(name_);
        std::string dir = root_;
        for (size_t i = 0; i + 1 < parts.size(); ++i) {
            dir += "/" + parts[i];
            make_directory(dir, fs_);
        }
        const std::string target = root_ + "/" + name_;
        if (fs_.rename_no_replace(temporary_, target) != 0) {
            if (errno == EEXIST) {
                return false;
            }
            fail("cannot rename to", target, errno);
        }
        committed_ = true;
        sync_directory(dir, fs_);
        sync_directory(incoming_, fs_);
        return true;
    }

  private:
    void discard() {
        if (fd_ >= 0) {
            fs_.close(fd_);
            fd_ = -1;
        }
        if (!committed_ && !temporary_.empty()) {
            fs_.unlink(temporary_);
            temporary_.clear();
        }
    }

    FileSystem &fs_;
    std::string incoming_;
    std::string root_;
    std::string name_;
    std::string temporary_;
    int fd_ = -1;
    bool finished_ = false;
    bool committed_ = false;
    uint64_t size_ = 0;
    Sha256 sha_;
};

} // namespace

// ---- exported calls ------------------------------------------------------------------------

FsMediaStore::FsMediaStore(std::string root, FileSystem &fs, bool shared)
    : root_(std::move(root)), fs_(fs), shared_(shared) {}

bool valid_media_object_name(const std::string &name) {
    const std::vector<std::string> parts = split(name);
    if (parts.size() != kNameParts || !valid_device_id(parts[0])) {
        return false;
    }
    for (const std::string &part : parts) {
        if (part.empty() || part == "." || part == ".." || part[0] == '.') {
            return false;
        }
    }
    return true;
}

bool FsMediaStore::valid_name(const std::string &name) const {
    return valid_media_object_name(name);
}

std::unique_ptr<MediaUpload> FsMediaStore::begin(const std::string &name) {
    if (!valid_name(name)) {
        throw FileError("not a media object name: " + name, EINVAL);
    }
    const std::string incoming = root_ + "/" + kIncomingDirectory;
    make_directory(incoming, fs_);
    return std::make_unique<FsUpload>(fs_, incoming, root_, name);
}

bool FsMediaStore::read(const std::string &name, const MediaSink &sink) {
    return read_range(name, 0, UINT64_MAX, sink);
}

bool FsMediaStore::read_range(const std::string &name, uint64_t offset, uint64_t length,
                              const MediaSink &sink) {
    if (!valid_name(name)) {
        return false;
    }
    const std::string path = local_path(name);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            return false;
        }
        fail("cannot open", path, errno);
    }
    std::vector<char> chunk(kReadChunk);
    uint64_t left = length;
    auto position = static_cast<off_t>(offset);
    while (left > 0) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(chunk.size(), left));
        const ssize_t n = ::pread(fd, chunk.data(), want, position);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int error_number = errno;
            ::close(fd);
            fail("cannot read", path, error_number);
        }
        if (n == 0 || !sink(chunk.data(), static_cast<size_t>(n))) {
            break;
        }
        position += n;
        left -= static_cast<uint64_t>(n);
    }
    ::close(fd);
    return true;
}

std::optional<uint64_t> FsMediaStore::size(const std::string &name) {
    struct stat st {};
    if (!valid_name(name) || ::stat(local_path(name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(st.st_size);
}

bool FsMediaStore::remove(const std::string &name) {
    if (!valid_name(name)) {
        return false;
    }
    const std::string path = local_path(name);
    if (fs_.unlink(path) != 0) {
        if (errno == ENOENT) {
            return false;
        }
        fail("cannot remove", path, errno);
    }
    sync_directory(fs::path(path).parent_path().string(), fs_);
    return true;
}

std::string FsMediaStore::set_aside(const std::string &name) {
    const std::string quarantine = root_ + "/" + kQuarantineDirectory;
    make_directory(quarantine, fs_);
    std::string flat = name;
    for (char &c : flat) {
        c = c == '/' ? '-' : c;
    }
    const std::string target = quarantine + "/" + std::to_string(std::time(nullptr)) + "-" + flat;
    const std::string path = local_path(name);
    if (fs_.rename_no_replace(path, target) != 0) {
        fail("cannot move " + path + " to", target, errno);
    }
    sync_directory(quarantine, fs_);
    sync_directory(fs::path(path).parent_path().string(), fs_);
    return std::string(kQuarantineDirectory) + "/" + fs::path(target).filename().string();
}

std::vector<MediaObject> FsMediaStore::list() {
    std::vector<MediaObject> objects;
    for (const std::string &device : device_directories(root_)) {
        std::error_code ec;
        for (fs::directory_iterator folder(root_ + "/" + device, ec), end; !ec && folder != end;
             folder.increment(ec)) {
            std::error_code type_ec;
            if (!folder->is_directory(type_ec)) {
                continue;
            }
            const std::string prefix = device + "/" + folder->path().filename().string() + "/";
            std::error_code file_ec;
            for (fs::directory_iterator file(folder->path(), file_ec), stop;
                 !file_ec && file != stop; file.increment(file_ec)) {
                const std::string name = prefix + file->path().filename().string();
                std::error_code size_ec;
                if (valid_name(name) && file->is_regular_file(size_ec)) {
                    const uintmax_t bytes = file->file_size(size_ec);
                    objects.push_back(MediaObject{name, size_ec ? 0 : uint64_t{bytes}});
                }
            }
            if (file_ec) {
                throw FileError("cannot list " + folder->path().string() + ": " + file_ec.message(),
                                file_ec.value());
            }
        }
        if (ec) {
            throw FileError("cannot list " + root_ + "/" + device + ": " + ec.message(),
                            ec.value());
        }
    }
    std::sort(objects.begin(), objects.end(),
              [](const MediaObject &a, const MediaObject &b) { return a.name < b.name; });
    return objects;
}

std::string FsMediaStore::local_path(const std::string &name) const {
    return root_ + "/" + name;
}

size_t FsMediaStore::sweep_temporary() {
    const std::string incoming = root_ + "/" + kIncomingDirectory;
    make_directory(incoming, fs_);
    size_t removed = 0;
    std::error_code ec;
    const std::time_t now = std::time(nullptr);
    for (fs::directory_iterator it(incoming, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat st {};
        if (shared_ && (::lstat(it->path().c_str(), &st) != 0 ||
                        now - st.st_mtime < static_cast<std::time_t>(kStaleUploadAge))) {
            continue; // possibly another service's upload, still being written
        }
        std::error_code remove_ec;
        if (fs::remove(it->path(), remove_ec)) {
            ++removed;
        }
    }
    if (removed > 0) {
        sync_directory(incoming, fs_);
    }
    return removed;
}

std::optional<std::string> object_sha256(MediaStore &store, const std::string &name) {
    Sha256 sha;
    if (!store.read(name, [&sha](const char *data, size_t size) {
            sha.add(data, size);
            return true;
        })) {
        return std::nullopt;
    }
    return sha.text();
}

} // namespace vexo_cloud

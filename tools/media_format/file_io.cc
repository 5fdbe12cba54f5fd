// Reading media files from disk, bounded by kMaxFileBytes.
#include "media_format.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace vexo_media {
namespace {

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool fail(Fault *fault, const std::string &path, uint64_t offset, std::string message) {
    fault->file = path;
    fault->offset = offset;
    fault->message = std::move(message);
    return false;
}

} // namespace

bool read_bytes(const std::string &path, std::vector<uint8_t> *bytes, Fault *fault) {
    bytes->clear();
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        return fail(fault, path, 0, std::string("cannot open: ") + std::strerror(errno));
    }
    struct stat info {};
    if (fstat(fileno(file.get()), &info) != 0) {
        return fail(fault, path, 0, std::string("cannot stat: ") + std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return fail(fault, path, 0, "not a regular file");
    }
    const auto size = static_cast<uint64_t>(info.st_size);
    if (size > kMaxFileBytes) {
        return fail(fault, path, 0,
                    "file of " + std::to_string(size) + " bytes is over the limit of " +
                        std::to_string(kMaxFileBytes));
    }
    bytes->resize(static_cast<size_t>(size));
    const size_t got = size == 0 ? 0 : std::fread(bytes->data(), 1, bytes->size(), file.get());
    if (got != bytes->size()) {
        const bool error = std::ferror(file.get()) != 0;
        bytes->resize(got);
        return fail(fault, path, got, error ? "read error" : "file ended early while read");
    }
    return true;
}

bool read_file(const std::string &path, std::vector<Entry> *entries, Fault *fault) {
    std::vector<uint8_t> bytes;
    if (!read_bytes(path, &bytes, fault)) {
        return false;
    }
    return parse(path, bytes, entries, fault);
}

} // namespace vexo_media

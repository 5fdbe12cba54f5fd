// The persistent key-value store on files, and the record serialiser.
//
// A record lives in its own file, <data_dir>/kv/<key>.rec. A write never touches the live file:
// it fills a private temporary file next to it, flushes it to disk and renames it over the
// record, then flushes the directory, so after a crash at any point the record holds either the
// old bytes or the new ones. Temporary files left by a crash are never read and are removed when
// the store starts. Buffers handed out by reads are remembered with their sizes, so the
// deserialiser never reads past the end of a short (truncated) record.
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/kv_record.h"
#include "durable_file.h"
#include "host_internal.h"
#include "unique_fd.h"
#include "vexo_kv.h"
#include "vexo_thread.h"

namespace {

constexpr int32_t kBadArgument = -1;
constexpr int32_t kIoError = -2;
constexpr int32_t kNoRecord = -6; // the record does not exist

constexpr size_t kMaxKeyLength = 64;
constexpr char kRecordSuffix[] = ".rec";
/// Files larger than this are not records of this store: refused rather than loaded.
constexpr off_t kMaxRecordFile = off_t{64} * 1024 * 1024;

std::mutex g_mu;
std::string g_kv_dir; // "<data_dir>/kv", empty until kv_start
hostkit::FileSystem *g_fs = &hostkit::real_file_system();
/// Buffers handed out by iot_wd_common_read, with their sizes.
std::map<uint8_t *, size_t, std::less<>> g_reads;

bool safe_key(const std::string &key) {
    if (key.empty() || key.size() > kMaxKeyLength || key[0] == '.') {
        return false;
    }
    for (char c : key) {
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

bool all_digits(const std::string &s) {
    if (s.empty()) {
        return false;
    }
    for (char c : s) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

/// True for the name of a temporary file a write leaves behind: "<key>.rec.tmp.<pid>.<n>".
/// Record files end in ".rec", so no record is ever taken for one.
bool is_temp_name(const std::string &name) {
    size_t infix = name.rfind(hostkit::kTempInfix);
    if (infix == std::string::npos) {
        return false;
    }
    std::string tail = name.substr(infix + std::strlen(hostkit::kTempInfix));
    size_t dot = tail.find('.');
    return dot != std::string::npos && all_digits(tail.substr(0, dot)) &&
           all_digits(tail.substr(dot + 1));
}

bool make_dir(const std::string &path) {
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) {
        return true;
    }
    hostkit::internal::log_error("kv: cannot make %s: %s", path.c_str(), std::strerror(errno));
    return false;
}

hostkit::FileSystem &file_system() {
    std::lock_guard<std::mutex> lock(g_mu);
    return *g_fs;
}

void remove_temp_files(hostkit::FileSystem &fs, const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        hostkit::internal::log_error("kv: cannot list %s: %s", dir.c_str(), std::strerror(errno));
        return;
    }
    std::vector<std::string> leftovers;
    while (const struct dirent *entry = readdir(d)) {
        std::string name = entry->d_name;
        if (is_temp_name(name)) {
            leftovers.push_back(name);
        }
    }
    closedir(d);
    for (const std::string &name : leftovers) {
        std::string path = dir;
        path += '/';
        path += name;
        if (fs.unlink(path) != 0 && errno != ENOENT) {
            hostkit::internal::log_error("kv: cannot remove %s: %s", path.c_str(),
                                         std::strerror(errno));
        } else {
            hostkit::internal::log_debug("kv: removed unfinished write %s", path.c_str());
        }
    }
}

int32_t write_record(const std::string &path, const uint8_t *value, uint32_t len) {
    const hostkit::DurableWrite written = hostkit::durable_write(file_system(), path, value, len);
    if (written.failed_step != nullptr) {
        hostkit::internal::log_error("kv: %s of %s failed: %s", written.failed_step,
                                     written.temp.c_str(), std::strerror(written.error));
        return kIoError;
    }
    if (written.directory_unsynced) {
        hostkit::internal::log_error("kv: cannot flush the directory of %s: %s", path.c_str(),
                                     std::strerror(written.error));
        return kIoError;
    }
    return 0;
}

/// Reads a whole record file into a Malloc block; kNoRecord when it does not exist.
int32_t read_record(const std::string &path, uint8_t **value, uint32_t *len) {
    hostkit::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ENOENT) {
            return kNoRecord;
        }
        hostkit::internal::log_error("kv: cannot open %s: %s", path.c_str(), std::strerror(errno));
        return kIoError;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxRecordFile) {
        hostkit::internal::log_error("kv: %s is not a readable record file", path.c_str());
        return kIoError;
    }
    size_t size = static_cast<size_t>(st.st_size);
    uint8_t *buf = static_cast<uint8_t *>(Malloc(size > 0 ? size : 1));
    if (buf == nullptr) {
        hostkit::internal::log_error("kv: no memory for %zu bytes of %s", size, path.c_str());
        return kIoError;
    }
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd.get(), buf + got, size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            hostkit::internal::log_error("kv: cannot read %s: %s", path.c_str(),
                                         std::strerror(errno));
            Free(buf);
            return kIoError;
        }
        if (n == 0) {
            break; // shorter than it was a moment ago: hand out what is there
        }
        got += static_cast<size_t>(n);
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_reads.emplace(buf, got);
    }
    *value = buf;
    *len = static_cast<uint32_t>(got);
    return 0;
}

/// Bytes readable at `in`: the size of a buffer handed out by a read, else as many as a
/// record's header may declare (the caller's own memory, e.g. a serialiser output).
size_t readable_at(const uint8_t *in) {
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_reads.find(in);
    return it != g_reads.end() ? it->second : kitcommon::kKvRecordMaxSize;
}

std::string kv_dir() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_kv_dir;
}

} // namespace

namespace hostkit::internal {

void kv_start(const std::string &data_dir, FileSystem *fs) {
    FileSystem &used = fs != nullptr ? *fs : real_file_system();
    std::string dir = (data_dir.empty() ? std::string(".") : data_dir) + "/kv";
    if (make_dir(data_dir.empty() ? "." : data_dir) && make_dir(dir)) {
        remove_temp_files(used, dir);
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_kv_dir = dir;
    g_fs = &used;
}

} // namespace hostkit::internal

namespace hostkit::kv {

std::string record_path(const std::string &key) {
    std::string dir = kv_dir();
    if (dir.empty() || !safe_key(key)) {
        return "";
    }
    return dir + "/" + key + kRecordSuffix;
}

} // namespace hostkit::kv

extern "C" {

int32_t iot_wd_utils_serialize(const vexo_kv_entry_t *entries, uint32_t count, uint8_t **out,
                               uint32_t *out_len) {
    if (out == nullptr || out_len == nullptr) {
        hostkit::internal::log_error("iot_wd_utils_serialize: null output");
        return kitcommon::kKvBadArgument;
    }
    std::vector<uint8_t> bytes;
    int32_t ret = kitcommon::kv_entries_encode(entries, count, &bytes);
    if (ret != 0) {
        hostkit::internal::log_error("iot_wd_utils_serialize: bad entries (%d)",
                                     static_cast<int>(ret));
        return ret;
    }
    uint8_t *block = static_cast<uint8_t *>(Malloc(bytes.size()));
    if (block == nullptr) {
        hostkit::internal::log_error("iot_wd_utils_serialize: no memory for %zu bytes",
                                     bytes.size());
        return kitcommon::kKvBadArgument;
    }
    std::memcpy(block, bytes.data(), bytes.size());
    *out = block;
    *out_len = static_cast<uint32_t>(bytes.size());
    return 0;
}

int32_t iot_wd_utils_deserialize(const uint8_t *in, vexo_kv_entry_t *entries, uint32_t count) {
    if (in == nullptr) {
        hostkit::internal::log_error("iot_wd_utils_deserialize: null record");
        return kitcommon::kKvBadArgument;
    }
    int32_t ret = kitcommon::kv_entries_decode(in, readable_at(in), entries, count);
    if (ret == kitcommon::kKvCorrupt) {
        hostkit::internal::log_error("iot_wd_utils_deserialize: damaged record");
    }
    return ret;
}

int32_t iot_wd_common_read(const char *key, uint8_t **value, uint32_t *len) {
    if (key == nullptr || value == nullptr || len == nullptr) {
        hostkit::internal::log_error("iot_wd_common_read: null argument");
        return kBadArgument;
    }
    std::string path = hostkit::kv::record_path(key);
    if (path.empty()) {
        hostkit::internal::log_error("iot_wd_common_read: unusable key '%s' or store not started",
                                     key);
        return kBadArgument;
    }
    return read_record(path, value, len);
}

int32_t iot_wd_common_write(const char *key, const uint8_t *value, uint32_t len) {
    if (key == nullptr || (value == nullptr && len > 0)) {
        hostkit::internal::log_error("iot_wd_common_write: null argument");
        return kBadArgument;
    }
    std::string path = hostkit::kv::record_path(key);
    if (path.empty()) {
        hostkit::internal::log_error("iot_wd_common_write: unusable key '%s' or store not started",
                                     key);
        return kBadArgument;
    }
    return write_record(path, value, len);
}

int32_t iot_wd_common_free_data(uint8_t *data) {
    if (data == nullptr) {
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        auto it = g_reads.find(data);
        if (it != g_reads.end()) {
            g_reads.erase(it);
            Free(data);
            return 0;
        }
    }
    hostkit::internal::log_error("iot_wd_common_free_data: buffer %p was not handed out by a read",
                                 static_cast<void *>(data));
    return kBadArgument;
}

} // extern "C"

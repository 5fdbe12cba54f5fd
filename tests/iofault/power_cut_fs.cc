// The journal of a PowerCutFs and the rebuild of a directory after a cut.
#include "power_cut_fs.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace iofault {

const CutModel kCutModels[4] = {
    {"names and data synced only", false, false},
    {"names and data synced only, half of unsynced data", false, true},
    {"every name, synced data only", true, false},
    {"every name, half of unsynced data", true, true},
};

namespace {

std::string read_whole(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

hostkit::FileSystem &real() {
    return hostkit::real_file_system();
}

} // namespace

PowerCutFs::PowerCutFs(std::string dir) : dir_(std::move(dir)) {
    for (const auto &entry : std::filesystem::directory_iterator(dir_)) {
        if (entry.is_regular_file()) {
            initial_[entry.path().filename().string()] = read_whole(entry.path());
        }
    }
}

std::string PowerCutFs::name_of(const std::string &path) const {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || path.substr(0, slash) != dir_) {
        ADD_FAILURE() << path << " is outside " << dir_;
        return path;
    }
    return path.substr(slash + 1);
}

int PowerCutFs::open(const std::string &path, int flags, mode_t mode) {
    const int fd = real().open(path, flags, mode);
    if (fd >= 0) {
        // The stores only ever create new files (O_EXCL), so an open is a new, empty file.
        EXPECT_NE(flags & O_EXCL, 0) << path;
        journal_.push_back({Kind::kOpen, fd, name_of(path), "", ""});
    }
    return fd;
}

ssize_t PowerCutFs::write(int fd, const void *data, size_t len) {
    const ssize_t n = real().write(fd, data, len);
    if (n > 0) {
        journal_.push_back(
            {Kind::kWrite, fd, "", "", std::string(static_cast<const char *>(data), n)});
    }
    return n;
}

int PowerCutFs::fsync(int fd) {
    const int ret = real().fsync(fd);
    if (ret == 0) {
        journal_.push_back({Kind::kFsync, fd, "", "", ""});
    }
    return ret;
}

int PowerCutFs::close(int fd) {
    journal_.push_back({Kind::kClose, fd, "", "", ""});
    return real().close(fd);
}

int PowerCutFs::rename(const std::string &from, const std::string &to) {
    const int ret = real().rename(from, to);
    if (ret == 0) {
        journal_.push_back({Kind::kRename, -1, name_of(from), name_of(to), ""});
    }
    return ret;
}

int PowerCutFs::unlink(const std::string &path) {
    const int ret = real().unlink(path);
    if (ret == 0) {
        journal_.push_back({Kind::kUnlink, -1, name_of(path), "", ""});
    }
    return ret;
}

int PowerCutFs::sync_dir(const std::string &dir) {
    const int ret = real().sync_dir(dir);
    EXPECT_EQ(dir, dir_);
    if (ret == 0) {
        journal_.push_back({Kind::kSyncDir, -1, "", "", ""});
    }
    return ret;
}

void PowerCutFs::rebuild(size_t cut, const CutModel &model, const std::string &out) const {
    struct Inode {
        std::string synced;
        std::string written;
    };
    std::vector<Inode> inodes;
    std::map<std::string, size_t> names;   // as the process saw them
    std::map<std::string, size_t> durable; // as of the last directory sync
    std::map<int, size_t> open_files;
    for (const auto &[name, content] : initial_) {
        names[name] = durable[name] = inodes.size();
        inodes.push_back({content, content});
    }
    for (size_t i = 0; i < cut && i < journal_.size(); ++i) {
        const Call &call = journal_[i];
        switch (call.kind) {
        case Kind::kOpen:
            names[call.name] = open_files[call.fd] = inodes.size();
            inodes.emplace_back();
            break;
        case Kind::kWrite:
            inodes[open_files.at(call.fd)].written += call.bytes;
            break;
        case Kind::kFsync: {
            Inode &inode = inodes[open_files.at(call.fd)];
            inode.synced = inode.written;
            break;
        }
        case Kind::kClose:
            open_files.erase(call.fd);
            break;
        case Kind::kRename:
            names[call.to] = names.at(call.name);
            names.erase(call.name);
            break;
        case Kind::kUnlink:
            names.erase(call.name);
            break;
        case Kind::kSyncDir:
            durable = names;
            break;
        }
    }
    for (const auto &[name, index] : model.unsynced_names_kept ? names : durable) {
        const Inode &inode = inodes[index];
        std::string content = inode.synced;
        if (model.half_of_unsynced_data_kept) {
            // Writes only ever append, so what was written extends what was synced.
            const size_t unsynced = inode.written.size() - inode.synced.size();
            content += inode.written.substr(inode.synced.size(), unsynced / 2);
        }
        std::ofstream file(out + "/" + name, std::ios::binary | std::ios::trunc);
        file.write(content.data(), static_cast<std::streamsize>(content.size()));
        EXPECT_TRUE(file.good()) << out << "/" << name;
    }
}

} // namespace iofault

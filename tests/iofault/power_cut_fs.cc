// The journal of a PowerCutFs, the rebuild of a directory after a cut, and the cut sweep.
#include "power_cut_fs.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "durable_file.h"
#include "tests/support/temp_dir.h"

namespace iofault {
namespace {

const CutModel kCutModels[] = {
    {"names and data synced only", false, false},
    {"names and data synced only, half of unsynced data", false, true},
    {"every name, synced data only", true, false},
    {"every name, half of unsynced data", true, true},
};

hostkit::FileSystem &real() {
    return hostkit::real_file_system();
}

} // namespace

PowerCutFs::PowerCutFs(std::string dir) : dir_(std::move(dir)) {
    for (const auto &entry : std::filesystem::directory_iterator(dir_)) {
        std::ifstream in(entry.path(), std::ios::binary);
        initial_[entry.path().filename().string()].assign(std::istreambuf_iterator<char>(in), {});
    }
}

std::string PowerCutFs::name_of(const std::string &path) const {
    EXPECT_EQ(path.substr(0, path.rfind('/')), dir_) << path;
    return path.substr(path.rfind('/') + 1);
}

int PowerCutFs::open(const std::string &path, int flags, mode_t mode) {
    const int fd = real().open(path, flags, mode);
    // The stores only ever create new files (O_EXCL), so an open is a new, empty file.
    EXPECT_NE(flags & O_EXCL, 0) << path;
    if (fd >= 0) {
        journal_.push_back({Op::kOpen, fd, name_of(path), "", ""});
    }
    return fd;
}

ssize_t PowerCutFs::write(int fd, const void *data, size_t len) {
    const ssize_t n = real().write(fd, data, len);
    if (n > 0) {
        journal_.push_back(
            {Op::kWrite, fd, "", "", std::string(static_cast<const char *>(data), n)});
    }
    return n;
}

int PowerCutFs::fsync(int fd) {
    const int ret = real().fsync(fd);
    if (ret == 0) {
        journal_.push_back({Op::kFsync, fd, "", "", ""});
    }
    return ret;
}

int PowerCutFs::close(int fd) {
    journal_.push_back({Op::kClose, fd, "", "", ""});
    return real().close(fd);
}

int PowerCutFs::rename(const std::string &from, const std::string &to) {
    const int ret = real().rename(from, to);
    if (ret == 0) {
        journal_.push_back({Op::kRename, -1, name_of(from), name_of(to), ""});
    }
    return ret;
}

int PowerCutFs::unlink(const std::string &path) {
    const int ret = real().unlink(path);
    if (ret == 0) {
        journal_.push_back({Op::kUnlink, -1, name_of(path), "", ""});
    }
    return ret;
}

int PowerCutFs::sync_dir(const std::string &dir) {
    EXPECT_EQ(dir, dir_);
    const int ret = real().sync_dir(dir);
    if (ret == 0) {
        journal_.push_back({Op::kSyncDir, -1, "", "", ""});
    }
    return ret;
}

void PowerCutFs::rebuild(size_t cut, const CutModel &model, const std::string &out) const {
    struct Inode {
        std::string synced;
        std::string written; ///< writes only ever append, so this extends `synced`
    };
    std::vector<Inode> inodes;
    std::map<std::string, size_t> names;   // as the process saw them
    std::map<std::string, size_t> durable; // as of the last directory sync
    std::map<int, size_t> open_files;
    for (const auto &[name, content] : initial_) {
        names[name] = durable[name] = inodes.size();
        inodes.push_back({content, content});
    }
    for (size_t i = 0; i < cut; ++i) {
        const Call &call = journal_[i];
        switch (call.op) {
        case Op::kOpen:
            names[call.name] = open_files[call.fd] = inodes.size();
            inodes.emplace_back();
            break;
        case Op::kWrite:
            inodes[open_files.at(call.fd)].written += call.bytes;
            break;
        case Op::kFsync:
            inodes[open_files.at(call.fd)].synced = inodes[open_files.at(call.fd)].written;
            break;
        case Op::kClose:
            open_files.erase(call.fd);
            break;
        case Op::kRename:
            names[call.to] = names.at(call.name);
            names.erase(call.name);
            break;
        case Op::kUnlink:
            names.erase(call.name);
            break;
        case Op::kSyncDir:
            durable = names;
            break;
        }
    }
    for (const auto &[name, index] : model.unsynced_names_kept ? names : durable) {
        const Inode &inode = inodes[index];
        const size_t unsynced = inode.written.size() - inode.synced.size();
        const std::string content =
            inode.synced + (model.half_of_unsynced_data_kept
                                ? inode.written.substr(inode.synced.size(), unsynced / 2)
                                : "");
        std::ofstream(out + "/" + name, std::ios::binary) << content;
    }
}

void cut_sweep(const CutCase &c) {
    vexo_test::TempDir root("vexo-cut");
    std::filesystem::create_directory(root.file(c.subdir));
    PowerCutFs fs(root.file(c.subdir));
    CutScript script(fs);
    ASSERT_NO_FATAL_FAILURE(c.run(root.path(), fs, script));
    for (size_t cut = 0; cut <= fs.calls(); ++cut) {
        for (const CutModel &model : kCutModels) {
            SCOPED_TRACE("cut after " + std::to_string(cut) + " calls, " + model.label);
            vexo_test::TempDir image("vexo-cut-image");
            std::filesystem::create_directory(image.file(c.subdir));
            fs.rebuild(cut, model, image.file(c.subdir));
            const std::map<std::string, std::string> held = c.reopen(image.path());
            const auto got = [&held](const std::string &key) -> std::optional<std::string> {
                const auto it = held.find(key);
                return it == held.end() ? std::nullopt : std::optional<std::string>(it->second);
            };
            // What each key holds once the operations that returned took effect, and before.
            std::map<std::string, std::optional<std::string>> acked;
            std::map<std::string, std::optional<std::string>> undo;
            std::vector<const CutScript::Op *> under_way;
            for (const CutScript::Op &op : script.ops()) {
                for (const Effect &e : op.end <= cut ? op.effects : std::vector<Effect>{}) {
                    if (op.undoable) {
                        undo[e.key] = acked[e.key];
                    } else {
                        undo.erase(e.key);
                    }
                    acked[e.key] = e.value;
                }
                if (op.begin < cut && cut < op.end) {
                    under_way.push_back(&op);
                }
            }
            for (const CutScript::Op *op : under_way) {
                size_t taken = 0; // effects that show
                for (const Effect &e : op->effects) {
                    taken += got(e.key) == e.value && got(e.key) != acked[e.key];
                }
                EXPECT_TRUE(!op->atomic || taken == 0 || taken == op->effects.size())
                    << taken << " of an atomic operation's " << op->effects.size() << " effects";
            }
            for (const auto &[key, value] : held) {
                acked.emplace(key, std::nullopt); // anything else must not be there
            }
            for (const auto &[key, value] : acked) {
                bool ok = got(key) == value || (undo.count(key) != 0 && got(key) == undo[key]);
                for (const CutScript::Op *op : under_way) {
                    for (const Effect &e : op->effects) {
                        ok = ok || (e.key == key && got(key) == e.value);
                    }
                }
                EXPECT_TRUE(ok) << key << " holds " << got(key).value_or("nothing").size()
                                << " bytes";
            }
            for (const auto &entry : std::filesystem::directory_iterator(image.file(c.subdir))) {
                EXPECT_EQ(entry.path().string().find(hostkit::kTempInfix), std::string::npos)
                    << entry.path() << " left";
            }
        }
    }
}

} // namespace iofault

// The states a PowerCutFs keeps, the directory a cut leaves, and the cut sweep.
#include "power_cut_fs.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "durable_file.h"
#include "tests/support/temp_dir.h"

namespace iofault {
namespace {

hostkit::FileSystem &real() {
    return hostkit::real_file_system();
}

} // namespace

PowerCutFs::PowerCutFs(std::string dir) : dir_(std::move(dir)) {
    for (const auto &entry : std::filesystem::directory_iterator(dir_)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        const std::string content = bytes.str();
        now_.names[entry.path().filename()] = now_.inodes.size();
        now_.inodes.push_back({content, content});
    }
    now_.durable = now_.names;
    note(0);
}

std::string PowerCutFs::name_of(const std::string &path) const {
    EXPECT_EQ(path.substr(0, path.rfind('/')), dir_) << path;
    return path.substr(path.rfind('/') + 1);
}

int PowerCutFs::open(const std::string &path, int flags, mode_t mode) {
    EXPECT_NE(flags & O_EXCL, 0) << path; // so an open is a new, empty file
    const int fd = real().open(path, flags, mode);
    if (fd >= 0) {
        now_.names[name_of(path)] = now_.fds[fd] = now_.inodes.size();
        now_.inodes.emplace_back();
    }
    return note(fd);
}

ssize_t PowerCutFs::write(int fd, const void *data, size_t len) {
    const ssize_t n = real().write(fd, data, len);
    now_.inodes[now_.fds.at(fd)].written.append(static_cast<const char *>(data),
                                                static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return note(n);
}

int PowerCutFs::fsync(int fd) {
    Inode &inode = now_.inodes[now_.fds.at(fd)];
    inode.synced = inode.written;
    return note(real().fsync(fd));
}

int PowerCutFs::close(int fd) {
    now_.fds.erase(fd);
    return note(real().close(fd));
}

int PowerCutFs::rename(const std::string &from, const std::string &to) {
    now_.names[name_of(to)] = now_.names.at(name_of(from));
    now_.names.erase(name_of(from));
    return note(real().rename(from, to));
}

int PowerCutFs::unlink(const std::string &path) {
    now_.names.erase(name_of(path));
    return note(real().unlink(path));
}

int PowerCutFs::sync_dir(const std::string &dir) {
    EXPECT_EQ(dir, dir_);
    now_.durable = now_.names;
    return note(real().sync_dir(dir));
}

void PowerCutFs::rebuild(size_t cut, bool unsynced_names, bool half_unsynced_data,
                         const std::string &out) const {
    const State &state = states_.at(cut);
    for (const auto &[name, index] : unsynced_names ? state.names : state.durable) {
        const Inode &inode = state.inodes[index];
        const size_t unsynced = inode.written.size() - inode.synced.size();
        std::ofstream(out + "/" + name, std::ios::binary)
            << inode.synced
            << inode.written.substr(inode.synced.size(), half_unsynced_data ? unsynced / 2 : 0);
    }
}

void cut_sweep(const CutCase &c) {
    vexo_test::TempDir root("vexo-cut");
    std::filesystem::create_directory(root.file(c.subdir));
    PowerCutFs fs(root.file(c.subdir));
    CutScript script;
    ASSERT_NO_FATAL_FAILURE(c.run(root.path(), fs, script));
    for (size_t cut = 0; cut <= fs.calls(); ++cut) {
        for (const int model : {0, 1, 2, 3}) {
            SCOPED_TRACE("cut after call " + std::to_string(cut) + ", model " +
                         std::to_string(model));
            vexo_test::TempDir image("vexo-cut-image");
            std::filesystem::create_directory(image.file(c.subdir));
            fs.rebuild(cut, model & 1, model & 2, image.file(c.subdir));
            const std::map<std::string, std::string> held = c.reopen(image.path());
            const auto got = [&held](const std::string &key) {
                const auto it = held.find(key);
                return it == held.end() ? std::nullopt : std::optional<std::string>(it->second);
            };
            Effects acked; // once the operations that returned took effect
            Effects undo;  // what an undoable one may have left instead
            Effects allowed;
            for (const auto &[key, value] : held) {
                acked[key]; // nothing else may be there
            }
            for (const CutScript::Op &op : script.ops) {
                const bool done = op.end <= cut;
                const bool under_way = op.begin < cut && !done;
                size_t shown = 0; // of the effects of one under way
                for (const auto &[key, value] : op.effects) {
                    if (done && op.undoable) {
                        undo[key] = acked[key];
                    } else if (done) {
                        undo.erase(key);
                    }
                    shown += under_way && got(key) == value && got(key) != acked[key];
                    if (done || under_way) {
                        (done ? acked : allowed)[key] = value;
                        acked.emplace(key, std::nullopt);
                    }
                }
                EXPECT_TRUE(!op.atomic || shown == 0 || shown == op.effects.size())
                    << shown << " of an atomic operation's " << op.effects.size() << " effects";
            }
            for (const auto &[key, value] : acked) {
                EXPECT_TRUE(got(key) == value || (allowed.count(key) && got(key) == allowed[key]) ||
                            (undo.count(key) && got(key) == undo[key]))
                    << key << " holds " << got(key).value_or("nothing").size() << " bytes";
            }
            for (const auto &entry : std::filesystem::directory_iterator(image.file(c.subdir))) {
                EXPECT_EQ(entry.path().string().find(hostkit::kTempInfix), std::string::npos)
                    << entry.path();
            }
        }
    }
}

} // namespace iofault

// Every file-system call of a media upload and of an atomic file replacement in the service's
// data directory fails in turn, with a full device and with an I/O error: the call throws,
// no temporary file is left, and the store read again from disk holds every object committed
// before, and the new one whole or not at all.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "durable_file.h"
#include "fs_media_store.h"
#include "media_names.h"
#include "tests/support/temp_dir.h"

namespace {

using vexo_cloud::FileError;
using vexo_cloud::FsMediaStore;

/// Passes every call to the disk, counting them; one chosen call fails without doing
/// anything, except that a failing write writes half its bytes first and a failing close
/// still releases the descriptor (as close(2) does on Linux).
class ServiceFaultyFs : public vexo_cloud::FileSystem {
  public:
    const std::vector<std::string> &calls() const { return calls_; }
    void fail_call(size_t index, int error) {
        fail_at_ = index;
        error_ = error;
    }

    int create_temporary(std::string *pattern) override {
        return fails("create_temporary") ? -1 : real().create_temporary(pattern);
    }
    int open(const std::string &path, int flags, mode_t mode) override {
        return fails("open") ? -1 : real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void *data, size_t len) override {
        if (fails("write")) {
            // What a device filling up mid-write leaves: the first half, then the error.
            real().write(fd, data, len / 2);
            errno = error_;
            return -1;
        }
        return real().write(fd, data, len);
    }
    int fsync(int fd) override { return fails("fsync") ? -1 : real().fsync(fd); }
    int close(int fd) override {
        if (fails("close")) {
            real().close(fd);
            errno = error_;
            return -1;
        }
        return real().close(fd);
    }
    int mkdir(const std::string &path, mode_t mode) override {
        return fails("mkdir") ? -1 : real().mkdir(path, mode);
    }
    int rename(const std::string &from, const std::string &to) override {
        return fails("rename") ? -1 : real().rename(from, to);
    }
    int rename_no_replace(const std::string &from, const std::string &to) override {
        return fails("rename_no_replace") ? -1 : real().rename_no_replace(from, to);
    }
    int unlink(const std::string &path) override {
        return fails("unlink") ? -1 : real().unlink(path);
    }
    int sync_dir(const std::string &dir) override {
        return fails("sync_dir") ? -1 : real().sync_dir(dir);
    }

  private:
    static vexo_cloud::FileSystem &real() { return vexo_cloud::real_file_system(); }
    bool fails(const char *name) {
        const bool fail = calls_.size() == fail_at_;
        calls_.emplace_back(name);
        if (fail) {
            errno = error_;
        }
        return fail;
    }

    std::vector<std::string> calls_;
    size_t fail_at_ = SIZE_MAX;
    int error_ = 0;
};

void upload(FsMediaStore &store, const std::string &name, const std::string &bytes) {
    std::unique_ptr<vexo_cloud::MediaUpload> up = store.begin(name);
    up->write(bytes.data(), bytes.size() / 2);
    up->write(bytes.data() + bytes.size() / 2, bytes.size() - bytes.size() / 2);
    up->finish();
    if (!up->commit()) {
        throw FileError(name + " is already there", EEXIST);
    }
}

std::string object(FsMediaStore &store, const std::string &name) {
    std::string bytes;
    store.read(name, [&bytes](const char *data, size_t size) {
        bytes.append(data, size);
        return true;
    });
    return bytes;
}

std::vector<std::string> files_under(const std::string &dir) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (!entry.is_directory()) {
            names.push_back(entry.path().lexically_relative(dir).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

const std::string kKept = "cam1/1700000000/a.vxm";
const std::string kKeptBytes(3000, 'k');
const std::string kNewBytes(70000, 'n');

struct Case {
    const char *name;
    std::string object; ///< the upload's object name
};

const Case kCases[] = {
    {"an upload beside a committed object", "cam1/1700000000/b.vxm"},
    {"an upload into a new recording", "cam1/1700000100/c.vxm"},
};

TEST(ServiceFaults, EveryFailedStepOfAnUploadLeavesItWholeOrAbsent) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        size_t first = 0;
        size_t steps = 0;
        {
            vexo_test::TempDir root("vexo-media-faults");
            ServiceFaultyFs fs;
            FsMediaStore store(root.path(), fs);
            upload(store, kKept, kKeptBytes);
            first = fs.calls().size();
            upload(store, c.object, kNewBytes);
            steps = fs.calls().size() - first;
        }
        // Directories, temporary file, two writes, sync, close, rename, directory syncs.
        ASSERT_GE(steps, 9u);
        for (size_t step = 0; step < steps; ++step) {
            for (const int error : {ENOSPC, EIO}) {
                vexo_test::TempDir root("vexo-media-faults");
                ServiceFaultyFs fs;
                {
                    FsMediaStore store(root.path(), fs);
                    upload(store, kKept, kKeptBytes);
                    fs.fail_call(first + step, error);
                    EXPECT_THROW(upload(store, c.object, kNewBytes), FileError)
                        << "step " << step << " (" << fs.calls()[first + step]
                        << ") failed unreported with " << std::strerror(error);
                }
                const std::string incoming = root.path() + "/" + vexo_cloud::kIncomingDirectory;
                EXPECT_TRUE(files_under(incoming).empty()) << "a temporary file was left";

                FsMediaStore reopened(root.path());
                reopened.sweep_temporary();
                EXPECT_EQ(object(reopened, kKept), kKeptBytes);
                const std::string got = object(reopened, c.object);
                EXPECT_TRUE(got.empty() || got == kNewBytes) << got.size() << " bytes";
                for (const vexo_cloud::MediaObject &o : reopened.list()) {
                    EXPECT_TRUE(o.name == kKept || o.name == c.object) << o.name;
                }
            }
        }
    }
}

TEST(ServiceFaults, EveryFailedStepOfAFileReplacementLeavesTheOldOrTheNewFile) {
    size_t first = 0;
    size_t steps = 0;
    {
        vexo_test::TempDir dir("vexo-atomic-faults");
        ServiceFaultyFs fs;
        vexo_cloud::write_file_atomic(dir.path(), "state.json", "old", fs);
        first = fs.calls().size();
        vexo_cloud::write_file_atomic(dir.path(), "state.json", kNewBytes, fs);
        steps = fs.calls().size() - first;
    }
    ASSERT_EQ(steps, 6u); // temporary file, write, sync, close, rename, directory sync
    for (size_t step = 0; step < steps; ++step) {
        for (const int error : {ENOSPC, EIO}) {
            vexo_test::TempDir dir("vexo-atomic-faults");
            ServiceFaultyFs fs;
            vexo_cloud::write_file_atomic(dir.path(), "state.json", "old", fs);
            fs.fail_call(first + step, error);
            EXPECT_THROW(vexo_cloud::write_file_atomic(dir.path(), "state.json", kNewBytes, fs),
                         FileError)
                << fs.calls()[first + step] << " failed unreported";
            EXPECT_EQ(files_under(dir.path()), std::vector<std::string>{"state.json"});
            const std::string got = vexo_cloud::read_file(dir.path() + "/state.json");
            EXPECT_TRUE(got == "old" || got == kNewBytes) << got.size() << " bytes";
        }
    }
}

TEST(ServiceFaults, EveryFailedStepOfAnAppendedLineLeavesNoPartOfIt) {
    vexo_test::TempDir dir("vexo-append-faults");
    const std::string log = dir.file("log.jsonl");
    const std::string line(5000, 'l');
    ServiceFaultyFs fs;
    vexo_cloud::append_line(log, "first", fs);
    const size_t first = fs.calls().size();
    vexo_cloud::append_line(log, line, fs);
    const size_t steps = fs.calls().size() - first;
    ASSERT_EQ(steps, 4u); // open, write, sync, close
    std::string expected = "first\n" + line + "\n";
    // The close's result is not checked (the data was synced before it): three steps to fail.
    for (size_t step = 0; step + 1 < steps; ++step) {
        for (const int error : {ENOSPC, EIO}) {
            fs.fail_call(fs.calls().size() + step, error);
            EXPECT_THROW(vexo_cloud::append_line(log, line, fs), FileError) << step;
            EXPECT_EQ(vexo_cloud::read_file(log), expected) << "step " << step;
            vexo_cloud::append_line(log, "next", fs); // the next line starts whole
            expected += "next\n";
            EXPECT_EQ(vexo_cloud::read_file(log), expected);
        }
    }
}

} // namespace

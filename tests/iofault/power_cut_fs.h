// A file system for the kit's stores that passes every call to the disk and keeps a journal
// of them, from which it rebuilds one directory as a power cut after any call would leave
// it: file data reaches the device only through fsync, and names (created, renamed, removed)
// only through a sync of the directory. The store under test then opens the rebuilt copy.
#ifndef VEXO_TESTS_IOFAULT_POWER_CUT_FS_H
#define VEXO_TESTS_IOFAULT_POWER_CUT_FS_H

#include <map>
#include <string>
#include <vector>

#include "file_system.h"

namespace iofault {

/// What of the unsynced state a cut leaves behind; every mix is a possible outcome.
struct CutModel {
    const char *label;
    /// Names created, renamed or removed since the last directory sync reached the device
    /// (a journaling file system commits them for other reasons); else they are undone.
    bool unsynced_names_kept;
    /// Half of the bytes written since a file's last fsync reached the device; else none.
    bool half_of_unsynced_data_kept;
};

extern const CutModel kCutModels[4];

class PowerCutFs : public hostkit::FileSystem {
  public:
    /// dir: the one directory the store writes in; its files now count as on the device.
    explicit PowerCutFs(std::string dir);

    /// Calls journaled so far: a cut may fall before any of them or after the last.
    size_t calls() const { return journal_.size(); }
    /// Fills `out` (an empty directory) with what dir would hold after a cut following the
    /// first `cut` calls.
    void rebuild(size_t cut, const CutModel &model, const std::string &out) const;

    int open(const std::string &path, int flags, mode_t mode) override;
    ssize_t write(int fd, const void *data, size_t len) override;
    int fsync(int fd) override;
    int close(int fd) override;
    int rename(const std::string &from, const std::string &to) override;
    int unlink(const std::string &path) override;
    int sync_dir(const std::string &dir) override;

  private:
    enum class Kind { kOpen, kWrite, kFsync, kClose, kRename, kUnlink, kSyncDir };
    struct Call {
        Kind kind;
        int fd = -1;
        std::string name; ///< a file name in dir (open, rename, unlink)
        std::string to;   ///< rename's target name
        std::string bytes;
    };
    /// The name of path within dir; records a test failure for a path elsewhere.
    std::string name_of(const std::string &path) const;

    std::string dir_;
    std::map<std::string, std::string> initial_; ///< name -> content when recording began
    std::vector<Call> journal_;
};

} // namespace iofault

#endif

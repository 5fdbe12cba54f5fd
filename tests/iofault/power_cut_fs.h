// Power cuts: a file system for the kit's stores that passes every call to the disk and keeps
// a journal of them, from which it rebuilds the store's directory as a cut after any call
// would leave it: file data reaches the device only through fsync, and names (created,
// renamed, removed) only through a sync of the directory. A driver runs a store's operations
// once, then opens the store on every rebuilt directory and checks what it holds.
#ifndef VEXO_TESTS_IOFAULT_POWER_CUT_FS_H
#define VEXO_TESTS_IOFAULT_POWER_CUT_FS_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "file_system.h"

namespace iofault {

/// What of the unsynced state a cut leaves behind; every mix is a possible outcome.
struct CutModel {
    const char *label;
    /// Names changed since the last directory sync reached the device anyway (a journaling
    /// file system commits them for other reasons); else they are undone.
    bool unsynced_names_kept;
    /// Half of the bytes written since a file's last fsync reached the device; else none.
    bool half_of_unsynced_data_kept;
};

class PowerCutFs : public hostkit::FileSystem {
  public:
    /// dir: the one directory the store writes in; its files now count as on the device.
    explicit PowerCutFs(std::string dir);

    /// Calls journaled so far: a cut may fall before any of them or after the last.
    size_t calls() const { return journal_.size(); }
    /// Fills `out` (an empty directory) with what dir holds after a cut after `cut` calls.
    void rebuild(size_t cut, const CutModel &model, const std::string &out) const;

    int open(const std::string &path, int flags, mode_t mode) override;
    ssize_t write(int fd, const void *data, size_t len) override;
    int fsync(int fd) override;
    int close(int fd) override;
    int rename(const std::string &from, const std::string &to) override;
    int unlink(const std::string &path) override;
    int sync_dir(const std::string &dir) override;

  private:
    enum class Op { kOpen, kWrite, kFsync, kClose, kRename, kUnlink, kSyncDir };
    struct Call {
        Op op;
        int fd = -1;
        std::string name; ///< a file name in dir (open, rename, unlink)
        std::string to;   ///< rename's target name
        std::string bytes;
    };
    std::string name_of(const std::string &path) const;

    std::string dir_;
    std::map<std::string, std::string> initial_; ///< name -> content when the journal began
    std::vector<Call> journal_;
};

/// What a store's key holds after an operation; nullopt: nothing.
struct Effect {
    std::string key;
    std::optional<std::string> value;
};

/// The operations run on a store, with the journal's length before and after each.
class CutScript {
  public:
    explicit CutScript(const PowerCutFs &fs) : fs_(fs) {}
    void begin() { begin_ = fs_.calls(); }
    /// The operation begun last returned with these effects. `atomic`: a cut in the middle
    /// leaves all of them or none. `undoable`: a cut after it may still undo it.
    void done(std::vector<Effect> effects, bool atomic = false, bool undoable = false) {
        ops_.push_back({std::move(effects), atomic, undoable, begin_, fs_.calls()});
    }
    struct Op {
        std::vector<Effect> effects;
        bool atomic;
        bool undoable;
        size_t begin;
        size_t end;
    };
    const std::vector<Op> &ops() const { return ops_; }

  private:
    const PowerCutFs &fs_;
    size_t begin_ = 0;
    std::vector<Op> ops_;
};

struct CutCase {
    const char *subdir; ///< the store's directory in the data directory
    /// Runs the operations on the store in data directory `root` through fs.
    std::function<void(const std::string &root, PowerCutFs &fs, CutScript &script)> run;
    /// Opens the store in `root` as a cut left it: each key's value.
    std::function<std::map<std::string, std::string>(const std::string &root)> reopen;
};

/// For a cut after every call and every model: each key holds what the operations that
/// returned gave it, or what the one under way gives it, or (undoable) what it held before;
/// an atomic operation under way shows all its effects or none; no temporary file is left.
void cut_sweep(const CutCase &c);

} // namespace iofault

#endif

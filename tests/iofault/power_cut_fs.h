// Power cuts: a file system for the kit's stores that passes every call to the disk and keeps,
// after each call, what the store's directory would hold after a cut there: file data reaches
// the device only through fsync, names (created, renamed, removed) only through a sync of the
// directory. A driver runs a store's operations once, then opens the store on the directory
// as every cut leaves it and checks what each key holds.
#ifndef VEXO_TESTS_IOFAULT_POWER_CUT_FS_H
#define VEXO_TESTS_IOFAULT_POWER_CUT_FS_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "file_system.h"

namespace iofault {

class PowerCutFs : public hostkit::FileSystem {
  public:
    /// dir: the one directory the store writes in; its files now count as on the device.
    explicit PowerCutFs(std::string dir);
    size_t calls() const { return states_.size() - 1; }
    /// Fills the empty directory `out` as a cut after `cut` calls leaves dir. Unsynced names
    /// reach the device or not (a journaling file system may commit them); unsynced data, none
    /// or half of it.
    void rebuild(size_t cut, bool unsynced_names, bool half_unsynced_data,
                 const std::string &out) const;

    int open(const std::string &path, int flags, mode_t mode) override;
    ssize_t write(int fd, const void *data, size_t len) override;
    int fsync(int fd) override;
    int close(int fd) override;
    int rename(const std::string &from, const std::string &to) override;
    int unlink(const std::string &path) override;
    int sync_dir(const std::string &dir) override;

  private:
    struct Inode {
        std::string synced;
        std::string written; ///< writes only append, so this extends `synced`
    };
    struct State {
        std::vector<Inode> inodes;
        std::map<std::string, size_t> names;   ///< as the process sees them
        std::map<std::string, size_t> durable; ///< as of the last directory sync
        std::map<int, size_t> fds;
    };
    std::string name_of(const std::string &path) const;
    template <class T> T note(T ret) {
        states_.push_back(now_);
        return ret;
    }

    std::string dir_;
    State now_;
    std::vector<State> states_; ///< before the first call, then after each
};

/// A key of a store and what an operation leaves in it; nullopt: nothing.
using Effects = std::map<std::string, std::optional<std::string>>;

/// The operations run on a store, with the calls made before and after each.
struct CutScript {
    struct Op {
        Effects effects;
        bool atomic;   ///< a cut in the middle leaves all its effects or none
        bool undoable; ///< a cut after it may still undo it
        size_t begin;
        size_t end;
    };
    std::vector<Op> ops;
};

struct CutCase {
    const char *subdir; ///< the store's directory in its data directory
    /// Runs the operations on the store in data directory `root` through fs, noting each.
    std::function<void(const std::string &root, PowerCutFs &fs, CutScript &script)> run;
    /// Opens the store in `root` as a cut left it: what each key holds.
    std::function<std::map<std::string, std::string>(const std::string &root)> reopen;
};

/// After a cut after every call, each key holds what the operations that returned left in it,
/// or what one under way leaves (all of an atomic one's effects or none), or what it held
/// before an undoable operation; no temporary file is left.
void cut_sweep(const CutCase &c);

} // namespace iofault

#endif

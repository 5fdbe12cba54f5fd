/// Durable file writing for the service's data directory: whole files replaced atomically
/// (temporary file, fsync, rename, directory fsync), directories created durably, and lines
/// appended to a log file without leaving half a line behind.
#ifndef VEXO_CLOUD_DURABLE_FILE_H
#define VEXO_CLOUD_DURABLE_FILE_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "file_system.h"

namespace vexo_cloud {

/// A file-system failure with the errno it came from (ENOSPC: the disk is full).
class FileError : public std::runtime_error {
  public:
    FileError(const std::string &what, int error_number);
    int error_number() const { return error_number_; }

  private:
    int error_number_;
};

/// Creates a directory whose parent exists and fsyncs the parent. True when it was created,
/// false when it was already there; throws FileError otherwise.
bool make_directory(const std::string &path, FileSystem &fs = real_file_system());

/// Fsyncs a directory, so that names created or removed in it last; throws FileError.
void sync_directory(const std::string &path, FileSystem &fs = real_file_system());

/// A file written piece by piece that appears under its name only when committed: the
/// pieces go to a temporary name in dir (a dot name, skipped by the service's listings);
/// commit() syncs it, renames it over target_dir/name (target_dir on the same file system,
/// by default dir) and syncs the directories. Destroyed without a commit, or after a failed
/// one, it removes the temporary file. Every failure throws FileError.
class AtomicFile {
  public:
    AtomicFile(const std::string &dir, const std::string &name);
    AtomicFile(const std::string &dir, const std::string &name, const std::string &target_dir,
               FileSystem &fs = real_file_system());
    ~AtomicFile();
    AtomicFile(const AtomicFile &) = delete;
    AtomicFile &operator=(const AtomicFile &) = delete;

    void write(const char *data, size_t size);
    void commit();
    uint64_t written() const { return written_; }

  private:
    void discard();

    FileSystem &fs_;
    std::string dir_;
    std::string target_dir_;
    std::string target_;
    std::string temporary_;
    int fd_ = -1;
    bool committed_ = false;
    uint64_t written_ = 0;
};

/// Replaces dir/name with bytes: written to a temporary name in dir, fsync'd, renamed over
/// name, then dir fsync'd. A reader sees the old file or the new one, never a part. On
/// failure the temporary file is removed and FileError thrown.
void write_file_atomic(const std::string &dir, const std::string &name, const std::string &bytes,
                       FileSystem &fs = real_file_system());

/// Appends line and a newline to path (created when missing) and fsyncs it. On failure the
/// file is cut back to its former length and FileError thrown.
void append_line(const std::string &path, const std::string &line,
                 FileSystem &fs = real_file_system());

/// The whole content of a file; throws FileError.
std::string read_file(const std::string &path);

} // namespace vexo_cloud

#endif

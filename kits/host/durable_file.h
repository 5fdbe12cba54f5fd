/// Replacing a file so that a crash leaves either what was there or the whole new content:
/// the key-value store's records and the outage spool's items are written this way.
#ifndef VEXO_HOST_DURABLE_FILE_H
#define VEXO_HOST_DURABLE_FILE_H

#include <cstddef>
#include <string>

#include "file_system.h"

namespace hostkit {

/// What makes a file name a temporary one of durable_write(); a store sweeps such files at
/// start, as they are what a crash in the middle of a write leaves behind.
constexpr char kTempInfix[] = ".tmp.";

struct DurableWrite {
    /// The step that failed ("create", "write", "fsync", "close", "rename"), nullptr when the
    /// file is in place. The temporary file is gone either way.
    const char *failed_step = nullptr;
    /// The file is in place but its directory could not be flushed: it survives a crash of
    /// the process, a power cut perhaps not.
    bool directory_unsynced = false;
    /// errno of the failure.
    int error = 0;
    /// The temporary file's name, for a log line.
    std::string temp;
};

/// Flushes a directory's entries (a rename or unlink in it) to the device. True also where
/// the file system cannot flush a directory: the change is then as durable as it allows.
bool sync_directory(FileSystem &fs, const std::string &dir);

/// Writes data to a private temporary file beside path (O_EXCL, mode 0600), syncs and closes
/// it, renames it over path and syncs the directory.
DurableWrite durable_write(FileSystem &fs, const std::string &path, const void *data, size_t len);

} // namespace hostkit

#endif

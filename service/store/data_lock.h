/// The data directory's lock: one program at a time writes a data directory. Held with
/// flock on <data>/vexo-cloud.lock for the life of the object (and so released by the kernel
/// when the holder dies, even by kill -9); the file names the holder's pid.
#ifndef VEXO_CLOUD_DATA_LOCK_H
#define VEXO_CLOUD_DATA_LOCK_H

#include <stdexcept>
#include <string>

namespace vexo_cloud {

/// Thrown when another process (or another object of this one) holds the lock.
class DataDirectoryInUse : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class DataLock {
  public:
    /// Takes the lock of data_dir without waiting. Throws DataDirectoryInUse naming the
    /// directory and the holder's pid when known, FileError when the lock file cannot be
    /// opened.
    explicit DataLock(const std::string &data_dir);
    ~DataLock();
    DataLock(const DataLock &) = delete;
    DataLock &operator=(const DataLock &) = delete;

  private:
    int fd_ = -1;
};

} // namespace vexo_cloud

#endif

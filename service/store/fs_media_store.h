/// The media store on the local file system: object "a/b/c" is the file <root>/a/b/c, so
/// tools read media files where they always were. Uploads are written under
/// <root>/.incoming~/, fsync'ed, then renamed into place (never over a file) and the
/// directories fsync'ed: a killed process leaves whole files or none under the real names.
#ifndef VEXO_CLOUD_FS_MEDIA_STORE_H
#define VEXO_CLOUD_FS_MEDIA_STORE_H

#include "file_system.h"
#include "media_store.h"

namespace vexo_cloud {

/// "<device>/<folder>/<file>" with a valid device id and no empty, "." or hidden part.
bool valid_media_object_name(const std::string &name);

class FsMediaStore : public MediaStore {
  public:
    /// root exists. Objects are the files two directories below root's device directories.
    /// Files are created, synced, renamed and removed through fs. shared: other services may
    /// use root at the same time (see MediaStore::shared).
    explicit FsMediaStore(std::string root, FileSystem &fs = real_file_system(),
                          bool shared = false);

    bool valid_name(const std::string &name) const override;
    std::unique_ptr<MediaUpload> begin(const std::string &name) override;
    bool read(const std::string &name, const MediaSink &sink) override;
    bool read_range(const std::string &name, uint64_t offset, uint64_t length,
                    const MediaSink &sink) override;
    std::optional<uint64_t> size(const std::string &name) override;
    bool remove(const std::string &name) override;
    std::string set_aside(const std::string &name) override;
    std::vector<MediaObject> list() override;
    std::string local_path(const std::string &name) const override;
    bool shared() const override { return shared_; }
    /// Removes the files under .incoming~ (when shared, only those not written to for
    /// kStaleUploadAge).
    size_t sweep_temporary() override;

  private:
    std::string root_;
    FileSystem &fs_;
    bool shared_;
};

} // namespace vexo_cloud

#endif

/// The media store in an S3-compatible object store (one bucket, path-style): object
/// "a/b/c" is the key "a/b/c". Uploads stream through a part buffer of bounded size: an
/// object up to one part goes in one PUT on commit, a larger one as a multipart upload whose
/// parts go out as they fill and which is completed on commit. Nothing is visible under the
/// name before commit, and commit never replaces an object (If-None-Match: *, and a HEAD
/// before completing a multipart upload).
#ifndef VEXO_CLOUD_S3_MEDIA_STORE_H
#define VEXO_CLOUD_S3_MEDIA_STORE_H

#include "media_store.h"
#include "s3_client.h"

namespace vexo_cloud {

class S3MediaStore : public MediaStore {
  public:
    /// part_size: the part buffer (at least 5 MiB, the smallest part S3 takes).
    S3MediaStore(S3Config config, size_t part_size = kDefaultPartSize);

    static constexpr size_t kDefaultPartSize = 8u << 20;
    static constexpr size_t kMinimumPartSize = 5u << 20;

    /// Creates the bucket when it is not there; throws FileError when it cannot.
    void create_bucket();

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
    /// Always: nothing tells whether other services write the same bucket.
    bool shared() const override { return true; }
    /// Aborts the multipart uploads initiated kStaleUploadAge or more ago.
    size_t sweep_temporary() override;
    /// Aborts the multipart uploads initiated age_s or more ago, on the gateway's clock (the
    /// Date of its answer), so that a skewed clock here aborts nothing younger.
    size_t abort_uploads_older_than(uint64_t age_s);

  private:
    /// Deletes an object; one already gone is not an error.
    void delete_object(const std::string &name);
    S3Client client_;
    size_t part_size_;
};

} // namespace vexo_cloud

#endif

/// Where media bytes live: named objects ("<device>/<start>/<file>", "<device>/alarms/<file>")
/// written through a temporary object and published whole under their name, or not at all.
/// An abstract store: the file system first; an object store keeps the same calls.
///
/// Thread-safe: uploads to different names may run at once. Failures throw FileError.
#ifndef VEXO_CLOUD_MEDIA_STORE_H
#define VEXO_CLOUD_MEDIA_STORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vexo_cloud {

struct MediaObject {
    std::string name;
    uint64_t bytes = 0;
};

/// An object being written. Destroyed before commit(), it leaves nothing behind.
class MediaUpload {
  public:
    virtual ~MediaUpload() = default;
    virtual void write(const char *data, size_t size) = 0;
    virtual uint64_t size() const = 0;
    /// The SHA-256 of the bytes written so far, as 64 lowercase hex characters.
    virtual std::string sha256() const = 0;
    /// Makes the bytes durable under the temporary name; no write may follow.
    virtual void finish() = 0;
    /// Publishes the finished bytes under the object's name in one step. An object already
    /// there is never replaced: false then, and nothing was published.
    virtual bool commit() = 0;
};

using MediaSink = std::function<bool(const char *data, size_t size)>;

class MediaStore {
  public:
    virtual ~MediaStore() = default;

    /// True when name is a name this store accepts ("a/b/c", no empty, "." or ".." part).
    virtual bool valid_name(const std::string &name) const = 0;
    /// Starts writing an object; throws FileError for an invalid name.
    virtual std::unique_ptr<MediaUpload> begin(const std::string &name) = 0;
    /// Hands an object's bytes to sink in order until the end or sink returns false; false
    /// when there is no such object.
    virtual bool read(const std::string &name, const MediaSink &sink) = 0;
    /// As read, from byte offset on and at most length bytes (fewer at the object's end).
    virtual bool read_range(const std::string &name, uint64_t offset, uint64_t length,
                            const MediaSink &sink) = 0;
    virtual std::optional<uint64_t> size(const std::string &name) = 0;
    /// Removes an object; false when there was none.
    virtual bool remove(const std::string &name) = 0;
    /// Moves an object out of the way, keeping its bytes for someone to look at; returns
    /// where it went (for the log).
    virtual std::string set_aside(const std::string &name) = 0;
    /// Every object, by name.
    virtual std::vector<MediaObject> list() = 0;
    /// Where a program on this machine reads an object; empty when it is not a local file.
    virtual std::string local_path(const std::string &name) const = 0;
    /// True when other services may use this store at the same time (an object store, a
    /// directory outside the service's locked data directory): objects may then appear and
    /// go under this service's feet, and temporary objects may be another's uploads.
    virtual bool shared() const = 0;
    /// Removes the temporary objects of uploads that never finished (e.g. the process was
    /// killed); call before any of this service's uploads begins. In a shared store only
    /// those left alone for kStaleUploadAge go, as the others may be another's in flight.
    /// Returns how many it removed.
    virtual size_t sweep_temporary() = 0;

    /// How long an upload to a shared store must have been left alone before a sweep takes
    /// it for abandoned: far longer than any one upload request lasts (the service's
    /// request and idle timeouts end those within minutes), short enough that parts of
    /// abandoned uploads do not pile up for long.
    static constexpr uint64_t kStaleUploadAge = 3600;
};

/// The SHA-256 of an object as 64 lowercase hex characters; nullopt when there is none.
std::optional<std::string> object_sha256(MediaStore &store, const std::string &name);

} // namespace vexo_cloud

#endif

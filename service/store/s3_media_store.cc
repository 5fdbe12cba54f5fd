/// Media objects in an S3 bucket.
#include "s3_media_store.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>
#include <time.h>

#include "durable_file.h"
#include "fs_media_store.h"
#include "sha256.h"

namespace vexo_cloud {

namespace {

constexpr char kQuarantinePrefix[] = "quarantine/";
constexpr long kPreconditionFailed = 412;
constexpr long kNotFound = 404;
constexpr long kConflict = 409;

bool ok(const S3Response &response) {
    return response.status / 100 == 2;
}

std::optional<int64_t> utc_seconds(const std::string &text, const char *format) {
    std::tm tm{};
    const char *end = ::strptime(text.c_str(), format, &tm);
    if (end == nullptr) {
        return std::nullopt;
    }
    return static_cast<int64_t>(::timegm(&tm));
}

/// "2026-11-25T13:09:26.000Z" (fractions ignored), as ListMultipartUploads gives Initiated.
std::optional<int64_t> parse_iso_time(const std::string &text) {
    return utc_seconds(text, "%Y-%m-%dT%H:%M:%S");
}

/// "Wed, 25 Nov 2026 13:09:26 GMT", an HTTP Date.
std::optional<int64_t> parse_http_date(const std::string &text) {
    return utc_seconds(text, "%a, %d %b %Y %H:%M:%S");
}

class S3Upload : public MediaUpload {
  public:
    S3Upload(const S3Client &client, std::string name, size_t part_size)
        : client_(client), name_(std::move(name)), part_size_(part_size) {
        buffer_.reserve(std::min<size_t>(part_size_, 1 << 20));
    }
    ~S3Upload() override {
        if (!upload_id_.empty() && !committed_) {
            try {
                abort();
            } catch (const std::exception &) {
                // The gateway is gone; sweep_temporary() aborts it at the next start.
            }
        }
    }

    void write(const char *data, size_t size) override {
        if (finished_) {
            throw FileError("write after the end of " + name_, EBADF);
        }
        sha_.add(data, size);
        size_ += size;
        while (size > 0) {
            const size_t n = std::min(size, part_size_ - buffer_.size());
            buffer_.append(data, n);
            data += n;
            size -= n;
            if (buffer_.size() == part_size_) {
                send_part();
            }
        }
    }
    uint64_t size() const override { return size_; }
    std::string sha256() const override { return sha_.text(); }

    void finish() override {
        if (finished_) {
            throw FileError("finish after the end of " + name_, EBADF);
        }
        if (!upload_id_.empty() && !buffer_.empty()) {
            send_part();
        }
        finished_ = true;
    }

    bool commit() override {
        if (!finished_ || committed_) {
            throw FileError("commit of an unfinished upload " + name_, EBADF);
        }
        return upload_id_.empty() ? put_whole() : complete();
    }

  private:
    /// An object of at most one part: one conditional PUT.
    bool put_whole() {
        S3Request request;
        request.method = "PUT";
        request.key = name_;
        request.body = &buffer_;
        request.headers = {"If-None-Match: *"};
        const S3Response response = client_.send(request);
        if (response.status == kPreconditionFailed || response.status == kConflict) {
            return false;
        }
        if (!ok(response)) {
            client_.fail("cannot store " + name_, response);
        }
        committed_ = true;
        buffer_ = std::string();
        return true;
    }

    /// Completes the multipart upload, unless an object already has the name: then the
    /// upload is aborted and nothing published.
    bool complete() {
        S3Request head;
        head.method = "HEAD";
        head.key = name_;
        const S3Response there = client_.send(head);
        if (ok(there)) {
            abort();
            return false;
        }
        if (there.status != kNotFound) {
            client_.fail("cannot look up " + name_, there);
        }
        std::string body = "<CompleteMultipartUpload>";
        for (size_t i = 0; i < etags_.size(); ++i) {
            body += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" +
                    etags_[i] + "</ETag></Part>";
        }
        body += "</CompleteMultipartUpload>";
        S3Request request;
        request.method = "POST";
        request.key = name_;
        request.query = "uploadId=" + uri_escape(upload_id_, false);
        request.body = &body;
        request.headers = {"If-None-Match: *", "Content-Type: application/xml"};
        const S3Response response = client_.send(request);
        if (response.status == kPreconditionFailed) {
            abort();
            return false;
        }
        // A complete may answer 200 with an error in its body.
        if (!ok(response) || response.body.find("<Error>") != std::string::npos) {
            client_.fail("cannot complete " + name_, response);
        }
        committed_ = true;
        return true;
    }

    void send_part() {
        if (upload_id_.empty()) {
            S3Request create;
            create.method = "POST";
            create.key = name_;
            create.query = "uploads=";
            const S3Response response = client_.send(create);
            upload_id_ = ok(response) ? xml_value(response.body, "UploadId") : "";
            if (upload_id_.empty()) {
                client_.fail("cannot start a multipart upload of " + name_, response);
            }
        }
        S3Request request;
        request.method = "PUT";
        request.key = name_;
        request.query = "partNumber=" + std::to_string(etags_.size() + 1) +
                        "&uploadId=" + uri_escape(upload_id_, false);
        request.body = &buffer_;
        const S3Response response = client_.send(request);
        const auto etag = response.headers.find("etag");
        if (!ok(response) || etag == response.headers.end()) {
            client_.fail("cannot upload a part of " + name_, response);
        }
        etags_.push_back(etag->second);
        buffer_.clear();
    }

    void abort() {
        S3Request request;
        request.method = "DELETE";
        request.key = name_;
        request.query = "uploadId=" + uri_escape(upload_id_, false);
        const S3Response response = client_.send(request);
        if (!ok(response) && response.status != kNotFound) {
            client_.fail("cannot abort the upload of " + name_, response);
        }
        upload_id_.clear();
    }

    const S3Client &client_;
    std::string name_;
    size_t part_size_;
    std::string buffer_;
    std::string upload_id_;
    std::vector<std::string> etags_;
    bool finished_ = false;
    bool committed_ = false;
    uint64_t size_ = 0;
    Sha256 sha_;
};

} // namespace

S3MediaStore::S3MediaStore(S3Config config, size_t part_size)
    : client_(std::move(config)), part_size_(std::max(part_size, kMinimumPartSize)) {}

void S3MediaStore::create_bucket() {
    S3Request head;
    head.method = "HEAD";
    if (ok(client_.send(head))) {
        return;
    }
    S3Request create;
    create.method = "PUT";
    const S3Response response = client_.send(create);
    if (!ok(response) && xml_value(response.body, "Code") != "BucketAlreadyOwnedByYou") {
        client_.fail("cannot create the bucket " + client_.config().bucket, response);
    }
}

bool S3MediaStore::valid_name(const std::string &name) const {
    return valid_media_object_name(name);
}

std::unique_ptr<MediaUpload> S3MediaStore::begin(const std::string &name) {
    if (!valid_name(name)) {
        throw FileError("not a media object name: " + name, EINVAL);
    }
    return std::make_unique<S3Upload>(client_, name, part_size_);
}

bool S3MediaStore::read(const std::string &name, const MediaSink &sink) {
    return read_range(name, 0, UINT64_MAX, sink);
}

bool S3MediaStore::read_range(const std::string &name, uint64_t offset, uint64_t length,
                              const MediaSink &sink) {
    if (!valid_name(name) || length == 0) {
        return valid_name(name) && size(name).has_value();
    }
    S3Request request;
    request.key = name;
    if (offset != 0 || length != UINT64_MAX) {
        const std::string last =
            length > UINT64_MAX - offset ? "" : std::to_string(offset + length - 1);
        request.headers = {"Range: bytes=" + std::to_string(offset) + "-" + last};
    }
    request.sink = sink;
    const S3Response response = client_.send(request);
    if (response.status == kNotFound) {
        return false;
    }
    if (response.status == 416) {
        return true; // the range starts at or past the end: no bytes
    }
    if (!ok(response)) {
        client_.fail("cannot read " + name, response);
    }
    return true;
}

std::optional<uint64_t> S3MediaStore::size(const std::string &name) {
    if (!valid_name(name)) {
        return std::nullopt;
    }
    S3Request request;
    request.method = "HEAD";
    request.key = name;
    const S3Response response = client_.send(request);
    if (response.status == kNotFound) {
        return std::nullopt;
    }
    const auto length = response.headers.find("content-length");
    if (!ok(response) || length == response.headers.end()) {
        client_.fail("cannot look up " + name, response);
    }
    return std::stoull(length->second);
}

bool S3MediaStore::remove(const std::string &name) {
    // S3 answers a DELETE 204 whether or not the key was there: look first.
    if (!size(name)) {
        return false;
    }
    delete_object(name);
    return true;
}

void S3MediaStore::delete_object(const std::string &name) {
    S3Request request;
    request.method = "DELETE";
    request.key = name;
    const S3Response response = client_.send(request);
    if (!ok(response) && response.status != kNotFound) {
        client_.fail("cannot remove " + name, response);
    }
}

std::string S3MediaStore::set_aside(const std::string &name) {
    std::string flat = name;
    std::replace(flat.begin(), flat.end(), '/', '-');
    const std::string target =
        std::string(kQuarantinePrefix) + std::to_string(std::time(nullptr)) + "-" + flat;
    S3Request copy;
    copy.method = "PUT";
    copy.key = target;
    copy.headers = {"x-amz-copy-source: /" + client_.config().bucket + "/" +
                    uri_escape(name, true)};
    const S3Response response = client_.send(copy);
    if (!ok(response) || response.body.find("<Error>") != std::string::npos) {
        client_.fail("cannot copy " + name + " to " + target, response);
    }
    delete_object(name);
    return target;
}

std::vector<MediaObject> S3MediaStore::list() {
    std::vector<MediaObject> objects;
    std::string token;
    for (;;) {
        S3Request request;
        request.query = "list-type=2";
        if (!token.empty()) {
            request.query += "&continuation-token=" + uri_escape(token, false);
        }
        const S3Response response = client_.send(request);
        if (!ok(response)) {
            client_.fail("cannot list the bucket " + client_.config().bucket, response);
        }
        for (const std::string &item : xml_elements(response.body, "Contents")) {
            const std::string name = xml_value(item, "Key");
            if (valid_name(name)) {
                objects.push_back(MediaObject{name, std::stoull("0" + xml_value(item, "Size"))});
            }
        }
        token = xml_value(response.body, "NextContinuationToken");
        if (xml_value(response.body, "IsTruncated") != "true" || token.empty()) {
            break;
        }
    }
    std::sort(objects.begin(), objects.end(),
              [](const MediaObject &a, const MediaObject &b) { return a.name < b.name; });
    return objects;
}

std::string S3MediaStore::local_path(const std::string &) const {
    return "";
}

size_t S3MediaStore::sweep_temporary() {
    return abort_uploads_older_than(kStaleUploadAge);
}

size_t S3MediaStore::abort_uploads_older_than(uint64_t age_s) {
    size_t aborted = 0;
    std::string key_marker;
    std::string id_marker;
    for (;;) {
        S3Request request;
        request.query = "uploads=";
        if (!key_marker.empty()) {
            request.query += "&key-marker=" + uri_escape(key_marker, false) +
                             "&upload-id-marker=" + uri_escape(id_marker, false);
        }
        const S3Response response = client_.send(request);
        if (!ok(response)) {
            client_.fail("cannot list the multipart uploads", response);
        }
        const auto date = response.headers.find("date");
        const std::optional<int64_t> gateway_now =
            date == response.headers.end() ? std::nullopt : parse_http_date(date->second);
        const int64_t now = gateway_now ? *gateway_now : static_cast<int64_t>(std::time(nullptr));
        for (const std::string &item : xml_elements(response.body, "Upload")) {
            const std::optional<int64_t> initiated = parse_iso_time(xml_value(item, "Initiated"));
            if (!initiated || now - *initiated < static_cast<int64_t>(age_s)) {
                continue; // possibly another service's upload in flight
            }
            S3Request abort;
            abort.method = "DELETE";
            abort.key = xml_value(item, "Key");
            abort.query = "uploadId=" + uri_escape(xml_value(item, "UploadId"), false);
            const S3Response done = client_.send(abort);
            if (!ok(done) && done.status != kNotFound) {
                client_.fail("cannot abort the upload of " + abort.key, done);
            }
            ++aborted;
        }
        key_marker = xml_value(response.body, "NextKeyMarker");
        id_marker = xml_value(response.body, "NextUploadIdMarker");
        if (xml_value(response.body, "IsTruncated") != "true" || key_marker.empty()) {
            break;
        }
    }
    return aborted;
}

} // namespace vexo_cloud

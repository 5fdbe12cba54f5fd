/// Routing the playback requests, with the caches of what they build.
#include "playback_api.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>

#include "answers.h"
#include "segment_builder.h"
#include "segment_cache.h"
#include "thumbnail.h"

namespace vexo_playback {
namespace {

using vexo_cloud::error_answer;
using vexo_cloud::PlaybackSource;
using vexo_cloud::Request;
using vexo_cloud::Response;
using vexo_cloud::Service;

constexpr int32_t kOk = 200;
constexpr int32_t kBadRequest = 400;
constexpr int32_t kNotFound = 404;
constexpr int32_t kMethodNotAllowed = 405;
constexpr int32_t kUnplayable = 422;

constexpr size_t kSegmentCacheBytes = 64u << 20;
constexpr size_t kPictureCacheBytes = 8u << 20;
/// File time stamps remembered; the whole table is let go when it is full.
constexpr size_t kMaxFileTimes = 65536;

/// What the requests build, kept for the process: keys name the Service object, so that a
/// cache never answers for another data directory.
struct Caches {
    SegmentCache segments{kSegmentCacheBytes};
    SegmentCache pictures{kPictureCacheBytes};
    std::mutex times_mutex;
    std::map<std::string, FileTimes> times; // media files never change once stored
};

Caches &caches() {
    static Caches instance;
    return instance;
}

std::string cache_key(const PlaybackSource &source, const std::string &what) {
    return std::to_string(source.service_id) + "/" + source.device + "/" +
           std::to_string(source.start_time) + "/" + what;
}

/// A decimal number without sign or spaces, at most max; nullopt otherwise.
std::optional<uint64_t> parse_number(const std::string &text, uint64_t max) {
    if (text.empty() || text.size() > 19) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return value <= max ? std::optional<uint64_t>(value) : std::nullopt;
}

Response bytes_answer(const char *content_type, const std::vector<uint8_t> &bytes) {
    Response answer;
    answer.status = kOk;
    answer.content_type = content_type;
    answer.body.assign(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    return answer;
}

void log_faults(const Service &service, const PlaybackSource &source, const std::string &what,
                const std::vector<vexo_media::Fault> &faults) {
    for (const vexo_media::Fault &fault : faults) {
        service.log("playback: " + source.device + " " + std::to_string(source.start_time) + " " +
                    what + ": " + fault.text());
    }
}

Response playlist(const Service &service, const PlaybackSource &source) {
    Caches &cache = caches();
    std::vector<FileTimes> times;
    std::vector<uint64_t> elapsed;
    for (size_t i = 0; i < source.objects.size(); ++i) {
        const std::string key = cache_key(source, source.objects[i]);
        std::optional<FileTimes> known;
        {
            std::lock_guard<std::mutex> lock(cache.times_mutex);
            const auto found = cache.times.find(key);
            if (found != cache.times.end()) {
                known = found->second;
            }
        }
        if (!known) {
            known = file_times(service, source, i);
            std::lock_guard<std::mutex> lock(cache.times_mutex);
            if (cache.times.size() >= kMaxFileTimes) {
                cache.times.clear();
            }
            cache.times[key] = *known;
        }
        times.push_back(*known);
        const size_t underscore = source.names[i].rfind('_');
        elapsed.push_back(std::strtoull(source.names[i].c_str() + underscore + 1, nullptr, 10));
    }
    Response answer;
    answer.status = kOk;
    answer.content_type = "application/vnd.apple.mpegurl";
    answer.body = playlist_text(segment_durations(times, elapsed, frame_ms(source)), source.over);
    return answer;
}

Response segment(const Service &service, const PlaybackSource &source, size_t index) {
    const std::string key = cache_key(source, "segment/" + source.objects[index]);
    if (const Blob cached = caches().segments.find(key)) {
        return bytes_answer("video/mp2t", *cached);
    }
    Built built = build_segment(service, source, index);
    if (!built.ok) {
        return error_answer(kUnplayable, built.error);
    }
    log_faults(service, source, "segment " + std::to_string(index), built.faults);
    auto blob = std::make_shared<const std::vector<uint8_t>>(std::move(built.bytes));
    caches().segments.put(key, blob);
    return bytes_answer("video/mp2t", *blob);
}

Response thumbnail(const Service &service, const PlaybackSource &source) {
    const std::string key = cache_key(source, "thumbnail");
    if (const Blob cached = caches().pictures.find(key)) {
        return bytes_answer("image/jpeg", *cached);
    }
    Built built = build_thumbnail(service, source);
    if (!built.ok) {
        return error_answer(kUnplayable, built.error);
    }
    auto blob = std::make_shared<const std::vector<uint8_t>>(std::move(built.bytes));
    caches().pictures.put(key, blob);
    return bytes_answer("image/jpeg", *blob);
}

/// Removes a temporary file unless released.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    ~TemporaryFile() {
        if (!path_.empty()) {
            std::remove(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    void release() { path_.clear(); }

  private:
    std::string path_;
};

Response export_file(const Service &service, const PlaybackSource &source) {
    std::string path = (std::filesystem::temp_directory_path() / "vexo-export-XXXXXX").string();
    const int fd = ::mkstemp(path.data());
    if (fd < 0) {
        throw std::runtime_error("cannot create a temporary file for an export");
    }
    ::close(fd);
    TemporaryFile file(path);
    Built built = build_export(service, source, path);
    if (!built.ok) {
        return error_answer(kUnplayable, built.error);
    }
    log_faults(service, source, "export", built.faults);
    Response answer;
    answer.status = kOk;
    answer.content_type = "video/mp4";
    answer.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + source.device +
                                                           "_" + std::to_string(source.start_time) +
                                                           ".mp4\"");
    answer.body_file = path;
    answer.body_file_temporary = true;
    file.release();
    return answer;
}

Response alarm_picture(const Service &service, const std::string &device, int64_t id) {
    const std::optional<std::string> object = service.alarm_picture(device, id);
    if (!object) {
        return error_answer(kNotFound, "no picture of such an alarm");
    }
    Response answer;
    answer.status = kOk;
    answer.content_type = "image/jpeg";
    if (!service.read_media(*object, [&answer](const char *data, size_t size) {
            answer.body.append(data, size);
            return true;
        })) {
        return error_answer(kNotFound, "the alarm's picture is missing");
    }
    return answer;
}

std::vector<std::string> split(const std::string &path) {
    std::vector<std::string> parts;
    size_t from = 0;
    while (true) {
        const size_t slash = path.find('/', from);
        parts.push_back(path.substr(from, slash == std::string::npos ? slash : slash - from));
        if (slash == std::string::npos) {
            return parts;
        }
        from = slash + 1;
    }
}

Response recording_request(const Service &service, const std::string &device,
                           const std::vector<std::string> &parts) {
    // parts: "recordings", T, then "playlist.m3u8" | "thumbnail.jpg" | "export.mp4" |
    // "segments", "N.ts".
    const std::optional<uint64_t> start = parse_number(parts[1], UINT32_MAX);
    std::optional<uint64_t> index;
    const bool is_segment = parts.size() == 4 && parts[2] == "segments";
    if (is_segment) {
        const std::string &name = parts[3];
        const std::string suffix = ".ts";
        if (name.size() <= suffix.size() ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
            return error_answer(kNotFound, "no such resource");
        }
        index = parse_number(name.substr(0, name.size() - suffix.size()), UINT32_MAX);
        if (!index) {
            return error_answer(kBadRequest, "the segment number must be a whole number");
        }
    } else if (parts.size() != 3 || (parts[2] != "playlist.m3u8" && parts[2] != "thumbnail.jpg" &&
                                     parts[2] != "export.mp4")) {
        return error_answer(kNotFound, "no such resource");
    }
    if (!start) {
        return error_answer(kBadRequest, "the recording's start time must be a whole number");
    }
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    const std::optional<PlaybackSource> source =
        service.playback_source(device, static_cast<uint32_t>(*start));
    if (!source) {
        return error_answer(kNotFound, "unknown recording");
    }
    if (is_segment) {
        if (*index >= source->objects.size()) {
            return error_answer(kNotFound, "no such segment");
        }
        return segment(service, *source, static_cast<size_t>(*index));
    }
    if (parts[2] == "playlist.m3u8") {
        return playlist(service, *source);
    }
    if (parts[2] == "thumbnail.jpg") {
        return thumbnail(service, *source);
    }
    return export_file(service, *source);
}

} // namespace

std::optional<Response> handle_playback(const Service &service, const Request &request,
                                        const std::string &device, const std::string &what) {
    const std::vector<std::string> parts = split(what);
    const bool recording = parts.size() >= 3 && parts[0] == "recordings";
    const bool picture = parts.size() == 3 && parts[0] == "alarms" && parts[2] == "picture.jpg";
    if (!recording && !picture) {
        return std::nullopt;
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
    }
    if (recording) {
        return recording_request(service, device, parts);
    }
    const std::optional<uint64_t> id = parse_number(parts[1], INT64_MAX);
    if (!id) {
        return error_answer(kBadRequest, "the alarm id must be a whole number");
    }
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    return alarm_picture(service, device, static_cast<int64_t>(*id));
}

} // namespace vexo_playback

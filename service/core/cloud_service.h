/// The cloud service core: the cloud side of the device protocol without any transport.
/// It keeps, per device, an order (what the device may record), the device's key and the key
/// history, the recordings index, the uploaded media files and the alarms, all under one data
/// directory. `handle()` answers a device request given in HTTP form; the embedded host kit
/// calls it in-process, an HTTP server puts it on the network. Admin calls change orders and
/// trigger recordings; what a device must be told is handed to the publish callback as an MQTT
/// message.
///
/// Thread-safe: every call may come from any thread.
#ifndef VEXO_CLOUD_SERVICE_H
#define VEXO_CLOUD_SERVICE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexo_cloud {

struct Request {
    std::string method;                         // "GET", "POST", "PUT"
    std::string path;                           // without the query
    std::string query;                          // without the '?'
    std::map<std::string, std::string> headers; // names in lower case
    std::string body;
};

/// Hands a request body to sink piece by piece, in order, until the body ends or the sink
/// returns false. True when the whole body was handed over.
using BodySink = std::function<bool(const char *data, size_t size)>;
using BodyReader = std::function<bool(const BodySink &sink)>;

struct Response {
    int32_t status = 500;
    std::string content_type = "application/json";
    std::string body;
    /// Further header fields of the answer (e.g. Location, Set-Cookie, Content-Disposition), in
    /// order.
    std::vector<std::pair<std::string, std::string>> headers;
    /// When not empty, the answer's body is this file, streamed by the transport instead of
    /// body; removed once opened when body_file_temporary.
    std::string body_file;
    bool body_file_temporary = false;
};

/// A device's order, as the admin sets it and storage/config reports it.
struct Order {
    std::string store_mode = "event"; // "alltime", "event", anything else: none
    int32_t event_duration = 30;      // seconds
    int32_t slice_duration = 10;      // seconds
    int32_t silence_interval = 60;    // seconds
    int32_t daily_events = 20;        // allowance per day
    bool expired = false;
    bool aborted = false; // storage/config answers "none"
};

/// A partial change of an order: unset members stay as they are.
struct OrderChange {
    std::optional<std::string> store_mode;
    std::optional<int32_t> event_duration;
    std::optional<int32_t> slice_duration;
    std::optional<int32_t> silence_interval;
    std::optional<int32_t> daily_events;
    /// Events left today: sets the daily allowance to today's started events plus this.
    std::optional<int32_t> events_left;
    std::optional<bool> expired;
};

struct MediaFileInfo {
    std::string name;
    uint64_t bytes = 0;
};

/// One recording of the index, as read back from the data directory.
struct Recording {
    std::string device;
    uint32_t start_time = 0;
    uint32_t end_time = 0;     // 0 while open
    std::string payload_info;  // the JSON text the device sent
    int32_t mtu = 0;           // slice duration, seconds
    std::string announced_md5; // enKeyMd5 of the (last) start notification
    std::string key;           // the key its files are encrypted with (16 characters)
    std::string key_md5;
    std::vector<MediaFileInfo> files; // sorted by name
    std::string directory;            // where the files are
};

struct Alarm {
    int64_t id = 0; // the service's number of the alarm
    std::string device;
    uint32_t time = 0;
    bool with_picture = false;
    std::string extra;
    std::string picture_path; // empty without a picture
};

/// A stretch of a device's recordings that the device could not deliver: it kept them while
/// the cloud could not be reached and had to drop them (its store was full, or they waited
/// too long). Reported by the device once the cloud answers again.
struct Gap {
    std::string device;
    uint32_t from = 0;  // seconds since the epoch: the start of what was dropped
    uint32_t to = 0;    // its end, from <= to
    std::string reason; // "spool full", "too old", or another short text of the device's
    uint64_t bytes = 0; // media bytes dropped
};

/// One recording as playback reads it: what its files hold, and how to decrypt them.
struct PlaybackSource {
    /// Tells one Service object from another in this process (for caches that outlive it).
    uint64_t service_id = 0;
    std::string device;
    uint32_t start_time = 0;
    uint32_t end_time = 0; // 0 while open
    /// Closed, or left open by the device for good (see recording_status): nothing more will
    /// be added to it.
    bool over = false;
    std::string payload_info;
    /// The key from the device's key history whose md5 is the recording's key md5 (the
    /// recording's own key when the history has none); empty when neither is known.
    std::string key;
    std::string key_md5;
    std::vector<std::string> names;   // media file names, in elapsed order
    std::vector<std::string> objects; // their media store objects, in the same order
    std::vector<uint64_t> bytes;      // their sizes
};

/// Counts for monitoring, taken at one moment.
struct ServiceStats {
    uint64_t devices = 0;         // known devices
    uint64_t open_recordings = 0; // started and not stopped yet, over all devices
};

/// What a device may keep; unset: no limit.
struct DeviceLimits {
    std::optional<uint64_t> max_bytes;          // media bytes kept
    std::optional<uint64_t> max_files;          // media files kept
    std::optional<uint32_t> max_alarms_per_day; // alarms taken on one local day
    std::optional<uint32_t> retention_days;     // closed recordings older are deleted
    std::optional<uint64_t> retention_bytes;    // the oldest are deleted beyond this
};

/// A partial change of a device's limits: unset members stay as they are, 0 lifts a limit.
struct LimitsChange {
    std::optional<uint64_t> max_bytes;
    std::optional<uint64_t> max_files;
    std::optional<uint32_t> max_alarms_per_day;
    std::optional<uint32_t> retention_days;
    std::optional<uint64_t> retention_bytes;
};

/// What a device keeps now, measured against its limits.
struct LimitsUsage {
    uint64_t bytes = 0;        // media bytes kept
    uint64_t files = 0;        // media files kept
    uint64_t alarms_today = 0; // alarms of the service clock's local day
};

/// Why an admin change was refused.
enum class AdminRefusal {
    kBadValue, // a value out of range, an invalid device id, a store failure
    kNoRoom,   // the change would create a device beyond Options::max_devices
};

struct Options {
    std::string data_dir;
    /// Where media files go (see open_media_store): empty for files under data_dir.
    std::string media_url;
    /// Where the metadata is kept: empty for the SQLite database in data_dir, else
    /// "sqlite:PATH" or "postgresql://..." (a database several services may share).
    std::string metadata_url;
    /// The service's clock, seconds since the epoch; "today" for the daily allowance is the
    /// local date of this clock (TZ). Defaults to the real time.
    std::function<uint32_t()> clock;
    /// Sends an MQTT message (JSON text) to a device's command topic "vexo/<device>/cmd".
    /// May be empty: nothing is published then.
    std::function<void(const std::string &device, const std::string &payload)> publish;
    /// Device id -> bearer token. When not empty, every device request must carry
    /// "authorization: Bearer <token>" of its device, or gets 401.
    std::map<std::string, std::string> tokens;
    /// Largest body accepted by handle(), bytes.
    uint64_t max_body = 64ull << 20;
    /// Order given to a device the service has not seen before.
    Order default_order;
    /// What storage/config answers as "addressSuffix": where the service is reached.
    std::string address_suffix = "embedded";
    /// Takes one line of the service's own log (no line end), e.g. a replayed start that
    /// names a key the device never had. Empty: the line goes to stderr. Called from the
    /// thread of the call that logs, or from the retention thread (retention_interval).
    std::function<void(const std::string &line)> log;
    /// Limits of every device that has none of its own (member by member).
    DeviceLimits default_limits;
    /// Most devices the service keeps; 0: no cap. A token of a device beyond it stops the
    /// start (std::invalid_argument); an admin call that would create one is refused.
    uint64_t max_devices = 0;
    /// Seconds between two runs of expire_recordings() on a thread of the service's own;
    /// 0: never (call it yourself).
    uint32_t retention_interval = 0;
};

class Service {
  public:
    /// Reads back the state kept in options.data_dir (created when missing) and creates the
    /// devices of options.tokens it does not know yet. Throws std::invalid_argument for bad
    /// options and std::runtime_error naming the file when a state file is unreadable or
    /// damaged; such a file is left as it is.
    explicit Service(Options options);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    /// Answers one device request (storage/config, storage/restriction, api calls, media
    /// upload, alarms, gaps). Bad requests get a 4xx with {"error":"..."} and change nothing.
    /// A request with "x-vexo-replay: 1" was kept by the device while the cloud could not
    /// be reached and is sent late: a replayed start is filed under the key it names.
    Response handle(const Request &request);

    /// The same for a request whose body has not been read yet (head.body is ignored):
    /// content_length is the length the client announced, and read_body hands the body to a
    /// sink piece by piece. The request is checked before any of the body is read; a refused
    /// one leaves its body unread. A media upload streams to a temporary file that appears
    /// under its name only when content_length bytes arrived and were stored; a short or
    /// long body gets 400 and leaves nothing. Other requests are read whole, up to max_body.
    Response handle_streamed(const Request &head, uint64_t content_length,
                             const BodyReader &read_body);

    // ---- admin ----
    /// Changes a device's order (creating the device if needed) and publishes it (protocol
    /// 300). An order change lifts an abort. False with *error when a value is out of range.
    /// *why (when not null) tells a refusal for want of room from a bad value.
    bool set_order(const std::string &device, const OrderChange &change, std::string *error,
                   AdminRefusal *why = nullptr);
    /// Aborts the order: storage/config then answers "none"; published as protocol 300.
    bool abort_order(const std::string &device, std::string *error);
    /// Asks the device for a remote recording or picture (protocol 307): action "pic",
    /// "record" or "pic_v"; duration seconds (1..1800, ignored for "pic"); ext_json a JSON
    /// value (text) carried as "ext", e.g. {"user":"u1"}.
    bool trigger(const std::string &device, const std::string &action, int32_t duration,
                 const std::string &ext_json, std::string *error);

    /// Changes a known device's own limits. False with *error for an unknown device or a
    /// value out of range; nothing changes then.
    bool set_limits(const std::string &device, const LimitsChange &change, std::string *error);
    /// Deletes, for every device, the closed recordings its retention limits let go at the
    /// service clock's now: their media files first, then their rows. One log line per
    /// device that lost any. Returns how many recordings it deleted.
    uint64_t expire_recordings();

    // ---- inspection ----
    /// The limits in force for a device: its own where set, else Options::default_limits.
    DeviceLimits limits(const std::string &device) const;
    /// What a device keeps now and its alarms of today.
    LimitsUsage usage(const std::string &device) const;
    std::optional<Order> order(const std::string &device) const;
    /// Events left today, as storage/config would answer now.
    int32_t count_left(const std::string &device) const;
    /// The md5 text of the device's current key; empty for an unknown device or one that
    /// has not been given a key yet.
    std::string key_md5(const std::string &device) const;
    std::vector<std::string> devices() const;
    std::vector<Recording> recordings(const std::string &device) const;
    std::vector<Alarm> alarms(const std::string &device) const;
    /// The gaps a device reported, by time.
    std::vector<Gap> gaps(const std::string &device) const;
    /// The service's clock now, seconds since the epoch.
    uint32_t now() const;
    /// How many devices and open recordings the service knows now.
    ServiceStats stats() const;

    // ---- playback ----
    /// A recording of a device for playback; nullopt for an unknown device or recording.
    std::optional<PlaybackSource> playback_source(const std::string &device,
                                                  uint32_t start_time) const;
    /// Hands a media object's bytes to sink in order (see MediaStore::read); false when there
    /// is no such object.
    bool read_media(const std::string &object, const BodySink &sink) const;
    /// The media object of a device's alarm picture; nullopt when the device has no alarm of
    /// that id or it has no picture.
    std::optional<std::string> alarm_picture(const std::string &device, int64_t id) const;
    /// Writes one line to the service's log (Options::log, else stderr).
    void log(const std::string &line) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Reads the recordings of a data directory written by a Service, without one: for tools
/// that inspect a cloud directory. device empty: every device. Sorted by device, then start
/// time; a recording directory that only received uploads is listed without its metadata.
/// Throws std::invalid_argument for an invalid device id and std::runtime_error naming the
/// file when the directory or a recording.json cannot be read. recordings() and alarms()
/// throw the same way.
std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device);

/// The same, for tools that must show what is left of a directory with a damaged recording:
/// with damaged not null, a recording whose recording.json cannot be read or is damaged is
/// still listed, without its metadata (start time from its directory name, its media files;
/// end_time, mtu, key, key_md5, announced_md5 and payload_info empty), and one line
/// "<directory>/recording.json: <reason>" per such recording is appended to *damaged, where
/// <directory> is the recording's Recording::directory. The file is left as it is. Still
/// throws as above for an invalid device id or a directory that cannot be listed. damaged
/// null: the two-argument form.
std::vector<Recording> read_recordings(const std::string &data_dir, const std::string &device,
                                       std::vector<std::string> *damaged);

/// The gaps devices reported, read from a data directory written by a Service: of device, or
/// of every device when device is empty; sorted by device, then time. Throws
/// std::invalid_argument for an invalid device id and std::runtime_error naming the file when
/// the directory cannot be listed or a gaps file cannot be read or is damaged. With damaged
/// not null, such a file is skipped instead and "<path>: <reason>" appended to *damaged.
std::vector<Gap> read_gaps(const std::string &data_dir, const std::string &device,
                           std::vector<std::string> *damaged = nullptr);

/// True when a device id is 1..64 characters of A-Z a-z 0-9 . _ - and neither "." nor "..",
/// which would name a directory other than the device's own.
bool valid_device_id(const std::string &device);

} // namespace vexo_cloud

#endif

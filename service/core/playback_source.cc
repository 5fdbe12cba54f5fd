/// What playback reads of a recording: its media objects in elapsed order, the key its files
/// were encrypted with (from the device's key history), and alarm pictures.
#include <algorithm>
#include <atomic>
#include <tuple>

#include "media_names.h"
#include "recording_listing.h"
#include "service_core.h"

namespace vexo_cloud {

uint64_t next_service_id() {
    static std::atomic<uint64_t> next{1};
    return next.fetch_add(1);
}

namespace {

/// The key of a recording: the history entry with the recording's md5, else its own key.
std::string recording_key(const DeviceState &state, const RecordingRow &row) {
    for (auto it = state.key_history.rbegin(); it != state.key_history.rend(); ++it) {
        if (!row.key_md5.empty() && it->md5 == row.key_md5) {
            return it->key;
        }
    }
    return row.key;
}

} // namespace

std::optional<PlaybackSource> Service::playback_source(const std::string &device,
                                                       uint32_t start_time) const {
    const ServiceCore &core = impl_->core;
    if (!valid_device_id(device)) {
        return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    const std::optional<DeviceState> state = find_device(core, device);
    if (!state) {
        return std::nullopt;
    }
    const std::optional<RecordingRow> row = core.metadata->recording(device, start_time);
    if (!row || row->device != device) {
        return std::nullopt;
    }
    PlaybackSource source;
    source.service_id = impl_->id;
    source.device = device;
    source.start_time = row->start_time;
    source.end_time = row->end_time;
    source.payload_info = row->payload_info;
    source.key = recording_key(*state, *row);
    source.key_md5 = row->key_md5;
    std::vector<std::tuple<uint64_t, std::string, std::string, uint64_t>> files;
    for (const MediaRow &media : core.metadata->recording_media(device, start_time)) {
        if (const std::optional<uint64_t> elapsed = parse_media_elapsed(media.name)) {
            files.emplace_back(*elapsed, media.name, media.object, media.bytes);
        }
    }
    std::sort(files.begin(), files.end());
    Recording listed; // what recording_status looks at
    listed.start_time = row->start_time;
    listed.end_time = row->end_time;
    listed.mtu = row->mtu;
    for (const auto &[elapsed, name, object, bytes] : files) {
        source.names.push_back(name);
        source.objects.push_back(object);
        source.bytes.push_back(bytes);
        listed.files.push_back(MediaFileInfo{name, bytes});
    }
    bool later = false;
    if (row->end_time == 0) {
        for (const RecordingRow &other : core.metadata->recordings(device)) {
            later = later || other.start_time > start_time;
        }
    }
    source.over = recording_status(listed, later, core.now()) != RecordingStatus::kOpen;
    return source;
}

bool Service::read_media(const std::string &object, const BodySink &sink) const {
    // The media store is thread-safe and its objects are never replaced: no lock needed.
    return impl_->core.media->read(object, sink);
}

std::optional<std::string> Service::alarm_picture(const std::string &device, int64_t id) const {
    const ServiceCore &core = impl_->core;
    if (!valid_device_id(device)) {
        return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    for (const AlarmRow &row : core.metadata->alarms(device)) {
        if (row.id == id && row.device == device && row.with_picture &&
            !row.picture_object.empty()) {
            return row.picture_object;
        }
    }
    return std::nullopt;
}

void Service::log(const std::string &line) const {
    impl_->core.log(line);
}

} // namespace vexo_cloud

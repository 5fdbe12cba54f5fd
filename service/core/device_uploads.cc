/// What a device uploads: media files of its recordings, alarms and gap reports. Media files
/// and alarms are written outside the service lock, to names no other request writes: a
/// media file goes through a temporary name of its own, an alarm gets a number reserved under
/// the lock. The gaps file is small and replaced whole under the lock.
#include "alarm_store.h"
#include "answers.h"
#include "durable_file.h"
#include "gap_store.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kBadRequest = 400;

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response stream_media_upload(ServiceCore &core, const std::string &device,
                             const std::string &file_name, uint64_t content_length,
                             const BodyReader &read_body) {
    const std::optional<uint32_t> start = parse_media_name(file_name);
    if (!start) {
        return error_answer(kBadRequest, "a media file name is <start>_<index>.media");
    }
    // The order's state does not matter: the device decides what it records. The bytes
    // wait in the device's directory; the recording's directory and the file appear only
    // when all of them arrived.
    const std::string dir = core.device_dir(device) + "/" + std::to_string(*start);
    AtomicFile file(core.device_dir(device), file_name, dir);
    bool too_long = false;
    const bool whole = read_body([&](const char *data, size_t size) {
        if (file.written() + size > content_length) {
            too_long = true;
            return false;
        }
        file.write(data, size);
        return true;
    });
    if (too_long) {
        return error_answer(kBadRequest, "body longer than its Content-Length");
    }
    if (!whole || file.written() != content_length) {
        return error_answer(kBadRequest, "upload incomplete: " + std::to_string(file.written()) +
                                             " of " + std::to_string(content_length) + " bytes");
    }
    make_directory(dir);
    file.commit();
    return json_answer(kOk, Json::object());
}

Response store_media_upload(ServiceCore &core, const std::string &device,
                            const std::string &file_name, const std::string &body) {
    return stream_media_upload(core, device, file_name, body.size(), [&body](const BodySink &sink) {
        return body.empty() || sink(body.data(), body.size());
    });
}

Response store_alarm_request(ServiceCore &core, const std::string &device,
                             const std::string &body) {
    std::string error;
    const std::optional<AlarmPost> alarm = parse_alarm_post(body, &error);
    if (!alarm) {
        return error_answer(kBadRequest, error);
    }
    const std::string dir = core.device_dir(device) + "/" + kAlarmsDirectory;
    uint64_t sequence = 0;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        make_directory(dir);
        sequence = core.devices.at(device).next_alarm++;
    }
    store_alarm(dir, sequence, *alarm);
    return json_answer(kOk, Json::object());
}

Response store_gap_request(ServiceCore &core, const std::string &device, const std::string &body) {
    std::string error;
    std::optional<Gap> gap = parse_gap_post(body, &error);
    if (!gap) {
        return error_answer(kBadRequest, error);
    }
    gap->device = device;
    std::lock_guard<std::mutex> lock(core.mutex);
    DeviceEntry &entry = core.devices.at(device);
    // A gap sent again (its first answer was lost) is already stored: answered as the first.
    const std::optional<std::vector<Gap>> next = with_gap(entry.gaps, *gap);
    if (next) {
        save_gaps(core.device_dir(device), *next);
        entry.gaps = *next;
    }
    return json_answer(kOk, Json::object());
}

} // namespace vexo_cloud

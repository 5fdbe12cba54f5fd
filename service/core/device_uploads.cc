/// What a device uploads: media files of its recordings and alarms. Both are written
/// outside the service lock, to names no other request writes: a media file goes through a
/// temporary name of its own, an alarm gets a number reserved under the lock.
#include "alarm_store.h"
#include "answers.h"
#include "durable_file.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kBadRequest = 400;

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response store_media_upload(ServiceCore &core, const std::string &device,
                            const std::string &file_name, const std::string &body) {
    const std::optional<uint32_t> start = parse_media_name(file_name);
    if (!start) {
        return error_answer(kBadRequest, "a media file name is <start>_<index>.media");
    }
    // The order's state does not matter: the device decides what it records.
    const std::string dir = core.device_dir(device) + "/" + std::to_string(*start);
    make_directory(dir);
    write_file_atomic(dir, file_name, body);
    return json_answer(kOk, Json::object());
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

} // namespace vexo_cloud

/// The device's API calls: the start and stop notifications of a cloud recording, and event
/// reports. The start notification is where a device gets its key and where the daily
/// allowance is counted.
#include <algorithm>
#include <optional>
#include <string>

#include "answers.h"
#include "device_state.h"
#include "json_fields.h"
#include "order_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr char kApiStart[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kApiStop[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr char kApiReportEvent[] = "vexo.device.ipc.media.storage.report.event";
constexpr char kApiVersion[] = "1.0";

constexpr int32_t kBadRequest = 400;
/// The longest enKeyMd5 text kept; an md5 text has 32 characters.
constexpr size_t kMaxAnnouncedMd5 = 64;

// ---- helpers -------------------------------------------------------------------------------

struct StartNotice {
    uint32_t start_time = 0;
    std::string payload_info;
    int32_t mtu = 0;
    std::string announced_md5;
};

/// The value of name in a query "a=1&b=2"; empty when absent.
std::string query_value(const std::string &query, const std::string &name) {
    size_t pos = 0;
    while (pos <= query.size()) {
        const size_t end = std::min(query.find('&', pos), query.size());
        const std::string pair = query.substr(pos, end - pos);
        const size_t equals = pair.find('=');
        if (equals != std::string::npos && pair.compare(0, equals, name) == 0 &&
            equals == name.size()) {
            return pair.substr(equals + 1);
        }
        pos = end + 1;
    }
    return "";
}

std::optional<StartNotice> parse_start(const std::string &body, std::string *error) {
    const std::optional<Json> json = parse_body(body, error);
    StartNotice notice;
    if (!json) {
        return std::nullopt;
    }
    if (!get_u32(*json, "startTime", &notice.start_time) || notice.start_time == 0) {
        *error = "startTime must be a time in seconds";
        return std::nullopt;
    }
    if (!get_text(*json, "payloadInfo", &notice.payload_info)) {
        *error = "payloadInfo must be a text";
        return std::nullopt;
    }
    std::string why;
    if (!parse_object(notice.payload_info, &why)) {
        *error = "payloadInfo must hold a JSON object (" + why + ")";
        return std::nullopt;
    }
    if (!get_i32(*json, "mtu", &notice.mtu)) {
        *error = "mtu must be an integer";
        return std::nullopt;
    }
    if (!get_text(*json, "enKeyMd5", &notice.announced_md5) ||
        notice.announced_md5.size() > kMaxAnnouncedMd5) {
        *error = "enKeyMd5 must be a text of at most 64 characters";
        return std::nullopt;
    }
    return notice;
}

/// The key a new start's files are encrypted with. A live device encrypts with the current
/// key from now on: either it announced it, or it takes it from the answer. A replayed start
/// was sent long after the device encrypted its files, and the answer no longer reaches the
/// encoder: the files use the key it announced, which may be an older one of its history.
/// A replay naming no key of the history is filed under the current key, the best guess,
/// and *note says so for the log.
KeyRecord filing_key(const DeviceState &state, const StartNotice &notice, bool replayed,
                     const std::string &device, std::string *note) {
    const KeyRecord current{state.key, state.key_md5, 0};
    if (!replayed) {
        return current;
    }
    if (const KeyRecord *announced = key_with_md5(state, notice.announced_md5)) {
        return *announced;
    }
    *note = device + ": replayed start " + std::to_string(notice.start_time) + " names key md5 \"" +
            notice.announced_md5 + "\", no key the device was given: filed under the current key " +
            state.key_md5;
    return current;
}

Response notify_start(ServiceCore &core, const std::string &device, const std::string &body,
                      bool replayed) {
    std::string error;
    const std::optional<StartNotice> notice = parse_start(body, &error);
    if (!notice) {
        return error_answer(kBadRequest, error);
    }
    std::string note;
    DeviceState next;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        MetadataStore &metadata = *core.metadata;
        const uint32_t now = core.now();
        next = known_device(core, device);
        bool device_changed = issue_key_if_missing(&next, now);

        const std::optional<RecordingRow> found = metadata.recording(device, notice->start_time);
        // Only a new recording takes an event off its day's allowance: the second start of
        // a key update repeats the startTime of the first.
        const bool first_start = !found || !found->announced;
        if (first_start && counts_against_allowance(next.order) &&
            count_start(&next.allowance, notice->start_time, now)) {
            device_changed = true;
        }
        RecordingRow recording = found ? *found : RecordingRow{};
        recording.device = device;
        recording.start_time = notice->start_time;
        recording.announced = true;
        recording.payload_info = notice->payload_info;
        recording.mtu = notice->mtu;
        recording.announced_md5 = notice->announced_md5;
        const KeyRecord key = filing_key(next, *notice, replayed, device, &note);
        recording.key = key.key;
        recording.key_md5 = key.md5;
        metadata.transaction([&] {
            if (device_changed) {
                metadata.put_device(device, next);
            }
            metadata.put_recording(recording);
        });
    }
    if (!note.empty()) {
        core.log(note);
    }
    // A replayed start gets the same answer as a live one: the device learns of the current
    // key, though it may only log it.
    if (notice->announced_md5 == next.key_md5) {
        return api_result(Json{{"needUpdate", false}});
    }
    return api_result(Json{{"needUpdate", true}, {"encryptKey", next.key}});
}

Response notify_stop(ServiceCore &core, const std::string &device, const std::string &body) {
    std::string why;
    const std::optional<Json> json = parse_body(body, &why);
    uint32_t start_time = 0;
    uint32_t end_time = 0;
    if (!json) {
        return error_answer(kBadRequest, why);
    }
    if (!get_u32(*json, "startTime", &start_time) || !get_u32(*json, "endTime", &end_time)) {
        return error_answer(kBadRequest, "the body must be {\"startTime\":N,\"endTime\":N}");
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    std::optional<RecordingRow> recording = core.metadata->recording(device, start_time);
    if (!recording || !recording->announced) {
        return api_refusal("recording.unknown",
                           "no recording started at " + std::to_string(start_time));
    }
    if (end_time < start_time) {
        return api_refusal("time.invalid", "endTime is before startTime");
    }
    recording->end_time = end_time;
    core.metadata->put_recording(*recording);
    return api_result(Json::object());
}

Response report_event(ServiceCore &core, const std::string &device, const std::string &body) {
    std::string error;
    const std::optional<Json> json = parse_body(body, &error);
    if (!json) {
        return error_answer(kBadRequest, error);
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    core.metadata->add_event(device, core.now(), to_text(*json));
    return api_result(Json::object());
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response answer_api_call(ServiceCore &core, const std::string &device, const std::string &api,
                         const std::string &query, const std::string &body, bool replayed) {
    const bool known = api == kApiStart || api == kApiStop || api == kApiReportEvent;
    if (!known) {
        return api_refusal("api.unknown", "unknown API " + api);
    }
    const std::string version = query_value(query, "v");
    if (version != kApiVersion) {
        return api_refusal("api.version", "API version \"" + version + "\" is not supported");
    }
    if (api == kApiStart) {
        return notify_start(core, device, body, replayed);
    }
    if (api == kApiStop) {
        return notify_stop(core, device, body);
    }
    return report_event(core, device, body);
}

} // namespace vexo_cloud

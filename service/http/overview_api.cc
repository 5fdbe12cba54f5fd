/// The device overview of the browser view.
#include "overview_api.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "answers.h"
#include "json_fields.h"

namespace vexo_cloud {

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kMethodNotAllowed = 405;

template <typename Number> Json or_null(const std::optional<Number> &value) {
    return value ? Json(*value) : Json(nullptr);
}

Json device_json(const Service &service, const DeviceActivity &activity,
                 const std::string &device) {
    const std::optional<Order> order = service.order(device);
    const int32_t left = service.count_left(device);
    Json order_json = Json{{"storeMode", order ? order->store_mode : ""},
                           {"eventDuration", order ? order->event_duration : 0},
                           {"sliceDuration", order ? order->slice_duration : 0},
                           {"silenceInterval", order ? order->silence_interval : 0},
                           {"dailyEvents", order ? order->daily_events : 0},
                           {"countLeft", left},
                           {"expired", order ? order->expired : false},
                           {"aborted", order ? order->aborted : false}};
    std::optional<uint32_t> open;
    for (const Recording &r : service.recordings(device)) {
        if (r.end_time == 0 && (!open || r.start_time > *open)) {
            open = r.start_time;
        }
    }
    const LimitsUsage usage = service.usage(device);
    const DeviceLimits limits = service.limits(device);
    return Json{{"id", device},
                {"lastRequest", or_null(activity.last_request(device))},
                {"storeMode", order ? order->store_mode : ""},
                {"order", order_json},
                {"eventsLeftToday", left},
                {"keyMd5", service.key_md5(device)},
                {"usage", Json{{"bytes", usage.bytes}, {"files", usage.files}}},
                {"limits", Json{{"maxBytes", or_null(limits.max_bytes)},
                                {"maxFiles", or_null(limits.max_files)}}},
                {"openRecording", or_null(open)},
                {"gaps", service.gaps(device).size()}};
}

std::string first_line(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

} // namespace

std::string service_time_zone() {
    const char *tz = std::getenv("TZ");
    if (tz != nullptr && *tz != '\0') {
        return tz[0] == ':' ? std::string(tz + 1) : std::string(tz);
    }
    const std::string named = first_line("/etc/timezone");
    if (!named.empty()) {
        return named;
    }
    std::error_code ec;
    const std::string target = std::filesystem::read_symlink("/etc/localtime", ec).string();
    const std::string marker = "zoneinfo/";
    const size_t at = target.find(marker);
    if (!ec && at != std::string::npos) {
        return target.substr(at + marker.size());
    }
    return "UTC";
}

int64_t utc_offset_at(uint32_t t) {
    const time_t when = static_cast<time_t>(t);
    struct tm local {};
    localtime_r(&when, &local);
    return static_cast<int64_t>(local.tm_gmtoff);
}

Response overview_answer(const Service &service, const DeviceActivity &activity,
                         const Request &request) {
    if (request.method != "GET") {
        return error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
    }
    const uint32_t now = service.now();
    Json devices = Json::array();
    for (const std::string &device : service.devices()) {
        devices.push_back(device_json(service, activity, device));
    }
    return json_answer(kOk, Json{{"timeZone", service_time_zone()},
                                 {"utcOffset", utc_offset_at(now)},
                                 {"now", now},
                                 {"devices", devices}});
}

} // namespace vexo_cloud

/// The admin interface: parses admin requests, calls the service's admin and inspection
/// calls, and shapes their answers as JSON.
#include "admin_api.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <limits>
#include <optional>

#include "answers.h"
#include "json_fields.h"
#include "playback_api.h"
#include "recording_listing.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kBadRequest = 400;
constexpr int32_t kUnauthorized = 401;
constexpr int32_t kNotFound = 404;
constexpr int32_t kMethodNotAllowed = 405;
constexpr int32_t kInternalError = 500;
constexpr int32_t kInsufficientStorage = 507;
constexpr char kDevices[] = "devices";
/// Numbers of a request that do not fit (1e300, 2147483648, 1.5) are refused, never cut.
constexpr char kWholeNumber[] = "must be a whole number from -2147483648 to 2147483647";

// ---- helpers -------------------------------------------------------------------------------

bool bearer_matches(const Request &request, const std::string &token) {
    const auto it = request.headers.find("authorization");
    const std::string expected = "Bearer " + token;
    return it != request.headers.end() && it->second.size() == expected.size() &&
           CRYPTO_memcmp(it->second.data(), expected.data(), expected.size()) == 0;
}

Json order_json(const Service &service, const std::string &device, const Order &order) {
    return Json{{"storeMode", order.store_mode},
                {"eventDuration", order.event_duration},
                {"sliceDuration", order.slice_duration},
                {"silenceInterval", order.silence_interval},
                {"dailyEvents", order.daily_events},
                {"countLeft", service.count_left(device)},
                {"expired", order.expired},
                {"aborted", order.aborted}};
}

Response order_answer(const Service &service, const std::string &device) {
    const std::optional<Order> order = service.order(device);
    if (!order) {
        return error_answer(kNotFound, "unknown device");
    }
    return json_answer(kOk, order_json(service, device, *order));
}

/// The change a PUT order body asks for; nullopt with *error for a body that is not an
/// object of known members of the right types.
std::optional<OrderChange> parse_order_change(const std::string &body, std::string *error) {
    const std::optional<Json> object = parse_body(body, error);
    if (!object) {
        return std::nullopt;
    }
    OrderChange change;
    for (const auto &member : object->items()) {
        const std::string &key = member.key();
        bool ok = true;
        int32_t number = 0;
        if (key == "storeMode") {
            std::string text;
            ok = get_text(*object, "storeMode", &text);
            change.store_mode = text;
        } else if (key == "expired") {
            bool flag = false;
            ok = get_flag(*object, "expired", &flag);
            change.expired = flag;
        } else if ((ok = get_i32(*object, key.c_str(), &number))) {
            if (key == "eventDuration") {
                change.event_duration = number;
            } else if (key == "sliceDuration") {
                change.slice_duration = number;
            } else if (key == "silenceInterval") {
                change.silence_interval = number;
            } else if (key == "dailyEvents") {
                change.daily_events = number;
            } else if (key == "countLeft") {
                change.events_left = number;
            } else {
                *error = "unknown member \"" + key + "\"";
                return std::nullopt;
            }
        } else if (key != "eventDuration" && key != "sliceDuration" && key != "silenceInterval" &&
                   key != "dailyEvents" && key != "countLeft") {
            *error = "unknown member \"" + key + "\"";
            return std::nullopt;
        }
        if (!ok) {
            const char *expected = key == "storeMode" ? "must be a text"
                                   : key == "expired" ? "must be true, false, 0 or 1"
                                                      : kWholeNumber;
            *error = "\"" + key + "\" " + expected;
            return std::nullopt;
        }
    }
    return change;
}

Response change_order(Service &service, const std::string &device, const std::string &body) {
    std::string error;
    const std::optional<OrderChange> change = parse_order_change(body, &error);
    if (!change) {
        return error_answer(kBadRequest, error);
    }
    AdminRefusal why = AdminRefusal::kBadValue;
    if (!service.set_order(device, *change, &error, &why)) {
        return error_answer(why == AdminRefusal::kNoRoom ? kInsufficientStorage : kBadRequest,
                            error);
    }
    return order_answer(service, device);
}

Response abort(Service &service, const std::string &device) {
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    std::string error;
    if (!service.abort_order(device, &error)) {
        return error_answer(kBadRequest, error);
    }
    return order_answer(service, device);
}

Response trigger(Service &service, const std::string &device, const std::string &body) {
    const std::optional<Json> object = parse_object(body);
    std::string action;
    if (!object || !get_text(*object, "action", &action)) {
        return error_answer(kBadRequest, "the body must be {\"action\":...,\"duration\":N}");
    }
    int32_t duration = 0;
    if (object->contains("duration") && !get_i32(*object, "duration", &duration)) {
        return error_answer(kBadRequest, std::string("\"duration\" ") + kWholeNumber);
    }
    const std::string ext = object->contains("ext") ? to_text(object->at("ext")) : "{}";
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    std::string error;
    if (!service.trigger(device, action, duration, ext, &error)) {
        return error_answer(kBadRequest, error);
    }
    return json_answer(kOk, Json{{"device", device}, {"action", action}, {"duration", duration}});
}

/// A limit as JSON: null for none.
template <typename Number> Json limit_json(const std::optional<Number> &limit) {
    return limit ? Json(*limit) : Json(nullptr);
}

Json limits_json(const DeviceLimits &limits) {
    return Json{{"maxBytes", limit_json(limits.max_bytes)},
                {"maxFiles", limit_json(limits.max_files)},
                {"alarmsPerDay", limit_json(limits.max_alarms_per_day)},
                {"retentionDays", limit_json(limits.retention_days)},
                {"retentionBytes", limit_json(limits.retention_bytes)}};
}

Json usage_json(const LimitsUsage &usage) {
    return Json{
        {"bytes", usage.bytes}, {"files", usage.files}, {"alarmsToday", usage.alarms_today}};
}

Response limits_answer(const Service &service, const std::string &device) {
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    Json body = limits_json(service.limits(device));
    body["usage"] = usage_json(service.usage(device));
    return json_answer(kOk, body);
}

/// One member of a PUT limits body into *out: null lifts the limit (as 0 does).
template <typename Number>
bool limit_member(const Json &object, const char *key, std::optional<Number> *out,
                  std::string *error) {
    if (!object.contains(key)) {
        return true;
    }
    if (object.at(key).is_null()) {
        *out = 0;
        return true;
    }
    uint64_t value = 0;
    if (!get_u64(object, key, &value) || value > std::numeric_limits<Number>::max()) {
        *error = "\"" + std::string(key) + "\" must be a whole number from 0 to " +
                 std::to_string(std::numeric_limits<Number>::max()) + ", or null";
        return false;
    }
    *out = static_cast<Number>(value);
    return true;
}

std::optional<LimitsChange> parse_limits_change(const std::string &body, std::string *error) {
    const std::optional<Json> object = parse_body(body, error);
    if (!object) {
        return std::nullopt;
    }
    static const char *const kMembers[] = {"maxBytes", "maxFiles", "alarmsPerDay", "retentionDays",
                                           "retentionBytes"};
    for (const auto &member : object->items()) {
        if (std::find(std::begin(kMembers), std::end(kMembers), member.key()) ==
            std::end(kMembers)) {
            *error = "unknown member \"" + member.key() + "\"";
            return std::nullopt;
        }
    }
    LimitsChange change;
    if (!limit_member(*object, "maxBytes", &change.max_bytes, error) ||
        !limit_member(*object, "maxFiles", &change.max_files, error) ||
        !limit_member(*object, "alarmsPerDay", &change.max_alarms_per_day, error) ||
        !limit_member(*object, "retentionDays", &change.retention_days, error) ||
        !limit_member(*object, "retentionBytes", &change.retention_bytes, error)) {
        return std::nullopt;
    }
    return change;
}

Response change_limits(Service &service, const std::string &device, const std::string &body) {
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    std::string error;
    const std::optional<LimitsChange> change = parse_limits_change(body, &error);
    if (!change) {
        return error_answer(kBadRequest, error);
    }
    if (!service.set_limits(device, *change, &error)) {
        return error_answer(kBadRequest, error);
    }
    return limits_answer(service, device);
}

Response list_recordings(const Service &service, const std::string &device) {
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    const std::vector<Recording> recordings = service.recordings(device);
    const std::vector<RecordingStatus> statuses = recording_statuses(recordings, service.now());
    Json list = Json::array();
    for (size_t i = 0; i < recordings.size(); ++i) {
        const Recording &r = recordings[i];
        uint64_t bytes = 0;
        for (const MediaFileInfo &file : r.files) {
            bytes += file.bytes;
        }
        list.push_back(Json{{"startTime", r.start_time},
                            {"endTime", r.end_time},
                            {"files", r.files.size()},
                            {"bytes", bytes},
                            {"keyMd5", r.key_md5},
                            {"mtu", r.mtu},
                            {"state", recording_status_text(statuses[i])}});
    }
    Json gaps = Json::array();
    for (const Gap &gap : service.gaps(device)) {
        gaps.push_back(
            Json{{"from", gap.from}, {"to", gap.to}, {"reason", gap.reason}, {"bytes", gap.bytes}});
    }
    return json_answer(kOk, Json{{"recordings", list},
                                 {"gaps", gaps},
                                 {"limits", limits_json(service.limits(device))},
                                 {"usage", usage_json(service.usage(device))}});
}

Response list_alarms(const Service &service, const std::string &device) {
    if (!service.order(device)) {
        return error_answer(kNotFound, "unknown device");
    }
    Json list = Json::array();
    for (const Alarm &alarm : service.alarms(device)) {
        std::error_code ec;
        const uint64_t picture_bytes =
            alarm.picture_path.empty() ? 0 : std::filesystem::file_size(alarm.picture_path, ec);
        list.push_back(Json{{"id", alarm.id},
                            {"time", alarm.time},
                            {"withPicture", alarm.with_picture},
                            {"extra", alarm.extra},
                            {"pictureBytes", ec ? 0 : picture_bytes}});
    }
    return json_answer(kOk, Json{{"alarms", list}});
}

Response route(Service &service, const Request &request) {
    const std::string rest = request.path.substr(sizeof kAdminPrefix - 1);
    const bool get = request.method == "GET";
    if (rest == kDevices) {
        return get ? json_answer(kOk, Json{{"devices", service.devices()}})
                   : error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
    }
    const std::string prefix = std::string(kDevices) + "/";
    const size_t slash = rest.find('/', prefix.size());
    if (rest.compare(0, prefix.size(), prefix) != 0 || slash == std::string::npos) {
        return error_answer(kNotFound, "no such resource");
    }
    const std::string device = rest.substr(prefix.size(), slash - prefix.size());
    const std::string what = rest.substr(slash + 1);
    if (!valid_device_id(device)) {
        return error_answer(kBadRequest, "invalid device id");
    }
    if (std::optional<Response> media =
            vexo_playback::handle_playback(service, request, device, what)) {
        return *media;
    }
    if (what == "order" && get) {
        return order_answer(service, device);
    } else if (what == "order" && request.method == "PUT") {
        return change_order(service, device, request.body);
    } else if (what == "abort" && request.method == "POST") {
        return abort(service, device);
    } else if (what == "trigger" && request.method == "POST") {
        return trigger(service, device, request.body);
    } else if (what == "recordings" && get) {
        return list_recordings(service, device);
    } else if (what == "alarms" && get) {
        return list_alarms(service, device);
    } else if (what == "limits" && get) {
        return limits_answer(service, device);
    } else if (what == "limits" && request.method == "PUT") {
        return change_limits(service, device, request.body);
    } else if (what != "abort" && what != "trigger" && what != "recordings" && what != "alarms" &&
               what != "order" && what != "limits") {
        return error_answer(kNotFound, "no such resource");
    }
    return error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool admin_token_accepted(const Request &request, const std::string &token) {
    return token.empty() || bearer_matches(request, token);
}

Response handle_admin(Service &service, const Request &request, const std::string &token) {
    if (!admin_token_accepted(request, token)) {
        return error_answer(kUnauthorized, "missing or wrong admin token");
    }
    try {
        return route(service, request);
    } catch (const std::exception &e) {
        // The detail (a database or file path, say) is for the operator, not the client.
        std::fprintf(stderr, "vexo-cloud: %s %s failed: %s\n", request.method.c_str(),
                     request.path.c_str(), e.what());
        return error_answer(kInternalError, "internal error");
    }
}

} // namespace vexo_cloud

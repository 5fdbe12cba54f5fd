// The network cloud's admin client, on the kit's libcurl transport.
#include "cloud_admin.h"

#include <cstdint>

namespace camsim {
namespace {

constexpr uint32_t kAdminTimeoutS = 15;
/// A recordings list of a long run is larger than any device answer.
constexpr size_t kAdminAnswerLimit = size_t{16} << 20;

/// "403 device unknown" from {"error":"device unknown"}, or the status and the start of a
/// body that is not such an object.
std::string refusal(const hostkit::CloudResponse &resp) {
    const nlohmann::json json = nlohmann::json::parse(resp.body, nullptr, false);
    if (json.is_object() && json.contains("error") && json["error"].is_string()) {
        return std::to_string(resp.status) + " " + json["error"].get<std::string>();
    }
    return "HTTP " + std::to_string(resp.status) +
           (resp.body.empty() ? "" : ": " + resp.body.substr(0, 200));
}

bool read_number(const nlohmann::json &item, const char *key, uint64_t *out, std::string *error) {
    const auto it = item.find(key);
    if (it == item.end() || !it->is_number_unsigned()) {
        *error = std::string("\"") + key + "\" missing or not a whole number";
        return false;
    }
    *out = it->get<uint64_t>();
    return true;
}

} // namespace

std::unique_ptr<CloudAdmin> CloudAdmin::create(const Options &options, std::string *error) {
    hostkit::CurlTransportConfig config;
    config.base_url = options.cloud_url;
    config.ca_file = options.cloud_ca;
    std::shared_ptr<hostkit::CurlTransport> device = hostkit::CurlTransport::create(config, error);
    if (!device) {
        return nullptr;
    }
    config.max_answer_bytes = kAdminAnswerLimit;
    std::unique_ptr<hostkit::CurlTransport> admin = hostkit::CurlTransport::create(config, error);
    if (!admin) {
        return nullptr;
    }
    return std::unique_ptr<CloudAdmin>(
        new CloudAdmin(std::move(device), std::move(admin), options));
}

CloudAdmin::CloudAdmin(std::shared_ptr<hostkit::CurlTransport> device,
                       std::unique_ptr<hostkit::CurlTransport> admin, const Options &options)
    : device_(std::move(device)), admin_(std::move(admin)), device_id_(options.device_id),
      admin_token_(options.admin_token) {}

bool CloudAdmin::call(const char *method, const char *what, const nlohmann::ordered_json *body,
                      std::string *answer, std::string *error) {
    hostkit::CloudRequest req;
    req.method = method;
    req.path = "/v1/admin/devices/" + hostkit::path_segment(device_id_) + "/" + what;
    req.timeout_s = kAdminTimeoutS;
    if (!admin_token_.empty()) {
        req.headers["authorization"] = "Bearer " + admin_token_;
    }
    if (body != nullptr) {
        req.headers["content-type"] = "application/json";
        req.body = body->dump();
    }
    std::string failure;
    const hostkit::CloudResponse resp = admin_->exchange(req, &failure);
    if (resp.status == 0) {
        *error = "cannot reach the cloud: " + failure;
        return false;
    }
    if (resp.status < 200 || resp.status > 299) {
        *error = "the cloud refused " + std::string(method) + " " + what + ": " + refusal(resp);
        return false;
    }
    if (answer != nullptr) {
        *answer = resp.body;
    }
    return true;
}

bool CloudAdmin::set_order(const vexo_cloud::OrderChange &change, std::string *error) {
    nlohmann::ordered_json body = nlohmann::ordered_json::object();
    if (change.store_mode) {
        body["storeMode"] = *change.store_mode;
    }
    if (change.event_duration) {
        body["eventDuration"] = *change.event_duration;
    }
    if (change.slice_duration) {
        body["sliceDuration"] = *change.slice_duration;
    }
    if (change.silence_interval) {
        body["silenceInterval"] = *change.silence_interval;
    }
    if (change.daily_events) {
        body["dailyEvents"] = *change.daily_events;
    }
    return call("PUT", "order", &body, nullptr, error);
}

bool CloudAdmin::trigger(const std::string &action, int32_t duration_s, std::string *error) {
    const nlohmann::ordered_json body = {
        {"action", action}, {"duration", duration_s}, {"ext", {{"user", "camsim"}}}};
    return call("POST", "trigger", &body, nullptr, error);
}

bool CloudAdmin::abort_order(std::string *error) {
    const nlohmann::ordered_json body = nlohmann::ordered_json::object();
    return call("POST", "abort", &body, nullptr, error);
}

bool CloudAdmin::recordings(std::vector<RecordingSummary> *out, std::string *error) {
    out->clear();
    std::string body;
    if (!call("GET", "recordings", nullptr, &body, error)) {
        return false;
    }
    return parse_recordings(body, out, error);
}

bool CloudAdmin::parse_recordings(const std::string &body, std::vector<RecordingSummary> *out,
                                  std::string *error) {
    out->clear();
    const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object() || !json.contains("recordings") || !json["recordings"].is_array()) {
        *error = "the recordings answer has no \"recordings\" list";
        return false;
    }
    std::vector<RecordingSummary> list;
    for (const nlohmann::json &item : json["recordings"]) {
        RecordingSummary r;
        uint64_t start = 0;
        uint64_t end = 0;
        std::string why;
        const bool ok = item.is_object() && read_number(item, "startTime", &start, &why) &&
                        read_number(item, "endTime", &end, &why) &&
                        read_number(item, "files", &r.files, &why) &&
                        read_number(item, "bytes", &r.bytes, &why);
        if (!ok || start > UINT32_MAX || end > UINT32_MAX || !item.contains("keyMd5") ||
            !item["keyMd5"].is_string()) {
            *error =
                "recording " + std::to_string(list.size() + 1) + " of the answer: " +
                (why.empty() ? "not an object with startTime, endTime, files, bytes, keyMd5" : why);
            return false;
        }
        r.start_time = static_cast<uint32_t>(start);
        r.end_time = static_cast<uint32_t>(end);
        r.key_md5 = item["keyMd5"].get<std::string>();
        list.push_back(std::move(r));
    }
    *out = std::move(list);
    return true;
}

} // namespace camsim

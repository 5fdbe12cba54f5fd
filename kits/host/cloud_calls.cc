// The kit's cloud calls in their wire form: each call becomes one request to the cloud
// service (path, headers, JSON) through the configured transport, and the answer's status
// and body become the call's result. No retries: the module decides what a failure means.
// With the outage spool on, uploads, notifications and alarms that the cloud cannot take now
// wait in the spool and are answered as delivered (cloud_delivery.cc decides).
#include <cjson/cJSON.h>

#include <cstring>
#include <string>
#include <utility>

#include "cloud_delivery.h"
#include "host_internal.h"
#include "vexo_cloud.h"
#include "vexo_device.h"

namespace hostkit {
namespace {

constexpr uint32_t kRequestTimeoutS = 30;
constexpr uint32_t kUploadTimeoutS = 60;

/// Deletes a cJSON tree at scope exit.
struct JsonGuard {
    cJSON *root;
    ~JsonGuard() { cJSON_Delete(root); }
};

std::string device_id() {
    return internal::options().device_id;
}

CloudRequest make_request(const char *method, std::string path, uint32_t timeout_s) {
    CloudRequest req;
    req.method = method;
    req.path = std::move(path);
    req.timeout_s = timeout_s;
    req.headers["x-vexo-device"] = device_id();
    internal::add_credentials(&req);
    return req;
}

bool success(const CloudResponse &resp) {
    return resp.status >= 200 && resp.status <= 299;
}

/// The result object a notification answered from the spool hands the module: a start keeps
/// its key.
cJSON *queued_answer(const spool::ItemInfo &info) {
    cJSON *result = cJSON_CreateObject();
    if (result != nullptr && info.kind == spool::Kind::kStart) {
        cJSON_AddFalseToObject(result, "needUpdate");
    }
    return result;
}

std::string device_path(const char *tail) {
    return "/v1/devices/" + path_segment(device_id()) + tail;
}

void copy_text(char *dst, size_t capacity, const cJSON *obj, const char *name) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, name);
    if (cJSON_IsString(item) && item->valuestring != nullptr) {
        std::strncpy(dst, item->valuestring, capacity - 1);
        dst[capacity - 1] = '\0';
    }
}

/// What an answer's whole number beyond 0..INT32_MAX means for its field.
enum class OutOfRange {
    kRefuse, ///< the answer is broken: durations, for which no bound is a safe guess
    kClamp,  ///< the nearest bound is meant: counts (below zero: none; huge: plenty)
};

/// Copies a numeric member into *dst as a whole number in 0..INT32_MAX. A missing member, or
/// one of another type, leaves *dst alone. A fraction is refused; a whole number beyond the
/// range is refused or clamped as `beyond` says, with a log line either way. False when the
/// answer is to be refused.
bool copy_int(int32_t *dst, const cJSON *obj, const char *name, OutOfRange beyond,
              const char *answer) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, name);
    if (!cJSON_IsNumber(item)) {
        return true;
    }
    int64_t value = 0;
    const internal::WholeNumber read = internal::read_whole_number(item, 0, INT32_MAX, &value);
    if (read == internal::WholeNumber::kRefused ||
        (read == internal::WholeNumber::kClamped && beyond == OutOfRange::kRefuse)) {
        internal::log_error("%s: \"%s\" %.17g is not a whole number 0..2147483647; answer refused",
                            answer, name, item->valuedouble);
        return false;
    }
    if (read == internal::WholeNumber::kClamped) {
        internal::log_error("%s: \"%s\" %.17g taken as %lld", answer, name, item->valuedouble,
                            static_cast<long long>(value));
    }
    *dst = static_cast<int32_t>(value);
    return true;
}

std::string base64(const uint8_t *data, uint32_t len) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((size_t{len} + 2) / 3 * 4);
    uint32_t i = 0;
    for (; i + 2 < len; i += 3) {
        const uint32_t v = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8 | data[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i < len) {
        uint32_t v = uint32_t{data[i]} << 16;
        if (i + 1 < len) {
            v |= uint32_t{data[i + 1]} << 8;
        }
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += i + 1 < len ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

} // namespace

namespace internal {

void add_credentials(CloudRequest *request) {
    const std::string &token = options().device_token;
    if (token.empty()) {
        request->headers.erase("authorization");
    } else {
        request->headers["authorization"] = "Bearer " + token;
    }
}

CloudRequest gap_request(const spool::Gap &gap) {
    CloudRequest req = make_request("POST", device_path("/gaps"), kRequestTimeoutS);
    req.headers["content-type"] = "application/json";
    JsonGuard json{cJSON_CreateObject()};
    cJSON_AddNumberToObject(json.root, "from", gap.from);
    cJSON_AddNumberToObject(json.root, "to", gap.to);
    cJSON_AddStringToObject(json.root, "reason", gap.reason);
    cJSON_AddNumberToObject(json.root, "bytes", static_cast<double>(gap.bytes));
    if (char *text = cJSON_PrintUnformatted(json.root)) {
        req.body = text;
        cJSON_free(text);
    }
    return req;
}

} // namespace internal

std::string path_segment(const std::string &text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                                (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' ||
                                c == '~';
        if (unreserved) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

} // namespace hostkit

extern "C" {

int32_t cloud_get_storage_config(vexo_storage_config_t *cfg, int32_t flag) {
    using namespace hostkit;
    (void)flag;
    if (cfg == nullptr) {
        return -1;
    }
    const CloudResponse resp = internal::send_live(
        make_request("GET", device_path("/storage/config"), kRequestTimeoutS), false);
    if (resp.status == 410) {
        return VEXO_CLOUD_ORDER_EXPIRED;
    }
    if (resp.status >= 500 && resp.status <= 599) {
        return VEXO_CLOUD_SERVICE_FAILED;
    }
    if (resp.status != 200) {
        return -1;
    }
    JsonGuard json{cJSON_ParseWithLength(resp.body.data(), resp.body.size())};
    if (!cJSON_IsObject(json.root)) {
        internal::log_error("storage config: answer is not a JSON object");
        return -1;
    }
    // The numbers are read into a copy first, so a refused answer leaves the record as it was.
    vexo_storage_config_t next;
    std::memset(&next, 0, sizeof next);
    const char *what = "storage config";
    if (!copy_int(&next.event_duration, json.root, "eventDuration", OutOfRange::kRefuse, what) ||
        !copy_int(&next.slice_duration, json.root, "sliceDuration", OutOfRange::kRefuse, what) ||
        !copy_int(&next.silence_interval, json.root, "silenceInterval", OutOfRange::kRefuse,
                  what) ||
        !copy_int(&next.count_left, json.root, "countLeft", OutOfRange::kClamp, what)) {
        return -1;
    }
    copy_text(next.cloud_type, sizeof next.cloud_type, json.root, "cloudType");
    copy_text(next.address_prefix, sizeof next.address_prefix, json.root, "addressPrefix");
    copy_text(next.address_suffix, sizeof next.address_suffix, json.root, "addressSuffix");
    copy_text(next.store_mode, sizeof next.store_mode, json.root, "storeMode");
    *cfg = next;
    return 0;
}

int32_t cloud_get_storage_restriction_config(vexo_storage_config_t *cfg) {
    using namespace hostkit;
    if (cfg == nullptr) {
        return -1;
    }
    const CloudResponse resp = internal::send_live(
        make_request("GET", device_path("/storage/restriction"), kRequestTimeoutS), false);
    if (resp.status != 200) {
        return -1;
    }
    JsonGuard json{cJSON_ParseWithLength(resp.body.data(), resp.body.size())};
    if (!cJSON_IsObject(json.root)) {
        return -1;
    }
    int32_t event_duration = cfg->event_duration;
    int32_t slice_duration = cfg->slice_duration;
    const char *what = "storage restriction";
    if (!copy_int(&event_duration, json.root, "eventDuration", OutOfRange::kRefuse, what) ||
        !copy_int(&slice_duration, json.root, "sliceDuration", OutOfRange::kRefuse, what)) {
        return -1;
    }
    cfg->event_duration = event_duration;
    cfg->slice_duration = slice_duration;
    return 0;
}

int32_t cloud_cfg_broadcast_update_status(void) {
    hostkit::internal::log_debug("cloud configuration is changing");
    return 0;
}

int32_t cloud_put_data_to_file(const vexo_storage_config_t *cfg, const char *scheme, int32_t flag,
                               const char *file_name, const char *content_type, const uint8_t *data,
                               uint32_t len) {
    using namespace hostkit;
    (void)cfg;
    (void)scheme; // the transport's own scheme is used
    (void)flag;
    if (file_name == nullptr || file_name[0] == '\0' || (data == nullptr && len > 0)) {
        internal::log_error("upload: bad arguments");
        return -1;
    }
    CloudRequest req =
        make_request("PUT", device_path("/media/") + path_segment(file_name), kUploadTimeoutS);
    req.headers["content-type"] =
        content_type != nullptr ? content_type : "application/octet-stream";
    req.body.assign(reinterpret_cast<const char *>(data), len);
    const internal::Delivery sent =
        internal::deliver(std::move(req), internal::media_item(file_name));
    if (sent.queued) {
        return 0; // counted when the spool delivers it
    }
    const bool ok = success(sent.response);
    internal::count_upload(file_name, len, ok);
    return ok ? 0 : -1;
}

int32_t iot_httpc_common_post_no_remalloc(const char *api_name, const char *api_version,
                                          const char *uuid, const char *dev_id, char *post_data,
                                          uint32_t post_len, const char *extra_header,
                                          cJSON **result) {
    using namespace hostkit;
    (void)uuid;
    (void)extra_header;
    if (api_name == nullptr || post_data == nullptr || result == nullptr) {
        internal::log_error("api post: null argument");
        return -1;
    }
    *result = nullptr;
    CloudRequest req = make_request("POST", "/v1/api/" + path_segment(api_name), kRequestTimeoutS);
    if (api_version != nullptr && api_version[0] != '\0') {
        req.query = "v=" + path_segment(api_version);
    }
    if (dev_id != nullptr && dev_id[0] != '\0') {
        req.headers["x-vexo-device"] = dev_id;
    }
    req.headers["content-type"] = "application/json";
    req.body.assign(post_data, strnlen(post_data, post_len));
    bool spoolable = false;
    const spool::ItemInfo item = internal::api_item(api_name, req.body, &spoolable);
    const internal::Delivery sent = spoolable
                                        ? internal::deliver(req, item)
                                        : internal::Delivery{false, internal::send_live(req, true)};
    if (sent.queued) {
        *result = queued_answer(item);
        return *result != nullptr ? 0 : -1;
    }
    internal::count_api_post();
    const CloudResponse &resp = sent.response;
    if (resp.status != 200) {
        return -1;
    }
    JsonGuard json{cJSON_ParseWithLength(resp.body.data(), resp.body.size())};
    const cJSON *success = cJSON_GetObjectItemCaseSensitive(json.root, "success");
    if (!cJSON_IsTrue(success)) {
        const cJSON *code = cJSON_GetObjectItemCaseSensitive(json.root, "code");
        const cJSON *msg = cJSON_GetObjectItemCaseSensitive(json.root, "msg");
        internal::log_error("api %s refused: %s %s", api_name,
                            cJSON_IsString(code) ? code->valuestring : "?",
                            cJSON_IsString(msg) ? msg->valuestring : "");
        return -1;
    }
    cJSON *res = cJSON_DetachItemFromObjectCaseSensitive(json.root, "result");
    if (res == nullptr) {
        res = cJSON_CreateObject();
    }
    *result = res;
    return 0;
}

int32_t vexo_ipc_alarm_event(const vexo_alarm_event_t *event) {
    using namespace hostkit;
    if (event == nullptr) {
        return -1;
    }
    JsonGuard json{cJSON_CreateObject()};
    cJSON_AddNumberToObject(json.root, "time", event->time);
    cJSON_AddNumberToObject(json.root, "withPicture", event->with_picture);
    cJSON_AddStringToObject(json.root, "extra", event->extra != nullptr ? event->extra : "");
    const std::string picture = event->picture != nullptr && event->picture_size > 0
                                    ? base64(event->picture, event->picture_size)
                                    : std::string();
    cJSON_AddStringToObject(json.root, "picture", picture.c_str());
    char *text = cJSON_PrintUnformatted(json.root);
    if (text == nullptr) {
        return -1;
    }
    CloudRequest req = make_request("POST", device_path("/alarms"), kRequestTimeoutS);
    req.headers["content-type"] = "application/json";
    req.body = text;
    cJSON_free(text);
    spool::ItemInfo item;
    item.kind = spool::Kind::kAlarm;
    const internal::Delivery sent = internal::deliver(std::move(req), item);
    if (sent.queued) {
        return 0;
    }
    internal::count_alarm();
    return success(sent.response) ? 0 : -1;
}

} // extern "C"

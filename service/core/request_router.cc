/// Service::handle: finds the endpoint of a request, checks everything a device request must
/// carry (size, device header, token, a known device) and hands it to the endpoint's
/// handler. Refusals come before any change, so a refused request changes nothing.
#include <openssl/crypto.h>

#include "answers.h"
#include "durable_file.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kBadRequest = 400;
constexpr int32_t kUnauthorized = 401;
constexpr int32_t kNotFound = 404;
constexpr int32_t kMethodNotAllowed = 405;
constexpr int32_t kPayloadTooLarge = 413;

constexpr char kDevicesPrefix[] = "/v1/devices/";
constexpr char kApiPrefix[] = "/v1/api/";
constexpr char kMediaPrefix[] = "media/";
constexpr char kDeviceHeader[] = "x-vexo-device";
constexpr char kAuthorizationHeader[] = "authorization";
/// Set to "1" on a request the device kept through an outage and sends late.
constexpr char kReplayHeader[] = "x-vexo-replay";
constexpr char kBearer[] = "Bearer ";

// ---- helpers -------------------------------------------------------------------------------

enum class Endpoint { kStorageConfig, kStorageRestriction, kMedia, kAlarms, kGaps, kApi };

/// Where a request goes: the endpoint, its method, and what the path names.
struct Target {
    Endpoint endpoint;
    const char *method;
    bool device_path;        ///< the path names the device (all but the API calls)
    std::string path_device; ///< the device in the path
    std::string name;        ///< media file name or API name
};

bool starts_with(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::optional<Target> match_path(const std::string &path) {
    if (starts_with(path, kApiPrefix)) {
        const std::string api = path.substr(sizeof kApiPrefix - 1);
        if (api.empty() || api.find('/') != std::string::npos) {
            return std::nullopt;
        }
        return Target{Endpoint::kApi, "POST", false, "", api};
    }
    if (!starts_with(path, kDevicesPrefix)) {
        return std::nullopt;
    }
    const std::string rest = path.substr(sizeof kDevicesPrefix - 1);
    const size_t slash = rest.find('/');
    if (slash == std::string::npos) {
        return std::nullopt;
    }
    const std::string device = rest.substr(0, slash);
    const std::string resource = rest.substr(slash + 1);
    if (resource == "storage/config") {
        return Target{Endpoint::kStorageConfig, "GET", true, device, ""};
    }
    if (resource == "storage/restriction") {
        return Target{Endpoint::kStorageRestriction, "GET", true, device, ""};
    }
    if (resource == "alarms") {
        return Target{Endpoint::kAlarms, "POST", true, device, ""};
    }
    if (resource == "gaps") {
        return Target{Endpoint::kGaps, "POST", true, device, ""};
    }
    if (starts_with(resource, kMediaPrefix)) {
        // The whole rest is the file name, so that "media/../x" is refused as a name.
        return Target{Endpoint::kMedia, "PUT", true, device,
                      resource.substr(sizeof kMediaPrefix - 1)};
    }
    return std::nullopt;
}

std::string header(const Request &request, const char *name) {
    const auto it = request.headers.find(name);
    return it == request.headers.end() ? "" : it->second;
}

bool token_matches(const Request &request, const std::string &token) {
    const std::string expected = kBearer + token;
    const std::string given = header(request, kAuthorizationHeader);
    return given.size() == expected.size() &&
           CRYPTO_memcmp(given.data(), expected.data(), given.size()) == 0;
}

/// The refusal a request gets before its handler runs; nullopt when it may go on.
Response too_large(const ServiceCore &core) {
    return error_answer(kPayloadTooLarge,
                        "body larger than " + std::to_string(core.options.max_body) + " bytes");
}

/// body_size: the body's length, or the length announced for a body not read yet.
std::optional<Response> check_request(ServiceCore &core, const Request &request,
                                      const Target &target, const std::string &device,
                                      uint64_t body_size) {
    if (request.method != target.method) {
        return error_answer(kMethodNotAllowed, "method " + request.method + " not allowed");
    }
    if (body_size > core.options.max_body) {
        return too_large(core);
    }
    if (request.headers.count(kDeviceHeader) == 0) {
        return error_answer(kBadRequest, "X-Vexo-Device header missing");
    }
    if (!valid_device_id(device)) {
        return error_answer(kBadRequest, "invalid device id");
    }
    if (target.device_path && target.path_device != device) {
        return error_answer(kBadRequest, "the device in the path is not X-Vexo-Device");
    }
    if (!core.options.tokens.empty()) {
        const auto token = core.options.tokens.find(device);
        if (token == core.options.tokens.end() || !token_matches(request, token->second)) {
            return error_answer(kUnauthorized, "missing or wrong bearer token");
        }
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    if (!find_device(core, device)) {
        return error_answer(kNotFound, "unknown device");
    }
    return std::nullopt;
}

Response dispatch(ServiceCore &core, const Request &request, const Target &target,
                  const std::string &device) {
    switch (target.endpoint) {
    case Endpoint::kStorageConfig:
        return answer_storage_config(core, device);
    case Endpoint::kStorageRestriction:
        return answer_storage_restriction(core, device);
    case Endpoint::kMedia:
        return store_media_upload(core, device, target.name, request.body);
    case Endpoint::kAlarms:
        return store_alarm_request(core, device, request.body);
    case Endpoint::kGaps:
        return store_gap_request(core, device, request.body);
    case Endpoint::kApi:
        return answer_api_call(core, device, target.name, request.query, request.body,
                               header(request, kReplayHeader) == "1");
    }
    return error_answer(kNotFound, "no such resource");
}

Response route(ServiceCore &core, const Request &request) {
    const std::optional<Target> target = match_path(request.path);
    if (!target) {
        return error_answer(kNotFound, "no such resource");
    }
    const std::string device = header(request, kDeviceHeader);
    if (std::optional<Response> refusal =
            check_request(core, request, *target, device, request.body.size())) {
        return *refusal;
    }
    return dispatch(core, request, *target, device);
}

Response route_streamed(ServiceCore &core, const Request &head, uint64_t content_length,
                        const BodyReader &read_body) {
    const std::optional<Target> target = match_path(head.path);
    if (!target) {
        return error_answer(kNotFound, "no such resource");
    }
    const std::string device = header(head, kDeviceHeader);
    if (std::optional<Response> refusal =
            check_request(core, head, *target, device, content_length)) {
        return *refusal;
    }
    if (target->endpoint == Endpoint::kMedia) {
        return stream_media_upload(core, device, target->name, content_length, read_body);
    }
    // Everything else is small: read it whole, within the limit, and answer as usual.
    Request whole = head;
    bool too_long = false;
    const bool complete = read_body([&](const char *data, size_t size) {
        if (whole.body.size() + size > core.options.max_body) {
            too_long = true;
            return false;
        }
        whole.body.append(data, size);
        return true;
    });
    if (too_long) {
        return too_large(core);
    }
    if (!complete) {
        return error_answer(kBadRequest, "request body incomplete");
    }
    return dispatch(core, whole, *target, device);
}

/// The answer to a request that failed inside the service: the detail, which may name server
/// paths, goes to the log; the device gets a generic text (507 when the disk is full).
Response storage_failure(const ServiceCore &core, const Request &request, const std::string &what,
                         int error_number) {
    core.log(request.method + " " + request.path + " failed: " + what);
    return storage_failure_answer(error_number);
}

/// A database that cannot be reached (e.g. a PostgreSQL server restarting) is a passing
/// state: 503, which the device answers by trying again later.
Response database_failure(const ServiceCore &core, const Request &request,
                          const std::string &what) {
    core.log(request.method + " " + request.path + " failed: " + what);
    return metadata_unavailable_answer();
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response Service::handle(const Request &request) {
    try {
        return route(impl_->core, request);
    } catch (const FileError &e) {
        return storage_failure(impl_->core, request, e.what(), e.error_number());
    } catch (const StoreUnavailable &e) {
        return database_failure(impl_->core, request, e.what());
    } catch (const std::exception &e) {
        return storage_failure(impl_->core, request, e.what(), 0);
    }
}

Response Service::handle_streamed(const Request &head, uint64_t content_length,
                                  const BodyReader &read_body) {
    try {
        return route_streamed(impl_->core, head, content_length, read_body);
    } catch (const FileError &e) {
        return storage_failure(impl_->core, head, e.what(), e.error_number());
    } catch (const StoreUnavailable &e) {
        return database_failure(impl_->core, head, e.what());
    } catch (const std::exception &e) {
        return storage_failure(impl_->core, head, e.what(), 0);
    }
}

} // namespace vexo_cloud

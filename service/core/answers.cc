/// Building the service's answers.
#include "answers.h"

#include <cerrno>

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kInternalError = 500;
constexpr int32_t kServiceUnavailable = 503;
constexpr int32_t kInsufficientStorage = 507;

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response json_answer(int32_t status, const Json &body) {
    Response response;
    response.status = status;
    response.body = to_text(body);
    return response;
}

Response error_answer(int32_t status, const std::string &message) {
    return json_answer(status, Json{{"error", message}});
}

Response api_result(const Json &result) {
    return json_answer(kOk, Json{{"success", true}, {"result", result}});
}

Response api_refusal(const std::string &code, const std::string &message) {
    return json_answer(kOk, Json{{"success", false}, {"code", code}, {"msg", message}});
}

Response storage_failure_answer(int error_number) {
    if (error_number == ENOSPC || error_number == EDQUOT) {
        return error_answer(kInsufficientStorage, "the service's storage is full");
    }
    // The object store cannot be reached or asks to try again: a device retries later.
    if (error_number == ECONNREFUSED || error_number == EAGAIN) {
        return error_answer(kServiceUnavailable, "the service's storage is unavailable");
    }
    return error_answer(kInternalError, "internal error: the request was not stored");
}

Response metadata_unavailable_answer() {
    return error_answer(kServiceUnavailable,
                        "the service's database is unavailable: try again later");
}

} // namespace vexo_cloud

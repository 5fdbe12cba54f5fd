/// The shapes of the service's answers: JSON bodies, {"error":...} for refused requests,
/// and the success/failure envelope of the API calls.
#ifndef VEXO_CLOUD_ANSWERS_H
#define VEXO_CLOUD_ANSWERS_H

#include <string>

#include "cloud_service.h"
#include "json_fields.h"

namespace vexo_cloud {

Response json_answer(int32_t status, const Json &body);
/// status with {"error":message}.
Response error_answer(int32_t status, const std::string &message);
/// 200 {"success":true,"result":result}.
Response api_result(const Json &result);
/// 200 {"success":false,"code":code,"msg":message}: the API refuses the call.
Response api_refusal(const std::string &code, const std::string &message);
/// 507 when the disk is full (error_number ENOSPC or EDQUOT), else 500, with a generic text
/// that names no server path.
Response storage_failure_answer(int error_number);
/// 503: the metadata database cannot be reached now.
Response metadata_unavailable_answer();

} // namespace vexo_cloud

#endif

/// Reading typed members out of JSON objects, for request bodies and the service's own files.
#ifndef VEXO_CLOUD_JSON_FIELDS_H
#define VEXO_CLOUD_JSON_FIELDS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace vexo_cloud {

using Json = nlohmann::json;

/// The object a text holds; nullopt when the text is not JSON or not an object.
std::optional<Json> parse_object(const std::string &text);

// Each reader is false (and leaves *out alone) when the member is missing or of another
// type or range: integers must be whole numbers that fit.
bool get_u32(const Json &object, const char *key, uint32_t *out);
bool get_i32(const Json &object, const char *key, int32_t *out);
/// A whole number from 0 to 2^63-1.
bool get_u64(const Json &object, const char *key, uint64_t *out);
bool get_text(const Json &object, const char *key, std::string *out);
/// A JSON boolean, or the numbers 0 and 1.
bool get_flag(const Json &object, const char *key, bool *out);

/// JSON text, compact or indented; bytes that are not UTF-8 are replaced instead of failing.
std::string to_text(const Json &value, int indent = -1);

/// True when text is valid UTF-8 (what a JSON string may hold).
bool is_utf8(const std::string &text);

} // namespace vexo_cloud

#endif

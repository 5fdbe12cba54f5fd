/// Reading typed members out of JSON objects, for request bodies and the service's own files.
#ifndef VEXO_CLOUD_JSON_FIELDS_H
#define VEXO_CLOUD_JSON_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace vexo_cloud {

using Json = nlohmann::json;

/// How deep arrays and objects may nest in a JSON text the service parses: request bodies,
/// payloadInfo, admin calls and its own records. Deeper texts are refused before parsing, so
/// no recursive walk over a parsed value can run out of stack.
constexpr size_t kMaxJsonDepth = 32;
/// The longest JSON text the service parses (an alarm's picture travels inside one).
constexpr size_t kMaxJsonBytes = 4u << 20;

/// Why text may not be parsed: longer than kMaxJsonBytes or nested deeper than
/// kMaxJsonDepth; empty when it may. Counts brackets outside strings, so it is linear and
/// allocates nothing.
std::string json_limit_breach(const std::string &text);

/// The value a text holds; nullopt when the text breaks the limits above or is not JSON.
/// why, when not null, gets the reason then.
std::optional<Json> parse_value(const std::string &text, std::string *why = nullptr);

/// The object a text holds; nullopt when parse_value refuses it or it is not an object.
std::optional<Json> parse_object(const std::string &text, std::string *why = nullptr);

/// The object a request body holds; nullopt with *error ("the body is not a JSON object", or
/// the limit it breaks) for any other body.
std::optional<Json> parse_body(const std::string &body, std::string *error);

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

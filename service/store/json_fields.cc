/// Typed member readers over nlohmann::json, without exceptions for bad input.
#include "json_fields.h"

#include <limits>
#include <utility>

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

/// The member as a signed 64-bit whole number, when it is one.
std::optional<int64_t> whole_number(const Json &object, const char *key) {
    const auto it = object.find(key);
    if (it == object.end()) {
        return std::nullopt;
    }
    if (it->is_number_unsigned()) {
        const uint64_t value = it->get<uint64_t>();
        if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<int64_t>(value);
    }
    if (it->is_number_integer()) {
        return it->get<int64_t>();
    }
    return std::nullopt;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::string json_limit_breach(const std::string &text) {
    if (text.size() > kMaxJsonBytes) {
        return "JSON text longer than " + std::to_string(kMaxJsonBytes) + " bytes";
    }
    size_t depth = 0;
    bool in_string = false;
    bool escaped = false;
    for (const char c : text) {
        if (in_string) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                in_string = false;
            }
            continue;
        }
        if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxJsonDepth) {
                return "JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return "";
}

std::optional<Json> parse_value(const std::string &text, std::string *why) {
    std::string breach = json_limit_breach(text);
    if (!breach.empty()) {
        if (why != nullptr) {
            *why = std::move(breach);
        }
        return std::nullopt;
    }
    Json value = Json::parse(text, nullptr, false);
    if (value.is_discarded()) {
        if (why != nullptr) {
            *why = "not JSON";
        }
        return std::nullopt;
    }
    return value;
}

std::optional<Json> parse_object(const std::string &text, std::string *why) {
    std::optional<Json> value = parse_value(text, why);
    if (value && !value->is_object()) {
        if (why != nullptr) {
            *why = "not a JSON object";
        }
        return std::nullopt;
    }
    return value;
}

std::optional<Json> parse_body(const std::string &body, std::string *error) {
    const std::string breach = json_limit_breach(body);
    if (!breach.empty()) {
        *error = "the body is refused: " + breach;
        return std::nullopt;
    }
    std::optional<Json> object = parse_object(body);
    if (!object) {
        *error = "the body is not a JSON object";
    }
    return object;
}

bool get_u32(const Json &object, const char *key, uint32_t *out) {
    const std::optional<int64_t> value = whole_number(object, key);
    if (!value || *value < 0 || *value > std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    *out = static_cast<uint32_t>(*value);
    return true;
}

bool get_i32(const Json &object, const char *key, int32_t *out) {
    const std::optional<int64_t> value = whole_number(object, key);
    if (!value || *value < std::numeric_limits<int32_t>::min() ||
        *value > std::numeric_limits<int32_t>::max()) {
        return false;
    }
    *out = static_cast<int32_t>(*value);
    return true;
}

bool get_u64(const Json &object, const char *key, uint64_t *out) {
    const std::optional<int64_t> value = whole_number(object, key);
    if (!value || *value < 0) {
        return false;
    }
    *out = static_cast<uint64_t>(*value);
    return true;
}

bool get_text(const Json &object, const char *key, std::string *out) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return false;
    }
    *out = it->get<std::string>();
    return true;
}

bool get_flag(const Json &object, const char *key, bool *out) {
    const auto it = object.find(key);
    if (it != object.end() && it->is_boolean()) {
        *out = it->get<bool>();
        return true;
    }
    const std::optional<int64_t> value = whole_number(object, key);
    if (!value || (*value != 0 && *value != 1)) {
        return false;
    }
    *out = *value == 1;
    return true;
}

std::string to_text(const Json &value, int indent) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

bool is_utf8(const std::string &text) {
    try {
        (void)Json(text).dump();
        return true;
    } catch (const Json::type_error &) {
        return false;
    }
}

} // namespace vexo_cloud

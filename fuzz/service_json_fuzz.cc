// Fuzz target: the service's JSON readers (json_fields.h).
//
// The input is a JSON text. It goes through the limit check and the three parsers; a value
// that parses must print and parse back to itself, and every member of an object is read
// with each typed reader, whose answers must agree with each other and with the value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "json_fields.h"

namespace {

using vexo_cloud::Json;

void fail(const std::string &what) {
    (void)std::fprintf(stderr, "service_json_fuzz: %s\n", what.c_str());
    std::abort();
}

void read_members(const Json &object) {
    for (const auto &member : object.items()) {
        const std::string &key = member.key();
        uint32_t u32 = 0;
        int32_t i32 = 0;
        uint64_t u64 = 0;
        bool flag = false;
        std::string text;
        const bool is_u32 = vexo_cloud::get_u32(object, key.c_str(), &u32);
        const bool is_i32 = vexo_cloud::get_i32(object, key.c_str(), &i32);
        const bool is_u64 = vexo_cloud::get_u64(object, key.c_str(), &u64);
        const bool is_flag = vexo_cloud::get_flag(object, key.c_str(), &flag);
        const bool is_text = vexo_cloud::get_text(object, key.c_str(), &text);
        // A key with a NUL in it is looked up cut short: it may find another member or none.
        if (key.find('\0') != std::string::npos) {
            continue;
        }
        const Json &value = member.value();
        if (is_u32 && (!is_u64 || u64 != u32)) {
            fail("get_u32 and get_u64 disagree on " + key);
        }
        if (is_i32 && i32 >= 0 && (!is_u32 || u32 != static_cast<uint32_t>(i32))) {
            fail("get_i32 and get_u32 disagree on " + key);
        }
        if (is_u64 && (!value.is_number_integer() || u64 > std::numeric_limits<int64_t>::max())) {
            fail("get_u64 took a value that is not a whole number in range: " + key);
        }
        if (is_flag && !value.is_boolean() && !(is_u32 && u32 <= 1)) {
            fail("get_flag took a value that is neither a boolean nor 0 or 1: " + key);
        }
        if (is_text != value.is_string() || (is_text && text != value.get<std::string>())) {
            fail("get_text disagrees with the value of " + key);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string breach = vexo_cloud::json_limit_breach(text);
    std::string why;
    const std::optional<Json> value = vexo_cloud::parse_value(text, &why);
    if (!breach.empty() && (value || why != breach)) {
        fail("a text over the limits was parsed");
    }
    std::string error;
    const std::optional<Json> body = vexo_cloud::parse_body(text, &error);
    if (body.has_value() != (value && value->is_object()) || (!body && error.empty())) {
        fail("parse_body and parse_value disagree");
    }
    if (vexo_cloud::parse_object(text).has_value() != body.has_value()) {
        fail("parse_object and parse_body disagree");
    }
    if (!value) {
        return 0;
    }
    const std::string printed = vexo_cloud::to_text(*value);
    const std::optional<Json> again = vexo_cloud::parse_value(printed);
    if (!again || *again != *value || !vexo_cloud::is_utf8(printed)) {
        fail("a parsed value does not print and parse back: " + printed);
    }
    if (value->is_object()) {
        read_members(*value);
    }
    return 0;
}

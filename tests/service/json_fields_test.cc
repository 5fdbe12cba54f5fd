/// The typed member readers every request body goes through: numbers from hostile peers are
/// refused whole, never cut or wrapped into the target type.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "service/store/json_fields.h"

namespace {

using vexo_cloud::Json;

/// {"n":<literal>} parsed; the readers see exactly what a request body would hold.
Json member(const std::string &literal) {
    const std::optional<Json> object = vexo_cloud::parse_object("{\"n\":" + literal + "}");
    EXPECT_TRUE(object.has_value()) << literal;
    return object.value_or(Json::object());
}

TEST(JsonFields, WholeNumberReadersTakeOnlyWhatFitsTheirType) {
    constexpr int64_t kNo = INT64_MIN; // refused: *out must stay as it was
    const struct {
        const char *literal;
        int64_t as_u32, as_i32;
    } cases[] = {
        {"0", 0, 0},
        {"-0", 0, 0},
        {"2147483647", 2147483647, 2147483647},
        {"2147483648", 2147483648, kNo},
        {"-2147483648", kNo, INT32_MIN},
        {"-2147483649", kNo, kNo},
        {"4294967295", 4294967295, kNo},
        {"4294967296", kNo, kNo},
        {"4294967306", kNo, kNo}, // 10 after a 32-bit wrap
        {"-1", kNo, -1},
        {"18446744073709551615", kNo, kNo},
        {"18446744073709551616", kNo, kNo}, // beyond 64 bits: a double to the parser
        {"-9223372036854775809", kNo, kNo},
        {"1e300", kNo, kNo},
        {"-1e300", kNo, kNo},
        {"1.5", kNo, kNo},
        {"30.0", kNo, kNo}, // written as a fraction: not a whole number on the wire
        {"1e1", kNo, kNo},
        {"\"30\"", kNo, kNo},
        {"true", kNo, kNo},
        {"null", kNo, kNo},
        {"[30]", kNo, kNo},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.literal);
        const Json object = member(c.literal);
        uint32_t u = 77;
        EXPECT_EQ(vexo_cloud::get_u32(object, "n", &u), c.as_u32 != kNo);
        EXPECT_EQ(int64_t{u}, c.as_u32 != kNo ? c.as_u32 : 77);
        int32_t i = 77;
        EXPECT_EQ(vexo_cloud::get_i32(object, "n", &i), c.as_i32 != kNo);
        EXPECT_EQ(int64_t{i}, c.as_i32 != kNo ? c.as_i32 : 77);
    }
    // Beyond the double range the parser refuses the whole text.
    EXPECT_FALSE(vexo_cloud::parse_object(R"({"n":1e400})"));
    EXPECT_FALSE(vexo_cloud::parse_object(R"({"n":-1e400})"));
    uint32_t untouched = 5;
    EXPECT_FALSE(vexo_cloud::get_u32(Json::object(), "n", &untouched)); // missing
    EXPECT_EQ(untouched, 5u);
}

TEST(JsonFields, FlagsAreBooleansOrExactlyZeroAndOne) {
    const struct {
        const char *literal;
        int value; // -1: refused
    } cases[] = {
        {"true", 1}, {"false", 0},  {"1", 1},     {"0", 0},           {"-0", 0},
        {"2", -1},   {"-1", -1},    {"1.0", -1},  {"4294967297", -1}, {"1e300", -1},
        {"0.5", -1}, {"\"1\"", -1}, {"null", -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.literal);
        bool flag = true;
        EXPECT_EQ(vexo_cloud::get_flag(member(c.literal), "n", &flag), c.value >= 0);
        EXPECT_EQ(flag, c.value >= 0 ? c.value == 1 : true);
    }
}

TEST(JsonFields, TextsBeyondTheLimitsAreRefusedBeforeParsing) {
    const auto nest = [](size_t depth, const std::string &inner = "") {
        return std::string(depth, '[') + inner + std::string(depth, ']');
    };
    const struct {
        std::string text;
        bool taken;
    } cases[] = {
        {nest(vexo_cloud::kMaxJsonDepth), true},
        {nest(vexo_cloud::kMaxJsonDepth + 1), false},
        {"{\"a\":" + nest(vexo_cloud::kMaxJsonDepth - 1) + "}", true},
        {"{\"a\":" + nest(vexo_cloud::kMaxJsonDepth) + "}", false},
        // Brackets inside strings, escaped quotes included, do not nest.
        {"[\"" + std::string(100, '[') + "\\\"" + std::string(100, '{') + "\"]", true},
        {"[\"\\\\\"" + nest(vexo_cloud::kMaxJsonDepth) + "]", false},
        // Unbalanced closers do not buy depth back.
        {"]]]]" + nest(vexo_cloud::kMaxJsonDepth + 1), false},
        {"\"" + std::string(vexo_cloud::kMaxJsonBytes - 2, 'x') + "\"", true},
        {"\"" + std::string(vexo_cloud::kMaxJsonBytes - 1, 'x') + "\"", false},
    };
    for (const auto &c : cases) {
        const std::string what = c.text.substr(0, 80);
        EXPECT_EQ(vexo_cloud::json_limit_breach(c.text).empty(), c.taken) << what;
        std::string why;
        const bool parsed = vexo_cloud::parse_value(c.text, &why).has_value();
        if (!c.taken) {
            EXPECT_FALSE(parsed) << what;
            EXPECT_FALSE(why.empty()) << what;
        }
    }
    std::string error;
    EXPECT_FALSE(vexo_cloud::parse_body(nest(100000), &error));
    EXPECT_EQ(error, "the body is refused: JSON nested deeper than 32 levels");
    EXPECT_FALSE(vexo_cloud::parse_body("[1]", &error));
    EXPECT_EQ(error, "the body is not a JSON object");
}

} // namespace

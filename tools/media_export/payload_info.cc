// Reading payloadInfo with nlohmann::json, tolerant of numbers written as strings.
#include "payload_info.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

namespace vexo_tool {
namespace {

/// The member as an integer in [low, high]: a JSON integer or a string of digits. nullopt
/// when it is absent; sets *bad when present but unusable.
std::optional<int> integer_member(const nlohmann::json &object, const char *name, int low, int high,
                                  std::string *bad) {
    const auto found = object.find(name);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    long long value = 0;
    if (found->is_number_unsigned()) {
        // Anything above the ranges checked below is simply too large.
        value = static_cast<long long>(std::min<unsigned long long>(
            found->get<unsigned long long>(), std::numeric_limits<int>::max() + 1ull));
    } else if (found->is_number_integer()) {
        value = found->get<long long>();
    } else if (found->is_string()) {
        const std::string &text = found->get_ref<const std::string &>();
        if (text.empty() || text.size() > 9 ||
            text.find_first_not_of("0123456789") != std::string::npos) {
            *bad = std::string(name) + " is not a number";
            return std::nullopt;
        }
        value = std::stoll(text);
    } else {
        *bad = std::string(name) + " is not a number";
        return std::nullopt;
    }
    if (value < low || value > high) {
        *bad = std::string(name) + " " + std::to_string(value) + " is out of range";
        return std::nullopt;
    }
    return static_cast<int>(value);
}

} // namespace

bool parse_payload_info(const std::string &text, PayloadInfo *info, std::string *error) {
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        *error = "payloadInfo is not a JSON object";
        return false;
    }
    std::string bad;
    PayloadInfo parsed;
    const std::optional<int> video = integer_member(json, "vType", 0, 1000, &bad);
    parsed.fps = integer_member(json, "vFps", 0, 1000, &bad).value_or(0);
    parsed.width = integer_member(json, "vWide", 0, 16384, &bad).value_or(0);
    parsed.height = integer_member(json, "vHigh", 0, 16384, &bad).value_or(0);
    const std::optional<int> audio = integer_member(json, "aType", 0, 1000, &bad);
    parsed.sample_rate = integer_member(json, "aSampling", 0, 384000, &bad).value_or(0);
    parsed.bits = integer_member(json, "aBitwide", 0, 64, &bad).value_or(0);
    parsed.channels = integer_member(json, "aChannels", 0, 8, &bad).value_or(0);
    if (!bad.empty()) {
        *error = "payloadInfo: " + bad;
        return false;
    }
    if (!video) {
        *error = "payloadInfo has no vType";
        return false;
    }
    parsed.video_codec = *video;
    parsed.has_audio = audio.has_value();
    parsed.audio_codec = audio.value_or(0);
    *info = parsed;
    return true;
}

} // namespace vexo_tool

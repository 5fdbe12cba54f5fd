/// The recordings table of vexo-cloud.
#include "recordings_text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <vector>

#include "cloud_service.h"
#include "recording_listing.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

struct Row {
    uint32_t start_time = 0;
    uint32_t end_time = 0;
    uint64_t files = 0;
    uint64_t bytes = 0;
    std::string key_md5;
    std::string state;
};

std::optional<Row> parse_row(const Json &item, std::string *error) {
    Row row;
    if (!item.is_object() || !get_u32(item, "startTime", &row.start_time) ||
        !get_u32(item, "endTime", &row.end_time) || !get_u64(item, "files", &row.files) ||
        !get_u64(item, "bytes", &row.bytes) || !get_text(item, "keyMd5", &row.key_md5)) {
        *error = "a recording without startTime, endTime, files, bytes or keyMd5";
        return std::nullopt;
    }
    // A service without the state member: a recording without an end is just "open".
    if (item.contains("state") && !get_text(item, "state", &row.state)) {
        *error = "a recording's state is not a text";
        return std::nullopt;
    }
    return row;
}

std::optional<Gap> parse_gap(const Json &item, std::string *error) {
    Gap gap;
    if (!item.is_object() || !get_u32(item, "from", &gap.from) || !get_u32(item, "to", &gap.to) ||
        !get_text(item, "reason", &gap.reason) || !get_u64(item, "bytes", &gap.bytes)) {
        *error = "a gap without from, to, reason or bytes";
        return std::nullopt;
    }
    return gap;
}

std::string row_text(const Row &row) {
    const bool closed = row.end_time != 0;
    const std::string end = closed              ? local_time_text(row.end_time)
                            : row.state.empty() ? "open"
                                                : row.state;
    const std::string duration = !closed ? "-"
                                 : row.end_time < row.start_time
                                     ? "?"
                                     : duration_text(row.end_time - row.start_time);
    char line[512];
    std::snprintf(
        line, sizeof line, "%-19s  %-10" PRIu32 "  %-23s  %-16s  %5" PRIu64 "  %12" PRIu64 "  %s\n",
        local_time_text(row.start_time).c_str(), row.start_time, end.c_str(), duration.c_str(),
        row.files, row.bytes, row.key_md5.empty() ? "-" : row.key_md5.c_str());
    return line;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<std::string> recordings_text(const Json &answer, std::string *error) {
    if (!answer.is_object() || !answer.contains("recordings") ||
        !answer.at("recordings").is_array()) {
        *error = "the answer has no \"recordings\" list";
        return std::nullopt;
    }
    std::vector<Row> rows;
    for (const Json &item : answer.at("recordings")) {
        std::optional<Row> row = parse_row(item, error);
        if (!row) {
            return std::nullopt;
        }
        rows.push_back(std::move(*row));
    }
    // A service without gaps has no "gaps" member.
    std::vector<Gap> gaps;
    if (answer.contains("gaps")) {
        if (!answer.at("gaps").is_array()) {
            *error = "\"gaps\" is not a list";
            return std::nullopt;
        }
        for (const Json &item : answer.at("gaps")) {
            std::optional<Gap> gap = parse_gap(item, error);
            if (!gap) {
                return std::nullopt;
            }
            gaps.push_back(std::move(*gap));
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row &a, const Row &b) { return a.start_time < b.start_time; });
    std::stable_sort(gaps.begin(), gaps.end(),
                     [](const Gap &a, const Gap &b) { return a.from < b.from; });

    char header[256];
    std::snprintf(header, sizeof header, "%-19s  %-10s  %-23s  %-16s  %5s  %12s  %s\n", "START",
                  "EPOCH", "END", "DURATION", "FILES", "BYTES", "KEY MD5");
    std::string text = header;
    size_t g = 0;
    for (const Row &row : rows) {
        for (; g < gaps.size() && gaps[g].from < row.start_time; ++g) {
            text += gap_text(gaps[g]) + "\n";
        }
        text += row_text(row);
    }
    for (; g < gaps.size(); ++g) {
        text += gap_text(gaps[g]) + "\n";
    }
    return text;
}

std::string size_text(uint64_t bytes) {
    static const char *const kUnits[] = {"kB", "MB", "GB", "TB", "PB"};
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    double value = static_cast<double>(bytes) / 1000;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < std::size(kUnits)) {
        value /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    std::string number = text;
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0) {
        number.resize(number.size() - 2);
    }
    return number + " " + kUnits[unit];
}

std::string limits_summary(const std::string &device, const Json &answer) {
    if (!answer.contains("usage") || !answer.at("usage").is_object()) {
        return "";
    }
    const Json &usage = answer.at("usage");
    const Json limits = answer.contains("limits") && answer.at("limits").is_object()
                            ? answer.at("limits")
                            : Json::object();
    uint64_t files = 0;
    uint64_t bytes = 0;
    get_u64(usage, "files", &files);
    get_u64(usage, "bytes", &bytes);
    const auto limit = [&limits](const char *key) {
        uint64_t value = 0;
        return get_u64(limits, key, &value) && value > 0 ? std::optional<uint64_t>(value)
                                                         : std::nullopt;
    };
    const auto join = [](const std::vector<std::string> &parts) {
        std::string text;
        for (const std::string &part : parts) {
            text += (text.empty() ? "" : ", ") + part;
        }
        return text;
    };
    std::vector<std::string> quota;
    if (const auto max_bytes = limit("maxBytes")) {
        quota.push_back(size_text(*max_bytes));
    }
    if (const auto max_files = limit("maxFiles")) {
        quota.push_back(std::to_string(*max_files) + " files");
    }
    if (const auto alarms = limit("alarmsPerDay")) {
        quota.push_back(std::to_string(*alarms) + " alarms a day");
    }
    std::vector<std::string> retention;
    if (const auto days = limit("retentionDays")) {
        retention.push_back(std::to_string(*days) + (*days == 1 ? " day" : " days"));
    }
    if (const auto kept = limit("retentionBytes")) {
        retention.push_back(size_text(*kept));
    }
    return device + ": " + std::to_string(files) + (files == 1 ? " file, " : " files, ") +
           size_text(bytes) + " kept; " + (quota.empty() ? "no quota" : "quota " + join(quota)) +
           "; " + (retention.empty() ? "no retention" : "retention " + join(retention)) + "\n";
}

} // namespace vexo_cloud

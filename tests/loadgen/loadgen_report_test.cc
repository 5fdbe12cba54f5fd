// vexo-loadgen's command line, server URL, percentiles and the result it prints.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <vector>

#include "options.h"
#include "report.h"
#include "server_url.h"
#include "stats.h"

namespace loadgen {
namespace {

std::optional<Options> parse(std::vector<const char *> args, std::string *error) {
    args.insert(args.begin(), "vexo-loadgen");
    bool help = false;
    return parse_options(static_cast<int>(args.size()), args.data(), error, &help);
}

TEST(LoadgenPercentile, NearestRankOverTable) {
    std::vector<uint32_t> hundred;
    for (uint32_t i = 1; i <= 100; ++i) {
        hundred.push_back(i);
    }
    const struct {
        std::vector<uint32_t> sorted;
        uint32_t per_ten_thousand;
        uint32_t expected;
    } cases[] = {
        {{}, 9900, 0},   {{7}, 5000, 7},      {{1, 2}, 5000, 1},     {{1, 2}, 9900, 2},
        {hundred, 1, 1}, {hundred, 9900, 99}, {hundred, 10000, 100},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(percentile(c.sorted, c.per_ten_thousand), c.expected)
            << c.sorted.size() << " values, " << c.per_ten_thousand;
    }
}

TEST(LoadgenSummary, CountsErrorsAndRatesPerKindInTableAndJson) {
    Options options;
    options.cameras = 4;
    options.slice_bytes = 500000;
    options.slice_every_s = 10;
    Stats a;
    Stats b;
    for (int i = 1; i <= 99; ++i) {
        a.record_ok(Kind::kUpload, i / 1000.0); // 1 .. 99 ms
    }
    b.record_ok(Kind::kUpload, 2.5);
    b.record_error(Kind::kUpload, "HTTP 503");
    b.record_error(Kind::kStart, "timeout");
    b.record_wait(0.25);
    b.add_upload_bytes(100 * 500000);
    b.add_unsent(3);
    a.merge(b);

    const Summary s = summarize(options, a, 10.0);
    ASSERT_EQ(s.kinds.size(), 2u); // only the kinds the run made requests of
    EXPECT_EQ(s.kinds[0].kind, Kind::kStart);
    const KindSummary &upload = s.kinds[1];
    EXPECT_EQ(upload.count, 101u);
    EXPECT_EQ(s.errors, 2u);
    EXPECT_EQ(s.unsent, 3u);
    EXPECT_DOUBLE_EQ(s.upload_mb_s, 5.0);
    EXPECT_DOUBLE_EQ(s.offered_mb_s, 0.2);
    EXPECT_DOUBLE_EQ(s.wait_max_ms, 250);

    const std::string table = table_text(s);
    EXPECT_NE(table.find("upload           101       1       50.0       99.0     2500.0"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("upload: HTTP 503"), std::string::npos) << table;
    EXPECT_EQ(table.find("alarm"), std::string::npos) << table;

    const nlohmann::json json = nlohmann::json::parse(json_text(s));
    EXPECT_EQ(json["requests"]["upload"]["p99_ms"], 99.0);
    EXPECT_EQ(json["requests"]["start"]["errors"], 1);
    EXPECT_EQ(json["error_reasons"]["start: timeout"], 1);
    EXPECT_FALSE(json["requests"].contains("alarm"));
}

TEST(LoadgenOptions, AcceptsEveryOptionAndDerivesDeviceIds) {
    std::string error;
    const std::optional<Options> o =
        parse({"--server",        "http://h:1", "--cameras",      "12000",
               "--slice-bytes",   "64Ki",       "--slice-every",  "5",
               "--duration",      "2.5",        "--ramp",         "0",
               "--device-prefix", "cam.",       "--token-prefix", "t-",
               "--threads",       "2",          "--json",         "--no-register"},
              &error);
    ASSERT_TRUE(o) << error;
    EXPECT_EQ(o->cameras, 12000u);
    EXPECT_DOUBLE_EQ(o->duration_s, 2.5);
    EXPECT_TRUE(o->json);
    EXPECT_FALSE(o->register_devices);
    EXPECT_EQ(device_id(*o, 0), "cam.00001"); // five digits for 12000 cameras
    EXPECT_EQ(device_id(*o, 11999), "cam.12000");
    Options few;
    few.cameras = 3;
    EXPECT_EQ(device_id(few, 2), "lg-0003");
}

TEST(LoadgenOptions, RefusesBadValuesNamingTheOption) {
    struct Case {
        std::vector<const char *> args;
        const char *error_part;
    };
    const Case cases[] = {
        {{"--cameras", "4"}, "--server URL is needed"},
        {{"--server", "http://h", "--cameras", "1e3"}, "--cameras takes"},
        {{"--server", "http://h", "--slice-bytes", "12G"}, "--slice-bytes takes"},
        {{"--server", "http://h", "--slice-every", "0.5"}, "--slice-every takes"},
        {{"--server", "http://h", "--duration", "10s"}, "--duration takes"},
        {{"--server", "http://h", "--device-prefix", "a/b"}, "--device-prefix takes"},
        {{"--server", "http://h", "--token-prefix", "a b"}, "--token-prefix takes"},
        {{"--server", "http://h", "--put-only", "--token-prefix", "t"}, "--put-only"},
        {{"--server", "http://h", "--threads"}, "missing value for --threads"},
        {{"--server", "http://h", "--frobnicate"}, "unknown argument"},
    };
    for (const Case &c : cases) {
        std::string error;
        EXPECT_FALSE(parse(c.args, &error)) << c.error_part;
        EXPECT_NE(error.find(c.error_part), std::string::npos) << error;
    }
}

TEST(LoadgenOptions, ByteSizesTable) {
    const std::pair<const char *, uint64_t> good[] = {
        {"750000", 750000}, {"750K", 750000}, {"1M", 1000000}, {"64Ki", 65536}, {"1Mi", 1048576}};
    for (const auto &[text, bytes] : good) {
        EXPECT_EQ(parse_bytes(text), std::optional<uint64_t>(bytes)) << text;
    }
    for (const char *bad : {"", "k", "1.5M", "1G", "99999999999999999999"}) {
        EXPECT_FALSE(parse_bytes(bad)) << bad;
    }
}

TEST(LoadgenServerUrl, SplitsHostPortAndBaseOrRefuses) {
    struct Case {
        const char *url;
        const char *host, *port, *host_header, *base;
    };
    const Case good[] = {
        {"http://127.0.0.1:8080", "127.0.0.1", "8080", "127.0.0.1:8080", ""},
        {"http://127.0.0.1:9/up/load//", "127.0.0.1", "9", "127.0.0.1:9", "/up/load"},
        {"http://[::1]:81/x", "::1", "81", "[::1]:81", "/x"},
    };
    for (const Case &c : good) {
        std::string error;
        const std::optional<ServerUrl> url = parse_server_url(c.url, &error);
        ASSERT_TRUE(url) << c.url << ": " << error;
        EXPECT_EQ(url->host, c.host);
        EXPECT_EQ(url->port, c.port);
        EXPECT_EQ(url->host_header, c.host_header);
        EXPECT_EQ(url->base_path, c.base);
    }
    for (const char *bad : {"https://h", "http://", "http://h:", "http://h:65536", "http://[::1",
                            "http://h/a?b=1", "http://u@h/"}) {
        std::string error;
        EXPECT_FALSE(parse_server_url(bad, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
}

} // namespace
} // namespace loadgen

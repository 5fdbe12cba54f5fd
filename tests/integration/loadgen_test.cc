// vexo-loadgen against a real vexo-cloud on loopback: a few cameras for a few seconds, then
// what the service stored is held against what the load generator says was acknowledged.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "network_cloud.h"

namespace integration {
namespace {

const std::string kLoadgen = VEXO_IT_LOADGEN;
constexpr int kCameras = 3;
constexpr uint64_t kSliceBytes = 4096;

struct LoadRun {
    int status = -1;
    std::string output;
    nlohmann::json result; // the JSON the run printed on stdout
};

/// A short run with alarms and reconnects at least once a second per camera, on two network
/// threads. Bounded by the tool itself: 4 s, then at most twice the 10 s request timeout.
LoadRun run_loadgen(const Cloud &cloud, const std::vector<std::string> &extra) {
    std::vector<std::string> argv = {kLoadgen,
                                     cloud.url(),
                                     "--cameras",
                                     std::to_string(kCameras),
                                     "--slice-bytes",
                                     "4Ki",
                                     "--slice-every",
                                     "1",
                                     "--duration",
                                     "4",
                                     "--slices-per-recording",
                                     "2",
                                     "--alarm-every",
                                     "0.7",
                                     "--reconnect-every",
                                     "0.8",
                                     "--threads",
                                     "2",
                                     "--timeout",
                                     "10",
                                     "--json"};
    argv.insert(argv.begin() + 1, "--server");
    argv.insert(argv.end(), extra.begin(), extra.end());
    const e2e::Result run = e2e::run(argv);
    LoadRun out{run.status, run.out, nullptr};
    // The table goes to stderr first, then the JSON to stdout: the JSON is the last object.
    const size_t json_start = run.out.find("\n{");
    if (json_start != std::string::npos) {
        out.result = nlohmann::json::parse(run.out.substr(json_start + 1), nullptr, false);
    }
    return out;
}

uint64_t count_of(const nlohmann::json &result, const char *kind) {
    const auto &requests = result["requests"];
    return requests.contains(kind) ? requests[kind]["count"].get<uint64_t>() : 0;
}

std::string device(int index) {
    return "lg-000" + std::to_string(index + 1);
}

TEST(LoadgenTest, EveryAcknowledgedRecordingSliceAndAlarmIsStored) {
    e2e::TempDir tmp;
    Cloud cloud(tmp.path(), "");
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const LoadRun run = run_loadgen(cloud, {});
    ASSERT_EQ(run.status, 0) << run.output;
    ASSERT_TRUE(run.result.is_object()) << run.output;
    EXPECT_EQ(run.result["errors"], 0) << run.output;
    EXPECT_EQ(run.result["unsent"], 0) << run.output;
    EXPECT_EQ(count_of(run.result, "register"), static_cast<uint64_t>(kCameras));
    // Reconnects every 0.8 s on average: more connections than cameras.
    EXPECT_GT(count_of(run.result, "connect"), static_cast<uint64_t>(kCameras));

    uint64_t recordings = 0;
    uint64_t files = 0;
    uint64_t alarms = 0;
    for (int i = 0; i < kCameras; ++i) {
        const std::vector<vexo_cloud::Recording> stored =
            vexo_cloud::read_recordings(cloud.data(), device(i));
        ASSERT_FALSE(stored.empty()) << device(i);
        for (size_t r = 0; r < stored.size(); ++r) {
            const vexo_cloud::Recording &rec = stored[r];
            SCOPED_TRACE(device(i) + " recording " + std::to_string(rec.start_time));
            EXPECT_NE(rec.end_time, 0u) << "every recording was stopped";
            EXPECT_EQ(rec.mtu, 1);
            // The first start announces no key; the later ones the key the first got.
            EXPECT_EQ(rec.announced_md5, r == 0 ? "0000" : rec.key_md5);
            for (size_t f = 0; f < rec.files.size(); ++f) {
                const std::string name =
                    std::to_string(rec.start_time) + "_000" + std::to_string(f) + ".media";
                EXPECT_EQ(rec.files[f].name, name);
                EXPECT_EQ(rec.files[f].bytes, kSliceBytes);
            }
            files += rec.files.size();
        }
        recordings += stored.size();
        const e2e::Result listed = cloud.admin({"alarms", device(i)});
        ASSERT_EQ(listed.status, 0) << listed.out;
        alarms += nlohmann::json::parse(listed.out)["alarms"].size();
    }
    EXPECT_EQ(recordings, count_of(run.result, "start"));
    EXPECT_EQ(recordings, count_of(run.result, "stop"));
    EXPECT_EQ(files, count_of(run.result, "upload"));
    EXPECT_GE(files, static_cast<uint64_t>(kCameras) * 2);
    EXPECT_EQ(alarms, count_of(run.result, "alarm"));
    EXPECT_EQ(run.result["upload_bytes"], files * kSliceBytes);
}

TEST(LoadgenTest, DeviceTokensAreSentAndWrongOnesReported) {
    struct Case {
        const char *token_prefix;
        bool accepted;
    };
    for (const Case &c : {Case{"s3cret-", true}, Case{"wrong-", false}}) {
        SCOPED_TRACE(c.token_prefix);
        e2e::TempDir tmp;
        std::vector<std::string> tokens;
        for (int i = 0; i < kCameras; ++i) {
            tokens.insert(tokens.end(), {"--token", device(i) + "=s3cret-" + device(i)});
        }
        Cloud cloud(tmp.path(), "", tokens);
        ASSERT_TRUE(cloud.up()) << cloud.log();
        const LoadRun run = run_loadgen(cloud, {"--token-prefix", c.token_prefix});
        ASSERT_TRUE(run.result.is_object()) << run.output;
        if (c.accepted) {
            EXPECT_EQ(run.status, 0) << run.output;
            EXPECT_EQ(run.result["errors"], 0) << run.output;
            EXPECT_GT(count_of(run.result, "upload"), 0u);
            EXPECT_FALSE(vexo_cloud::read_recordings(cloud.data(), device(0)).empty());
            continue;
        }
        // Refused at the configuration: no recording starts, nothing is stored.
        EXPECT_EQ(run.status, 3) << run.output;
        // Looked up by hand: gcc 12 at -O2 takes json::value() for a possible null
        // dereference (-Wnull-dereference).
        const nlohmann::json &reasons = run.result["error_reasons"];
        const auto found = reasons.find("config: HTTP 401");
        ASSERT_TRUE(found != reasons.end()) << run.output;
        EXPECT_GT(found->get<int>(), 0) << run.output;
        EXPECT_EQ(count_of(run.result, "upload"), 0u) << run.output;
        for (int i = 0; i < kCameras; ++i) {
            EXPECT_TRUE(vexo_cloud::read_recordings(cloud.data(), device(i)).empty());
        }
    }
}

} // namespace
} // namespace integration

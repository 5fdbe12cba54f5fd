// vexo-loadgen against a real vexo-cloud on loopback: a few cameras for a few seconds, then
// what the service stored is held against what the load generator says was acknowledged.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

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

std::string device(int index) {
    return "lg-000" + std::to_string(index + 1);
}

/// A short run with alarms and reconnects at least once a second per camera, on two network
/// threads, each camera with its token "s3cret-<device>". Bounded by the tool itself: 4 s,
/// then at most twice the 10 s request timeout.
LoadRun run_loadgen(const Cloud &cloud) {
    std::vector<std::string> argv = {kLoadgen, "--server", cloud.url()};
    std::istringstream options("--cameras 3 --slice-bytes 4Ki --slice-every 1 --duration 4 "
                               "--slices-per-recording 2 --alarm-every 0.7 --reconnect-every "
                               "0.8 --threads 2 --timeout 10 --json --token-prefix s3cret-");
    for (std::string word; options >> word;) {
        argv.push_back(word);
    }
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

TEST(LoadgenTest, EveryAcknowledgedRecordingSliceAndAlarmIsStored) {
    e2e::TempDir tmp;
    std::vector<std::string> tokens;
    for (int i = 0; i < kCameras; ++i) {
        tokens.insert(tokens.end(), {"--token", device(i) + "=s3cret-" + device(i)});
    }
    Cloud cloud(tmp.path(), "", tokens);
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const LoadRun run = run_loadgen(cloud);
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

} // namespace
} // namespace integration

// vexo-cloud on the network with what a camera sends after an outage: replayed requests,
// gap reports, and "vexo-cloud recordings" listing both, recordings left open marked.
#include <gtest/gtest.h>
#include <httplib.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "network_cloud.h"

namespace integration {
namespace {

const std::string kDevice = "cam1";
const std::string kStartApi = "/v1/api/vexo.device.ipc.media.storage.notify.upload.start?v=1.0";
const std::string kGapsPath = "/v1/devices/" + kDevice + "/gaps";

std::string start_body(uint32_t start_time, const std::string &md5) {
    return nlohmann::json{{"startTime", start_time},
                          {"payloadInfo", R"({"v":1,"vType":"2","vFps":15})"},
                          {"mtu", 10},
                          {"enKeyMd5", md5}}
        .dump();
}

TEST(CloudListingTest, ReplaysAndGapsOverHttpAndTheRecordingsTable) {
    e2e::TempDir tmp;
    Cloud cloud(tmp.path(), "", {"--token", kDevice + "=secret"});
    ASSERT_TRUE(cloud.up()) << cloud.log();
    httplib::Client client(cloud.url());
    const httplib::Headers device = {{"X-Vexo-Device", kDevice},
                                     {"Authorization", "Bearer secret"}};
    httplib::Headers replay = device;
    replay.emplace("X-Vexo-Replay", "1");

    // One recording the camera never closed, a gap after it, one still being recorded.
    const uint32_t now = static_cast<uint32_t>(std::time(nullptr));
    const uint32_t first = now - 2000;
    const uint32_t second = now - 5;
    auto answer =
        client.Post(kStartApi.c_str(), replay, start_body(first, "0000"), "application/json");
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->status, 200) << answer->body;
    EXPECT_EQ(nlohmann::json::parse(answer->body)["result"]["needUpdate"], true);
    // The replayed start named no key the camera was given: the service says so in its log.
    EXPECT_TRUE(cloud.wait_for("replayed start " + std::to_string(first), 10)) << cloud.log();
    answer = client.Post(kStartApi.c_str(), device, start_body(second, "0000"), "application/json");
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->status, 200) << answer->body;

    const std::string gap = R"({"from":)" + std::to_string(first + 100) + R"(,"to":)" +
                            std::to_string(first + 700) +
                            R"(,"reason":"spool full","bytes":1234567})";
    for (int i = 0; i < 2; ++i) { // the second as after a lost answer
        const auto posted = client.Post(kGapsPath.c_str(), replay, gap, "application/json");
        ASSERT_TRUE(posted);
        EXPECT_EQ(posted->status, 200) << posted->body;
    }

    const e2e::Result table =
        e2e::run({kCloudTool, "recordings", kDevice, "--server", cloud.url()}, {"TZ=UTC0"});
    ASSERT_EQ(table.status, 0) << table.out;
    std::istringstream in(table.out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 5u) << table.out;
    // What the device keeps and its limits (none given to this service), then the table.
    EXPECT_EQ(lines[0].rfind(std::string(kDevice) + ": ", 0), 0u) << table.out;
    EXPECT_NE(lines[0].find(" kept; no quota; no retention"), std::string::npos) << table.out;
    EXPECT_EQ(lines[1].rfind("START", 0), 0u) << table.out;
    EXPECT_NE(lines[2].find(std::to_string(first) + "  left open by the camera"), std::string::npos)
        << table.out;
    EXPECT_EQ(lines[3].rfind("gap  ", 0), 0u) << table.out;
    EXPECT_NE(lines[3].find("  spool full  1.2 MB dropped"), std::string::npos) << table.out;
    EXPECT_NE(lines[4].find(std::to_string(second) + "  open "), std::string::npos) << table.out;

    EXPECT_EQ(cloud.stop(), 0);
}

} // namespace
} // namespace integration

// vexo-cloud with its media in an S3 bucket on a Ceph gateway: a simulated camera records
// into it, vexo-media verifies what the bucket holds, and a gateway gone makes the service
// answer 503 (a device tries again later) instead of losing anything.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "e2e_support.h"
#include "processes.h"
#include "tests/store/ceph_gateway.h"

namespace {

using vexo_test::Gateway;

TEST(S3ServiceTest, CameraRecordsIntoTheBucketAndVexoMediaVerifiesIt) {
    Gateway &gateway = Gateway::get();
    if (!gateway.available()) {
        ASSERT_FALSE(gateway.installed()) << gateway.why_not();
        GTEST_SKIP() << gateway.why_not();
    }
    e2e::TempDir dir;
    const std::string media = "s3://vexo-e2e?endpoint=" + gateway.endpoint() + "&region=us-east-1";
    const uint16_t port = e2e::free_port();
    const std::string url = "http://127.0.0.1:" + std::to_string(port);
    e2e::Process cloud({VEXO_S3_CLOUD, "serve", "--data", dir.path() + "/cloud", "--listen",
                        "127.0.0.1:" + std::to_string(port), "--quiet", "--media", media},
                       dir.path() + "/cloud.log", gateway.key_environment());
    ASSERT_TRUE(cloud.wait_for("listening on", 30)) << cloud.output();

    const e2e::Result camera = e2e::run(
        {VEXO_S3_CAMSIM, "--data", dir.path() + "/camera", "--device", "cam1", "--cloud", url,
         "--mode", "alltime", "--slice", "10", "--duration", "32", "--speed", "4", "--quiet"});
    ASSERT_EQ(camera.status, 0) << camera.out;

    // The media went to the bucket, none of it under --data.
    const e2e::Result local = e2e::run({VEXO_S3_MEDIA, "verify", "--data", dir.path() + "/cloud"});
    EXPECT_NE(local.status, 0) << "the files were found under --data:\n" << local.out;
    const e2e::Result verified =
        e2e::run({VEXO_S3_MEDIA, "verify", "--data", dir.path() + "/cloud", "--media", media},
                 gateway.key_environment());
    EXPECT_EQ(verified.status, 0) << verified.out;
    EXPECT_NE(verified.out.find("cam1 "), std::string::npos) << verified.out;
    EXPECT_NE(verified.out.find("3 files"), std::string::npos) << verified.out;
    EXPECT_NE(verified.out.find(": ok"), std::string::npos) << verified.out;

    // The recording's start, for one more upload into it.
    const e2e::Result listed = e2e::run({VEXO_S3_CLOUD, "recordings", "cam1", "--server", url});
    std::smatch start;
    ASSERT_TRUE(std::regex_search(listed.out, start, std::regex(R"(\d\d:\d\d:\d\d +(\d{9,10}) )")))
        << listed.out;
    const auto upload = [&](const std::string &elapsed) {
        return e2e::run(
                   {"curl", "-s", "-w", " %{http_code}", "-X", "PUT", "-H", "X-Vexo-Device: cam1",
                    "--data-binary", "0123456789",
                    url + "/v1/devices/cam1/media/" + start[1].str() + "_" + elapsed + ".media"})
            .out;
    };
    const std::string stored = upload("0900");
    EXPECT_EQ(stored.substr(stored.size() - 4), " 200") << stored;
    gateway.stop();
    const std::string refused = upload("0910");
    EXPECT_EQ(refused.substr(refused.size() - 4), " 503")
        << refused << "a media upload with the gateway down; cloud log:\n"
        << cloud.output();
}

} // namespace

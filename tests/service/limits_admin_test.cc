/// The limits in the admin interface and on vexo-cloud's command line: the limits call's round
/// trip and refusals, the limits in the recordings answer and its summary line, the 507 of the
/// device cap, and the options that set them.
#include <stdlib.h>

#include "service/http/admin_api.h"
#include "service/http/cli_options.h"
#include "service/http/recordings_text.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::Request;
using vexo_cloud::Response;

class LimitsAdminTest : public ServiceTest {
  protected:
    Response call(vexo_cloud::Service &service, const std::string &method, const std::string &path,
                  const std::string &body = "") {
        Request r;
        r.method = method;
        r.path = "/v1/admin/devices/" + path;
        r.body = body;
        return vexo_cloud::handle_admin(service, r, "");
    }
};

std::optional<vexo_cloud::Command> parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vexo-cloud");
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    bool exit_now = false;
    ::testing::internal::CaptureStderr();
    auto command =
        vexo_cloud::parse_command_line(static_cast<int>(argv.size()), argv.data(), &exit_now);
    ::testing::internal::GetCapturedStderr();
    return command;
}

TEST_F(LimitsAdminTest, LimitsRoundTripWithUsageAndDefaults) {
    vexo_cloud::Options o = options();
    o.default_limits.max_files = 100;
    auto service = start_service(o);
    add_device(*service, "cam1");
    start(*service, "cam1", kNoon, kNoKeyMd5);
    ASSERT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "12345").status, 200);

    Json answer = body_of(call(*service, "GET", "cam1/limits"));
    EXPECT_EQ(answer, Json::parse(R"({"maxBytes":null,"maxFiles":100,"alarmsPerDay":null,
        "retentionDays":null,"retentionBytes":null,
        "usage":{"bytes":5,"files":1,"alarmsToday":0}})"));

    auto put = call(*service, "PUT", "cam1/limits",
                    R"({"maxBytes":1000000000,"retentionDays":30,"alarmsPerDay":4})");
    ASSERT_EQ(put.status, 200) << put.body;
    EXPECT_EQ(body_of(put)["maxBytes"], 1000000000);
    EXPECT_EQ(body_of(put)["retentionDays"], 30);
    // Absent members stay; 0 and null lift the device's own limit (the default applies).
    put = call(*service, "PUT", "cam1/limits", R"({"alarmsPerDay":0,"retentionDays":null})");
    ASSERT_EQ(put.status, 200) << put.body;
    answer = body_of(put);
    EXPECT_EQ(answer["maxBytes"], 1000000000);
    EXPECT_TRUE(answer["alarmsPerDay"].is_null());
    EXPECT_TRUE(answer["retentionDays"].is_null());

    const Json listing = body_of(call(*service, "GET", "cam1/recordings"));
    Json limits = answer;
    limits.erase("usage");
    EXPECT_EQ(listing["limits"], limits);
    EXPECT_EQ(listing["usage"]["files"], 1);
    EXPECT_EQ(vexo_cloud::limits_summary("cam1", listing),
              "cam1: 1 file, 5 bytes kept; quota 1 GB, 100 files; no retention\n");
}

TEST_F(LimitsAdminTest, BadLimitsAreRefusedAndChangeNothing) {
    auto service = start_service();
    add_device(*service, "cam1");
    ASSERT_EQ(call(*service, "PUT", "cam1/limits", R"({"maxFiles":7})").status, 200);
    const auto before = snapshot();
    for (const char *body : {R"({"maxFiles":-1})", R"({"maxBytes":"1"})", R"({"maxBytes":1.5})",
                             R"({"retentionDays":36501})", R"({"alarmsPerDay":4294967296})",
                             R"({"quota":1})", R"([1])", "not json"}) {
        const auto answer = call(*service, "PUT", "cam1/limits", body);
        EXPECT_EQ(answer.status, 400) << body;
        EXPECT_TRUE(body_of(answer)["error"].is_string()) << answer.body;
    }
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(call(*service, "GET", "cam2/limits").status, 404);
    EXPECT_EQ(call(*service, "PUT", "cam2/limits", R"({"maxFiles":1})").status, 404);
    EXPECT_TRUE(service->devices() == std::vector<std::string>{"cam1"});
}

TEST_F(LimitsAdminTest, ANewDevicePastTheCapIs507) {
    vexo_cloud::Options o = options();
    o.max_devices = 1;
    auto service = start_service(o);
    EXPECT_EQ(call(*service, "PUT", "cam1/order", "{}").status, 200);
    const auto refused = call(*service, "PUT", "cam2/order", "{}");
    EXPECT_EQ(refused.status, 507);
    EXPECT_NE(body_of(refused)["error"].get<std::string>().find("at most 1"), std::string::npos);
    EXPECT_EQ(call(*service, "PUT", "cam2/order", R"({"sliceDuration":1})").status, 507);
    EXPECT_EQ(call(*service, "PUT", "cam1/order", R"({"sliceDuration":1})").status, 400);
}

TEST(LimitsSummaryTest, SizesAndLimitsRead) {
    const std::pair<uint64_t, const char *> sizes[] = {
        {0, "0 bytes"},      {1, "1 byte"},       {999, "999 bytes"},   {1000, "1 kB"},
        {8600000, "8.6 MB"}, {999999999, "1 GB"}, {1000000000, "1 GB"}, {1500000000000, "1.5 TB"}};
    for (const auto &[bytes, text] : sizes) {
        EXPECT_EQ(vexo_cloud::size_text(bytes), text) << bytes;
    }
    const Json answer = Json::parse(R"({"recordings":[],
        "limits":{"maxBytes":null,"maxFiles":null,"alarmsPerDay":20,"retentionDays":30,
                  "retentionBytes":5000000000},
        "usage":{"bytes":8600000,"files":12,"alarmsToday":3}})");
    EXPECT_EQ(vexo_cloud::limits_summary("cam1", answer),
              "cam1: 12 files, 8.6 MB kept; quota 20 alarms a day; retention 30 days, 5 GB\n");
    EXPECT_EQ(vexo_cloud::limits_summary("cam1", Json::parse(R"({"recordings":[]})")), "");
}

TEST(LimitsCommandLine, ServeAndLimitsOptions) {
    auto serve =
        parse({"serve", "--data", "d", "--max-devices", "50", "--quota-bytes", "1000000000",
               "--quota-files", "10000", "--quota-alarms", "20", "--retention-days", "30",
               "--retention-bytes", "0", "--retention-every", "60"});
    ASSERT_TRUE(serve);
    const vexo_cloud::ServeOptions &o = serve->serve_options;
    EXPECT_EQ(o.max_devices, 50u);
    EXPECT_EQ(o.default_limits.max_bytes, 1000000000u);
    EXPECT_EQ(o.default_limits.max_files, 10000u);
    EXPECT_EQ(o.default_limits.max_alarms_per_day, 20u);
    EXPECT_EQ(o.default_limits.retention_days, 30u);
    EXPECT_FALSE(o.default_limits.retention_bytes); // 0: no limit
    EXPECT_EQ(o.retention_interval, 60u);
    EXPECT_EQ(parse({"serve", "--data", "d"})->serve_options.retention_interval, 3600u);
    for (const std::vector<std::string> &bad :
         {std::vector<std::string>{"--quota-alarms", "4294967296"},
          {"--retention-days", "36501"},
          {"--max-devices", "-1"},
          {"--quota-bytes", "1e9"},
          {"--retention-every", "x"}}) {
        std::vector<std::string> args = {"serve", "--data", "d"};
        args.insert(args.end(), bad.begin(), bad.end());
        EXPECT_FALSE(parse(args)) << bad[0] << " " << bad[1];
    }

    auto set = parse({"limits", "cam1", "--max-bytes", "5", "--alarms-per-day", "0",
                      "--retention-days", "7", "--max-files", "9", "--retention-bytes", "11"});
    ASSERT_TRUE(set);
    EXPECT_EQ(set->admin.method, "PUT");
    EXPECT_EQ(set->admin.path, "/v1/admin/devices/cam1/limits");
    EXPECT_EQ(Json::parse(set->admin.body),
              Json::parse(R"({"maxBytes":5,"alarmsPerDay":0,"retentionDays":7,"maxFiles":9,
                              "retentionBytes":11})"));
    auto show = parse({"limits", "cam1"});
    ASSERT_TRUE(show);
    EXPECT_EQ(show->admin.method, "GET");
    EXPECT_TRUE(show->admin.body.empty());
    EXPECT_FALSE(parse({"limits", "cam1", "--max-bytes", "-5"}));
    EXPECT_FALSE(parse({"limits", "--max-bytes", "5"}));
}

} // namespace
} // namespace service_test

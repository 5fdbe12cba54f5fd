/// The limits in the admin interface: the limits call's round trip and refusals, the limits
/// in the recordings answer and its summary line, and the 507 of the device cap.
#include "service/http/admin_api.h"
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

TEST_F(LimitsAdminTest, LimitsRoundTripWithUsageAndDefaults) {
    vexo_cloud::Options o = options();
    o.default_limits.max_files = 100;
    auto service = start_cam1(o, true);
    ASSERT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "12345").status, 200);
    EXPECT_EQ(body_of(call(*service, "GET", "cam1/limits")),
              Json::parse(R"({"maxBytes":null,"maxFiles":100,"alarmsPerDay":null,
        "retentionDays":null,"retentionBytes":null,
        "usage":{"bytes":5,"files":1,"alarmsToday":0}})"));

    auto put = call(*service, "PUT", "cam1/limits",
                    R"({"maxBytes":1000000000,"retentionDays":30,"alarmsPerDay":4})");
    ASSERT_EQ(put.status, 200) << put.body;
    // Absent members stay; 0 and null lift the device's own limit (the default applies).
    put = call(*service, "PUT", "cam1/limits", R"({"alarmsPerDay":0,"retentionDays":null})");
    ASSERT_EQ(put.status, 200) << put.body;
    Json limits = body_of(put);
    EXPECT_EQ(limits["maxBytes"], 1000000000);
    EXPECT_TRUE(limits["alarmsPerDay"].is_null());
    EXPECT_TRUE(limits["retentionDays"].is_null());

    const Json listing = body_of(call(*service, "GET", "cam1/recordings"));
    limits.erase("usage");
    EXPECT_EQ(listing["limits"], limits);
    EXPECT_EQ(vexo_cloud::limits_summary("cam1", listing),
              "cam1: 1 file, 5 bytes kept; quota 1 GB, 100 files; no retention\n");
}

TEST_F(LimitsAdminTest, BadLimitsAndNewDevicesPastTheCapAreRefusedAndChangeNothing) {
    vexo_cloud::Options o = options();
    o.max_devices = 1;
    auto service = start_cam1(o);
    ASSERT_EQ(call(*service, "PUT", "cam1/limits", R"({"maxFiles":7})").status, 200);
    const auto before = snapshot();
    for (const char *body : {R"({"maxFiles":-1})", R"({"maxBytes":"1"})", R"({"maxBytes":1.5})",
                             R"({"retentionDays":36501})", R"({"alarmsPerDay":4294967296})",
                             R"({"quota":1})", "not json"}) {
        const auto answer = call(*service, "PUT", "cam1/limits", body);
        EXPECT_EQ(answer.status, 400) << body;
        EXPECT_TRUE(body_of(answer)["error"].is_string()) << answer.body;
    }
    EXPECT_EQ(call(*service, "GET", "cam2/limits").status, 404);
    EXPECT_EQ(call(*service, "PUT", "cam2/limits", R"({"maxFiles":1})").status, 404);
    const auto refused = call(*service, "PUT", "cam2/order", "{}");
    EXPECT_EQ(refused.status, 507);
    EXPECT_NE(body_of(refused)["error"].get<std::string>().find("at most 1"), std::string::npos);
    EXPECT_EQ(call(*service, "PUT", "cam1/order", R"({"sliceDuration":1})").status, 400);
    EXPECT_EQ(snapshot(), before);
}

TEST(LimitsSummaryTest, SizesAndLimitsRead) {
    const std::pair<uint64_t, const char *> sizes[] = {{1, "1 byte"},
                                                       {999, "999 bytes"},
                                                       {1000, "1 kB"},
                                                       {999999999, "1 GB"},
                                                       {1500000000000, "1.5 TB"}};
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

} // namespace
} // namespace service_test

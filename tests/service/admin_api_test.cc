/// The admin interface in HTTP form: order changes (partial, validated, published), abort,
/// triggers, limits, listings, the admin token, and refusals that change nothing.
#include "service/http/admin_api.h"
#include "service/http/recordings_text.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::Request;
using vexo_cloud::Response;

class AdminApiTest : public ServiceTest {
  protected:
    static Request admin(const std::string &method, const std::string &path,
                         const std::string &body = "") {
        Request r;
        r.method = method;
        r.path = "/v1/admin/" + path;
        r.body = body;
        return r;
    }
    Response call(vexo_cloud::Service &service, const Request &r, const std::string &token = "") {
        return vexo_cloud::handle_admin(service, r, token);
    }
    /// A call below /v1/admin/devices/.
    Response call(vexo_cloud::Service &service, const std::string &method, const std::string &path,
                  const std::string &body = "") {
        return call(service, admin(method, "devices/" + path, body));
    }
};

TEST_F(AdminApiTest, OrderChangesArePartialAndPublishedAndAbortAndTriggerToo) {
    auto service = start_service();
    auto answer = call(*service, admin("PUT", "devices/cam1/order",
                                       R"({"storeMode":"alltime","sliceDuration":20})"));
    ASSERT_EQ(answer.status, 200) << answer.body;
    answer = call(*service, "PUT", "cam1/order", R"({"expired":true})");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(body_of(answer)["storeMode"], "alltime"); // untouched by a partial change
    EXPECT_EQ(body_of(answer)["sliceDuration"], 20);
    EXPECT_EQ(body_of(answer)["expired"], true);
    EXPECT_EQ(get_config(*service, "cam1").status, 410);

    answer = call(*service, "POST", "cam1/abort", "{}");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(body_of(answer)["aborted"], true);
    answer = call(*service, admin("POST", "devices/cam1/trigger",
                                  R"({"action":"pic_v","duration":15,"ext":{"user":"u1"}})"));
    ASSERT_EQ(answer.status, 200) << answer.body;
    const auto messages = published();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0].first, "cam1");
    EXPECT_EQ(Json::parse(messages[0].second),
              Json::parse(R"({"protocol":300,"data":{"action":"store","storeMode":"alltime"}})"));
    EXPECT_EQ(Json::parse(messages[2].second),
              Json::parse(R"({"protocol":300,"data":{"action":"abort"}})"));
    EXPECT_EQ(Json::parse(messages[3].second),
              Json::parse(R"({"protocol":307,"data":{"action":"pic_v","duration":15,
                              "ext":{"user":"u1"}}})"));
}

TEST_F(AdminApiTest, CountLeftSetsWhatIsLeftTodayAroundTheStartsAlreadyMade) {
    auto service = start_service();
    call(*service, "PUT", "cam1/order", R"({"storeMode":"event","dailyEvents":5})");
    start(*service, "cam1", kNoon, kNoKeyMd5);
    start(*service, "cam1", kNoon + 100, kNoKeyMd5);
    const auto answer = call(*service, "PUT", "cam1/order", R"({"countLeft":1})");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(body_of(answer)["dailyEvents"], 3);
    EXPECT_EQ(body_of(get_config(*service, "cam1"))["countLeft"], 1);
}

TEST_F(AdminApiTest, RefusalsAre4xxWithAnErrorAndChangeNothing) {
    auto service = start_cam1();
    const auto before = snapshot();
    const size_t published_before = published().size();
    const std::pair<Request, int32_t> cases[] = {
        {admin("PUT", "devices/cam1/order", "{\"storeMode\":"), 400},
        {admin("PUT", "devices/cam1/order", "[]"), 400},
        {admin("PUT", "devices/cam1/order", R"({"colour":"red"})"), 400},
        {admin("PUT", "devices/cam1/order", R"({"eventDuration":"30"})"), 400},
        {admin("PUT", "devices/cam1/order", R"({"countLeft":-1})"), 400},
        {admin("PUT", "devices/cam1/order", R"({"countLeft":2147483647})"), 400},
        {admin("PUT", "devices/cam1/order", R"({"sliceDuration":1e400})"), 400},
        {admin("PUT", "devices/../order", R"({"storeMode":"event"})"), 400},
        {admin("POST", "devices/ghost/abort", "{}"), 404},
        {admin("POST", "devices/ghost/trigger", R"({"action":"record","duration":5})"), 404},
        {admin("POST", "devices/cam1/trigger", R"({"action":"dance","duration":5})"), 400},
        {admin("POST", "devices/cam1/trigger", R"({"action":"record","duration":-2147483648})"),
         400},
        {admin("POST", "devices/cam1/trigger", R"({"duration":5})"), 400},
        {admin("GET", "devices/ghost/order"), 404},
        {admin("GET", "devices/cam1/colour"), 404},
        {admin("DELETE", "devices/cam1/order"), 405},
    };
    for (const auto &c : cases) {
        const Response answer = call(*service, c.first);
        EXPECT_EQ(answer.status, c.second)
            << c.first.method << " " << c.first.path << " " << c.first.body;
        EXPECT_TRUE(body_of(answer).contains("error")) << answer.body;
    }
    // A number that does not fit is named in the refusal.
    EXPECT_EQ(
        body_of(call(*service, "PUT", "cam1/order", R"({"silenceInterval":2147483648})"))["error"],
        "\"silenceInterval\" must be a whole number from -2147483648 to 2147483647");
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(published().size(), published_before);
}

TEST_F(AdminApiTest, AdminTokenIsRequiredWhenSet) {
    auto service = start_service();
    Request change = admin("PUT", "devices/cam1/order", R"({"storeMode":"event"})");
    EXPECT_EQ(call(*service, change, "s3cret").status, 401);
    change.headers["authorization"] = "Bearer wrong!";
    EXPECT_EQ(call(*service, change, "s3cret").status, 401);
    EXPECT_TRUE(service->devices().empty());
    change.headers["authorization"] = "Bearer s3cret";
    EXPECT_EQ(call(*service, change, "s3cret").status, 200);
}

TEST_F(AdminApiTest, ListingsShowDevicesRecordingsAndTheGaps) {
    auto service = start_cam1();
    // One recording the camera left open (a later one exists), and one still recording.
    start(*service, "cam1", kNoon, kNoKeyMd5);
    start(*service, "cam1", kNoon + 600, kNoKeyMd5);
    ASSERT_EQ(put_media(*service, "cam1", "1710072600_0010.media", "1234").status, 200);
    const std::string gap =
        R"({"from":1710072100,"to":1710072500,"reason":"spool full","bytes":7})";
    ASSERT_EQ(service->handle(request("POST", "/v1/devices/cam1/gaps", "cam1", gap)).status, 200);
    clock_ = kNoon + 650;

    const Json answer = body_of(call(*service, "GET", "cam1/recordings"));
    ASSERT_EQ(answer["recordings"].size(), 2u) << answer;
    EXPECT_EQ(answer["recordings"][0]["state"], "left open by the camera");
    Json open = answer["recordings"][1];
    open.erase("keyMd5");
    EXPECT_EQ(open, Json::parse(R"({"startTime":1710072600,"endTime":0,"files":1,"bytes":4,
                                    "mtu":10,"state":"open"})"));
    EXPECT_EQ(answer["gaps"], Json::array({Json::parse(gap)}));
    EXPECT_EQ(body_of(call(*service, admin("GET", "devices")))["devices"], Json::array({"cam1"}));
    EXPECT_TRUE(body_of(call(*service, "GET", "cam1/alarms"))["alarms"].empty());
}

TEST_F(AdminApiTest, LimitsRoundTripWithUsageAndDefaults) {
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

TEST_F(AdminApiTest, BadLimitsAndNewDevicesPastTheCapAreRefusedAndChangeNothing) {
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

TEST(RecordingsTextTest, TheAnswerOfAnOlderServiceIsShownAndAnotherIsRefused) {
    std::string error;
    const auto old = vexo_cloud::recordings_text(
        Json::parse(
            R"({"recordings":[{"startTime":1,"endTime":0,"files":2,"bytes":9,"keyMd5":""}]})"),
        &error);
    ASSERT_TRUE(old) << error;
    EXPECT_NE(old->find("  open  "), std::string::npos) << *old;
    EXPECT_FALSE(vexo_cloud::recordings_text(
        Json::parse(R"({"recordings":[],"gaps":[{"from":1,"bytes":0}]})"), &error));
}

} // namespace
} // namespace service_test

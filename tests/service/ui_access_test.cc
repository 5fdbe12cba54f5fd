/// The browser view's access rules and answers: sessions (signed, expiring, shared by token), the
/// cookie and X-Vexo-UI rules of the admin interface, the login form, the embedded files,
/// the overview and the devices' last request times.
#include "service/http/device_activity.h"
#include "service/http/overview_api.h"
#include "service/http/ui_assets.h"
#include "service/http/ui_auth.h"
#include "service/http/ui_routes.h"
#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::Request;
using vexo_cloud::Response;
using vexo_cloud::UiSessions;

Request make(const std::string &method, const std::string &path,
             std::map<std::string, std::string> headers = {}, const std::string &body = "") {
    Request r;
    r.method = method;
    r.path = path;
    r.headers = std::move(headers);
    r.body = body;
    return r;
}

std::string header(const Response &answer, const std::string &name) {
    for (const auto &field : answer.headers) {
        if (field.first == name) {
            return field.second;
        }
    }
    return "";
}

TEST(UiSessions, AreSignedRandomIdsThatExpire) {
    UiSessions sessions("t0k", 100, 8);
    const std::string a = sessions.create(1000);
    const std::string b = sessions.create(1000);
    ASSERT_EQ(a.size(), 64u + 1 + 4 + 1 + 64) << a;
    EXPECT_NE(a.substr(0, 64), b.substr(0, 64));
    EXPECT_EQ(a.substr(64, 6), ".1100.");
    EXPECT_TRUE(sessions.valid(a, 1099));
    EXPECT_FALSE(sessions.valid(a, 1100)) << "expired at login + lifetime";
    EXPECT_FALSE(sessions.valid(a, 999)) << "expires later than one lifetime from now";
    std::string later = a;
    later.replace(65, 4, "1101");
    std::string other_id = a;
    other_id[0] = other_id[0] == 'a' ? 'b' : 'a';
    for (const std::string &forged : {std::string(), a.substr(0, 64), a.substr(0, a.size() - 1),
                                      a.substr(0, a.size() - 1) + "x", later, other_id, a + ".",
                                      std::string(64, 'a') + ".1100." + a.substr(70)}) {
        EXPECT_FALSE(sessions.valid(forged, 1000)) << forged;
    }
    sessions.end(b, 1000);
    EXPECT_FALSE(sessions.valid(b, 1000)) << "ended";
    EXPECT_TRUE(sessions.valid(a, 1000)) << "only the one ended";
}

TEST(UiSessions, AnyServiceWithTheSameTokenKnowsASessionEndedOnlyWhereItWas) {
    UiSessions one("t0k", 1000, 2);
    UiSessions two("t0k", 1000, 2);
    UiSessions other("t1k", 1000, 2);
    UiSessions open_one;
    UiSessions open_two;
    const std::string a = one.create(1);
    EXPECT_TRUE(two.valid(a, 5)) << "a login on one service is good on another";
    EXPECT_FALSE(other.valid(a, 5)) << "not with another admin token";
    EXPECT_FALSE(open_two.valid(open_one.create(1), 5)) << "no token: a random key each";
    one.end(a, 5);
    EXPECT_FALSE(one.valid(a, 5));
    EXPECT_TRUE(two.valid(a, 5)) << "a copied cookie stays good elsewhere until it expires";
    // The ended ids are bounded: the one expiring first is forgotten first.
    const std::string b = one.create(2);
    const std::string c = one.create(3);
    one.end(b, 5);
    one.end(c, 5);
    EXPECT_EQ(one.revoked(), 2u);
    EXPECT_TRUE(one.valid(a, 5));
    EXPECT_FALSE(one.valid(b, 5));
    EXPECT_FALSE(one.valid(c, 5));
    one.end(one.create(1000), 1003);
    EXPECT_EQ(one.revoked(), 1u) << "expired ones are dropped as others come";
}

TEST(UiAuth, CookieValuesAreFoundAmongOthers) {
    const struct {
        const char *header;
        const char *value;
    } cases[] = {
        {"vexo_session=abc", "abc"},
        {"a=1; vexo_session=abc; b=2", "abc"},
        {"a=1;vexo_session = abc ", "abc"},
        {"xvexo_session=abc", ""},
        {"vexo_session", ""},
        {"", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(vexo_cloud::cookie_value(make("GET", "/", {{"cookie", c.header}}),
                                           vexo_cloud::kSessionCookie),
                  c.value)
            << c.header;
    }
}

TEST(UiAuth, AdminAccessByTokenOrSessionWithTheHeaderForChanges) {
    UiSessions sessions;
    const std::string id = sessions.create(10);
    const std::string cookie = std::string("vexo_session=") + id;
    const struct {
        const char *what;
        std::string token;
        std::string method;
        std::map<std::string, std::string> headers;
        int32_t refused; // 0: let through
    } cases[] = {
        {"open service", "", "PUT", {}, 0},
        {"bearer read", "t0k", "GET", {{"authorization", "Bearer t0k"}}, 0},
        {"bearer change needs no header", "t0k", "PUT", {{"authorization", "Bearer t0k"}}, 0},
        {"wrong bearer", "t0k", "GET", {{"authorization", "Bearer t0x"}}, 401},
        {"nothing", "t0k", "GET", {}, 401},
        {"session read", "t0k", "GET", {{"cookie", cookie}}, 0},
        {"session change without header", "t0k", "PUT", {{"cookie", cookie}}, 403},
        {"session post without header", "t0k", "POST", {{"cookie", cookie}}, 403},
        {"session change with header", "t0k", "POST", {{"cookie", cookie}, {"x-vexo-ui", "1"}}, 0},
        {"header other than 1", "t0k", "PUT", {{"cookie", cookie}, {"x-vexo-ui", "yes"}}, 403},
        {"unknown session",
         "t0k",
         "GET",
         {{"cookie", "vexo_session=" + std::string(64, 'a')}},
         401},
        {"the header alone", "t0k", "PUT", {{"x-vexo-ui", "1"}}, 401},
    };
    for (const auto &c : cases) {
        const auto refusal = vexo_cloud::admin_refusal(
            make(c.method, "/v1/admin/devices", c.headers), c.token, sessions, 20);
        EXPECT_EQ(refusal ? refusal->status : 0, c.refused) << c.what;
    }
    EXPECT_TRUE(vexo_cloud::admin_refusal(make("GET", "/v1/admin/devices", {{"cookie", cookie}}),
                                          "t0k", sessions, 10 + sessions.lifetime()))
        << "an expired session is refused";
}

TEST(UiRoutes, FormFieldsAreDecoded) {
    EXPECT_EQ(vexo_cloud::form_field("token=a%2Bb+c%3D", "token"), "a+b c=");
    EXPECT_EQ(vexo_cloud::form_field("x=1&token=s3cret&y=2", "token"), "s3cret");
    EXPECT_EQ(vexo_cloud::form_field("tokenx=1&token", "token"), "");
    EXPECT_EQ(vexo_cloud::form_field("token=%zz%4", "token"), "%zz%4");
    EXPECT_EQ(vexo_cloud::form_field("", "token"), "");
}

TEST(UiRoutes, LoginSetsASessionCookieAndAWrongTokenGetsTheFormAgain) {
    UiSessions sessions;
    const vexo_cloud::UiContext context{"s3cret", &sessions, true};
    Response answer =
        vexo_cloud::handle_ui(context, make("POST", "/ui/login", {}, "token=s3cret%21x"));
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(header(answer, "Set-Cookie"), "");
    EXPECT_NE(answer.body.find("<p id=\"login-error\">"), std::string::npos) << answer.body;
    EXPECT_EQ(sessions.revoked(), 0u);

    answer = vexo_cloud::handle_ui(context, make("GET", "/ui/", {}));
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.body.find("id=\"login-form\""), std::string::npos) << "no session: the form";

    answer = vexo_cloud::handle_ui(context, make("POST", "/ui/login", {}, "token=s3cret"));
    ASSERT_EQ(answer.status, 303);
    EXPECT_EQ(header(answer, "Location"), "/ui/");
    const std::string cookie = header(answer, "Set-Cookie");
    for (const char *attribute : {"HttpOnly", "SameSite=Strict", "Path=/", "Secure"}) {
        EXPECT_NE(cookie.find(attribute), std::string::npos) << cookie;
    }
    const std::string id = cookie.substr(13, cookie.find(';') - 13);
    EXPECT_TRUE(sessions.valid(id, vexo_cloud::wall_seconds())) << cookie;
    const std::map<std::string, std::string> with_cookie = {{"cookie", "vexo_session=" + id}};
    answer = vexo_cloud::handle_ui(context, make("GET", "/ui/", with_cookie));
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.body.find("id=\"devices\""), std::string::npos) << "the page itself";

    answer = vexo_cloud::handle_ui(context, make("POST", "/ui/logout", with_cookie));
    EXPECT_EQ(answer.status, 303);
    EXPECT_NE(header(answer, "Set-Cookie").find("Max-Age=0"), std::string::npos);
    EXPECT_EQ(sessions.revoked(), 1u);
    answer = vexo_cloud::handle_ui(context, make("GET", "/ui/", with_cookie));
    EXPECT_NE(answer.body.find("id=\"login-form\""), std::string::npos) << "logged out";
}

TEST(UiRoutes, ServesTheEmbeddedFilesAndNothingElse) {
    UiSessions sessions;
    const vexo_cloud::UiContext context{"s3cret", &sessions, false};
    const struct {
        const char *path;
        int32_t status;
        const char *type;
    } cases[] = {
        {"/ui/app.js", 200, "text/javascript; charset=utf-8"},
        {"/ui/style.css", 200, "text/css; charset=utf-8"},
        {"/ui/vendor/hls.min.js", 200, "text/javascript; charset=utf-8"},
        {"/ui/login", 200, "text/html; charset=utf-8"},
        {"/ui/missing.js", 404, "application/json"},
        {"/ui/../service.cc", 404, "application/json"},
    };
    for (const auto &c : cases) {
        const Response answer = vexo_cloud::handle_ui(context, make("GET", c.path));
        EXPECT_EQ(answer.status, c.status) << c.path;
        EXPECT_EQ(answer.content_type, c.type) << c.path;
    }
    const vexo_cloud::UiAsset *app = vexo_cloud::find_ui_asset("app.js");
    ASSERT_NE(app, nullptr);
    const Response answer = vexo_cloud::handle_ui(context, make("GET", "/ui/app.js"));
    EXPECT_EQ(answer.body, std::string(reinterpret_cast<const char *>(app->data), app->size));
    EXPECT_NE(answer.body.find("refreshOverview"), std::string::npos);
    EXPECT_EQ(vexo_cloud::handle_ui(context, make("DELETE", "/ui/app.js")).status, 405);
}

class OverviewTest : public ServiceTest {};

TEST_F(OverviewTest, ShowsEachDeviceWithItsKeyUsageOpenRecordingAndLastRequest) {
    auto service = start_service();
    add_device(*service, "cam1");
    add_device(*service, "cam2");
    const Json result = start(*service, "cam1", kNoon - 60, kNoKeyMd5);
    ASSERT_FALSE(result.is_null());
    ASSERT_EQ(put_media(*service, "cam1", std::to_string(kNoon - 60) + "_0000.media",
                        std::string(100, 'x'))
                  .status,
              200);
    vexo_cloud::DeviceActivity activity;
    activity.note(request("GET", "/v1/devices/cam1/storage/config", "cam1"), 200, kNoon - 5);
    activity.note(request("GET", "/v1/devices/cam2/storage/config", "cam2"), 401, kNoon - 4);

    const Response answer = vexo_cloud::overview_answer(*service, activity, make("GET", ""));
    ASSERT_EQ(answer.status, 200) << answer.body;
    const Json body = body_of(answer);
    EXPECT_EQ(body["now"], kNoon);
    EXPECT_EQ(body["timeZone"], "UTC0") << "the zone TZ names (the fixture's)";
    EXPECT_EQ(body["utcOffset"], 0);
    ASSERT_EQ(body["devices"].size(), 2u);
    const Json &cam1 = body["devices"][0];
    EXPECT_EQ(cam1["id"], "cam1");
    EXPECT_EQ(cam1["lastRequest"], kNoon - 5);
    EXPECT_EQ(cam1["storeMode"], "event");
    EXPECT_EQ(cam1["order"]["eventDuration"], 30);
    EXPECT_EQ(cam1["keyMd5"], service->key_md5("cam1"));
    EXPECT_EQ(cam1["keyMd5"].get<std::string>().size(), 32u);
    EXPECT_EQ(cam1["usage"]["files"], 1);
    EXPECT_EQ(cam1["usage"]["bytes"], 100);
    EXPECT_TRUE(cam1["limits"]["maxBytes"].is_null());
    EXPECT_EQ(cam1["openRecording"], kNoon - 60);
    EXPECT_EQ(cam1["gaps"], 0);
    EXPECT_EQ(cam1["eventsLeftToday"], service->count_left("cam1"));
    const Json &cam2 = body["devices"][1];
    EXPECT_TRUE(cam2["lastRequest"].is_null()) << "a 401 is not the device's request";
    EXPECT_EQ(cam2["keyMd5"], "");
    EXPECT_TRUE(cam2["openRecording"].is_null());
    EXPECT_EQ(vexo_cloud::overview_answer(*service, activity, make("POST", "")).status, 405);
}

} // namespace
} // namespace service_test

/// Device requests: refusals of every kind (4xx, nothing changed on disk), media uploads,
/// stop notifications, event reports, alarms and gap reports, and requests from many threads
/// at once.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "service/core/base64.h"
#include "service_fixture.h"
#include "sqlite_metadata_store.h"

namespace service_test {
namespace {

namespace fs = std::filesystem;
using vexo_cloud::Request;
using vexo_cloud::Response;

class ServiceRequestsTest : public ServiceTest {};

std::string read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST_F(ServiceRequestsTest, RefusedRequestsAnswer4xxAndChangeNothing) {
    vexo_cloud::Options opts = options();
    opts.max_body = 1024;
    auto service = start_cam1(std::move(opts), true);
    ASSERT_EQ(put_media(*service, "cam1", "1710072000_0000.media", "x").status, 200);

    auto no_device_header = request("GET", "/v1/devices/cam1/storage/config", "");
    no_device_header.headers.erase("x-vexo-device");
    std::vector<std::pair<Request, int32_t>> cases = {
        {request("GET", "/v1/devices/ghost/storage/config", "ghost"), 404},
        {request("POST", "/v1/api/x?v=1.0", "ghost", "{}"), 404},
        {no_device_header, 400},
        {request("GET", "/v1/devices/cam1/storage/config", "cam2"), 400},
        {request("PUT", "/v1/devices/../media/1_0.media", "..", "x"), 400},
        {request("POST", "/v1/devices/cam1/alarms", "cam1", std::string(1025, ' ')), 413},
        {request("PUT", "/v1/devices/cam1/media/1_0.media", "cam1", std::string(1025, 'x')), 413},
        {request("GET", "/v1/devices/cam1/storage", "cam1"), 404},
        {request("POST", "/v1/devices/cam1/storage/config", "cam1"), 405},
        {request("GET", "/v1/devices/cam1/media/1_0.media", "cam1"), 405},
    };
    const std::string api = "/v1/api/";
    const std::string deep = std::string(33, '[') + std::string(33, ']');
    const std::string deep_text = "{\\\"a\\\":" + deep + "}"; // as a JSON string's content
    const std::pair<std::string, std::string> bad_bodies[] = {
        {api + kStartApi, "{\"startTime\":"},
        {api + kStartApi, R"({"startTime":5,"payloadInfo":"{v:1","mtu":10,"enKeyMd5":"0000"})"},
        {api + kStartApi, R"({"startTime":"5","payloadInfo":"{}","mtu":10,"enKeyMd5":"0000"})"},
        {api + kStartApi, R"({"startTime":-5,"payloadInfo":"{}","mtu":10,"enKeyMd5":"0000"})"},
        // Numbers that do not fit their member, never cut or wrapped.
        {api + kStartApi, R"({"startTime":5,"payloadInfo":"{}","mtu":1e300,"enKeyMd5":"0"})"},
        {api + kStopApi, R"({"startTime":4294967306,"endTime":1})"},
        {api + kStopApi, R"({"startTime":1,"endTime":1.5})"},
        {"/v1/devices/cam1/alarms", R"({"time":-2147483649,"withPicture":0})"},
        {api + kStopApi, R"({"startTime":1710072000})"},
        {api + kReportApi, "[1]"},
        {"/v1/devices/cam1/alarms", R"({"time":1,"withPicture":1,"picture":"AA*A"})"},
        {"/v1/devices/cam1/alarms", R"({"time":1,"withPicture":2})"},
        {"/v1/devices/cam1/alarms", "time=1"},
        // Nested deeper than the parser takes, also inside the payload string.
        {api + kStartApi, R"({"startTime":5,"payloadInfo":")" + deep_text + R"(","mtu":10})"},
        {api + kReportApi, R"({"a":)" + deep + "}"},
        {"/v1/devices/cam1/gaps", deep},
    };
    for (const auto &[path, body] : bad_bodies) {
        const bool is_api = path.rfind(api, 0) == 0;
        cases.emplace_back(request("POST", is_api ? path + "?v=1.0" : path, "cam1", body), 400);
    }
    for (const char *name : {"../x", "..%2f1710072000_0000.media", "", "01_0.media",
                             "4294967296_0.media", "1_.media", "1_0.mp4", ".1_0.media.tmp-abc"}) {
        cases.emplace_back(
            request("PUT", std::string("/v1/devices/cam1/media/") + name, "cam1", "x"), 400);
    }

    const auto before = snapshot();
    for (const auto &[req, status] : cases) {
        const Response response = service->handle(req);
        const std::string what = req.method + " " + req.path + " " + req.body.substr(0, 60);
        EXPECT_EQ(response.status, status) << what << ": " << response.body;
        EXPECT_TRUE(body_of(response).contains("error")) << what << ": " << response.body;
        EXPECT_EQ(snapshot(), before) << what;
    }
    // The boundary: a body of exactly max_body bytes is taken.
    EXPECT_EQ(put_media(*service, "cam1", "1710072000_0001.media", std::string(1024, 'x')).status,
              200);
}

TEST_F(ServiceRequestsTest, TokensAreCheckedPerDevice) {
    vexo_cloud::Options opts = options();
    opts.tokens = {{"cam1", "secret-1"}, {"cam2", "secret-2"}};
    auto service = start_service(std::move(opts));
    // Devices with a token exist from the start, with the default order.
    EXPECT_EQ(service->devices(), (std::vector<std::string>{"cam1", "cam2"}));
    const auto before = snapshot();

    auto with_token = [](Request r, const std::string &value) {
        r.headers["authorization"] = value;
        return r;
    };
    const Request put =
        request("PUT", "/v1/devices/cam1/media/1710072000_0000.media", "cam1", "bytes");
    const Request refused[] = {
        put,
        with_token(put, "Bearer secret-2"),
        with_token(put, "Bearer secret-1x"),
        with_token(put, "secret-1"),
        with_token(request("GET", "/v1/devices/cam3/storage/config", "cam3"), "Bearer secret-1"),
    };
    for (const Request &r : refused) {
        EXPECT_EQ(service->handle(r).status, 401) << r.headers.count("authorization");
    }
    EXPECT_EQ(snapshot(), before);
    const Request announce = request("POST", std::string("/v1/api/") + kStartApi + "?v=1.0", "cam1",
                                     start_body(kNoon, kNoKeyMd5));
    EXPECT_EQ(service->handle(with_token(announce, "Bearer secret-1")).status, 200);
    EXPECT_EQ(service->handle(with_token(put, "Bearer secret-1")).status, 200);
}

TEST_F(ServiceRequestsTest, StopsAndReportsAreStoredAndApiRefusalsAnswerSuccessFalse) {
    auto service = start_cam1(options(), true);
    auto expect_refused = [&](const Response &response, const std::string &code) {
        EXPECT_EQ(response.status, 200);
        const Json body = body_of(response);
        EXPECT_EQ(body["success"], false) << response.body;
        EXPECT_EQ(body["code"], code) << response.body;
        EXPECT_TRUE(body["msg"].is_string());
    };
    expect_refused(call_api(*service, "cam1", "vexo.device.other", "{}"), "api.unknown");
    expect_refused(service->handle(request("POST", std::string("/v1/api/") + kStopApi + "?v=2.0",
                                           "cam1", R"({"startTime":1,"endTime":2})")),
                   "api.version");
    expect_refused(call_api(*service, "cam1", kStopApi, R"({"startTime":1,"endTime":2})"),
                   "recording.unknown");
    expect_refused(call_api(*service, "cam1", kStopApi,
                            Json{{"startTime", kNoon}, {"endTime", kNoon - 1}}.dump()),
                   "time.invalid");
    EXPECT_EQ(recording(*service, "cam1", kNoon).end_time, 0u);

    const Response stop = call_api(*service, "cam1", kStopApi,
                                   Json{{"startTime", kNoon}, {"endTime", kNoon + 30}}.dump());
    EXPECT_EQ(body_of(stop), Json::parse(R"({"success":true,"result":{}})"));
    EXPECT_EQ(recording(*service, "cam1", kNoon).end_time, kNoon + 30);
    EXPECT_EQ(body_of(call_api(*service, "cam1", kReportApi, R"({"a":1})"))["success"], true);
    EXPECT_EQ(body_of(call_api(*service, "cam1", kReportApi, R"({"b":"two"})"))["success"], true);
    service.reset();
    vexo_cloud::SqliteMetadataStore store(dir_ + "/data/vexo-cloud.db", true);
    EXPECT_EQ(store.events("cam1"), (std::vector<std::string>{R"({"a":1})", R"({"b":"two"})"}));
}

TEST_F(ServiceRequestsTest, UploadsNeedAnAnnouncedRecordingAndAStoredNameTakesOnlyItsBytes) {
    auto service = start_service();
    vexo_cloud::OrderChange expire;
    expire.expired = true;
    std::string error;
    ASSERT_TRUE(service->set_order("cam1", expire, &error));
    const std::string dir = dir_ + "/data/cam1/1710072000";
    const char *name = "1710072000_0000.media";
    // Nothing is taken for a recording never announced.
    const Response unannounced = put_media(*service, "cam1", name, "first version");
    EXPECT_EQ(unannounced.status, 409);
    EXPECT_NE(body_of(unannounced)["error"].get<std::string>().find("start notification"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(dir));
    // Announced, and with an expired order, it is.
    start(*service, "cam1", kNoon, kNoKeyMd5);
    struct Case {
        const char *bytes;
        int32_t status;
    };
    const Case cases[] = {
        {"first version", 200},
        {"first version", 200}, // replayed by the device: the same bytes
        {"first versioN", 409}, // same size, other bytes
        {"second", 409},        // other size
    };
    for (const Case &c : cases) {
        const Response response = put_media(*service, "cam1", name, c.bytes);
        EXPECT_EQ(response.status, c.status) << c.bytes << ": " << response.body;
        EXPECT_EQ(read_all(dir + "/" + name), "first version") << c.bytes;
    }
    // A write that cannot complete leaves neither a partial file nor a temporary one, and its
    // answer names no server path.
    fs::create_directory(dir + "/1710072000_0001.media");
    const auto before = snapshot();
    const Response failed = put_media(*service, "cam1", "1710072000_0001.media", "data");
    EXPECT_EQ(failed.status, 500) << failed.body;
    EXPECT_TRUE(body_of(failed).contains("error"));
    EXPECT_EQ(failed.body.find(dir_), std::string::npos) << failed.body;
    EXPECT_EQ(snapshot(), before);
}

TEST_F(ServiceRequestsTest, AlarmsAreStoredWithTheirPictures) {
    auto service = start_cam1();
    const std::string jpeg("\xff\xd8\xff\xe0 picture \x00\x01\xff\xd9", 17);
    for (const Json &alarm :
         {Json{{"time", kNoon + 5},
               {"withPicture", 1},
               {"extra", "\"ext\":{\"user\":\"u1\"}"},
               {"picture", "/9j/4CBwaWN0dXJlIAAB/9k="}},
          Json{{"time", kNoon}, {"withPicture", 0}, {"extra", "x"}, {"picture", ""}}}) {
        EXPECT_EQ(service->handle(request("POST", "/v1/devices/cam1/alarms", "cam1", alarm.dump()))
                      .status,
                  200);
    }
    const std::vector<vexo_cloud::Alarm> alarms = service->alarms("cam1");
    ASSERT_EQ(alarms.size(), 2u);
    EXPECT_EQ(alarms[0].time, kNoon);
    EXPECT_FALSE(alarms[0].with_picture);
    EXPECT_EQ(alarms[0].picture_path, "");
    EXPECT_TRUE(alarms[1].with_picture);
    EXPECT_EQ(alarms[1].extra, "\"ext\":{\"user\":\"u1\"}");
    EXPECT_EQ(read_all(alarms[1].picture_path), jpeg);
}

TEST(ServiceBase64Test, DecodesWhatAnEncoderProducesAndNothingElse) {
    using vexo_cloud::base64_decode;
    for (const auto &[text, bytes] : {std::pair<const char *, std::string>{"", ""},
                                      {"Zg", "f"},
                                      {"Zm8=", "fo"},
                                      {"Zm9vYmFy", "foobar"},
                                      {"+/+/", "\xfb\xff\xbf"}}) {
        EXPECT_EQ(base64_decode(text), bytes) << text;
    }
    for (const char *bad : {"Z", "Zg=", "Z===", "Zg==Zg==", "Zm9v\n", "Zm-v", "=Zg="}) {
        EXPECT_FALSE(base64_decode(bad).has_value()) << bad;
    }
}

TEST_F(ServiceRequestsTest, ConcurrentDevicesKeepConsistentState) {
    auto service = start_cam1();
    add_device(*service, "cam2");
    constexpr int kRecordings = 6;
    auto device_run = [&](const std::string &device) {
        for (int i = 0; i < kRecordings; ++i) {
            const uint32_t t = kNoon + static_cast<uint32_t>(i) * 60;
            const Response started =
                call_api(*service, device, kStartApi, start_body(t, kNoKeyMd5));
            EXPECT_EQ(body_of(started)["success"], true);
            const std::string name = std::to_string(t) + "_0000.media";
            EXPECT_EQ(put_media(*service, device, name, device + name).status, 200);
            EXPECT_EQ(get_config(*service, device).status, 200);
        }
    };
    auto admin_run = [&] {
        std::string error;
        for (int i = 0; i < kRecordings; ++i) {
            vexo_cloud::OrderChange change;
            change.silence_interval = i;
            EXPECT_TRUE(service->set_order("cam1", change, &error));
            EXPECT_TRUE(service->trigger("cam2", "pic", 0, "{}", &error));
        }
    };
    std::thread a(device_run, "cam1");
    std::thread b(device_run, "cam2");
    std::thread c(admin_run);
    a.join();
    b.join();
    c.join();
    for (const std::string device : {"cam1", "cam2"}) {
        const auto recordings = service->recordings(device);
        ASSERT_EQ(recordings.size(), static_cast<size_t>(kRecordings));
        for (const auto &rec : recordings) {
            ASSERT_EQ(rec.files.size(), 1u);
            EXPECT_EQ(rec.files[0].bytes, device.size() + rec.files[0].name.size());
            EXPECT_EQ(rec.key, recordings[0].key);
        }
        EXPECT_EQ(service->count_left(device), 20 - kRecordings);
    }
}

class GapReportTest : public ServiceTest {
  protected:
    static int32_t post_gap(vexo_cloud::Service &service, const std::string &body) {
        return service.handle(request("POST", "/v1/devices/cam1/gaps", "cam1", body)).status;
    }
    static std::string gap(uint32_t from, uint32_t to, const std::string &reason, uint64_t bytes) {
        return Json{{"from", from}, {"to", to}, {"reason", reason}, {"bytes", bytes}}.dump();
    }
    /// "device from-to reason bytes" of each gap.
    static std::vector<std::string> texts(const std::vector<vexo_cloud::Gap> &gaps) {
        std::vector<std::string> out;
        for (const vexo_cloud::Gap &g : gaps) {
            out.push_back(g.device + " " + std::to_string(g.from) + "-" + std::to_string(g.to) +
                          " " + g.reason + " " + std::to_string(g.bytes));
        }
        return out;
    }
};

TEST_F(GapReportTest, GapsAreStoredOnceByTimeAndKeptAcrossARestart) {
    {
        auto service = start_cam1();
        // Each twice, as after a lost answer; another reason or size is another drop, and a
        // reason of a later kit's own is kept.
        for (const std::string &body :
             {gap(kNoon + 600, kNoon + 660, "too old", 0), gap(kNoon, kNoon + 300, "spool full", 7),
              gap(kNoon, kNoon + 300, "disk error", 9)}) {
            EXPECT_EQ(post_gap(*service, body), 200);
            EXPECT_EQ(post_gap(*service, body), 200);
        }
    }
    const std::vector<std::string> expected = {"cam1 1710072000-1710072300 disk error 9",
                                               "cam1 1710072000-1710072300 spool full 7",
                                               "cam1 1710072600-1710072660 too old 0"};
    auto service = start_service();
    EXPECT_EQ(texts(service->gaps("cam1")), expected);
    EXPECT_EQ(post_gap(*service, gap(kNoon, kNoon + 300, "spool full", 7)), 200);
    EXPECT_EQ(texts(service->gaps("cam1")), expected);
    // Tools read the same without a service, one device or all of them.
    EXPECT_EQ(texts(vexo_cloud::read_gaps(dir_ + "/data", "")), expected);
    EXPECT_TRUE(vexo_cloud::read_gaps(dir_ + "/data", "nobody").empty());
    EXPECT_THROW(vexo_cloud::read_gaps(dir_ + "/data", "../cam1"), std::invalid_argument);
}

TEST_F(GapReportTest, BadReportsAreRefusedAndChangeNothing) {
    auto service = start_cam1();
    ASSERT_EQ(post_gap(*service, gap(kNoon, kNoon + 1, "spool full", 5)), 200);
    const auto before = snapshot();
    const char *const bad_bodies[] = {
        "[1,2]",
        R"({"to":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":0,"to":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":1710072000.5,"to":1710072001,"reason":"too old","bytes":1})",
        R"({"from":1710072000,"to":1710071999,"reason":"too old","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"spool\nfull","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"voll \u00fcbergelaufen","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old"})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":-1})",
    };
    for (const char *body : bad_bodies) {
        const vexo_cloud::Response answer =
            service->handle(request("POST", "/v1/devices/cam1/gaps", "cam1", body));
        EXPECT_EQ(answer.status, 400) << body;
        EXPECT_TRUE(body_of(answer).contains("error")) << answer.body;
    }
    EXPECT_EQ(service->handle(request("GET", "/v1/devices/cam1/gaps", "cam1")).status, 405);
    EXPECT_EQ(snapshot(), before);
}

} // namespace
} // namespace service_test

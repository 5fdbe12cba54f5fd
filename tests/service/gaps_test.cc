/// Gap reports: stored once, listed by time, kept across a restart, read without a service;
/// bad reports and bad credentials change nothing.
#include <filesystem>
#include <fstream>

#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::Gap;
using vexo_cloud::Response;

class GapReportTest : public ServiceTest {
  protected:
    static Response post_gap(vexo_cloud::Service &service, const std::string &device,
                             const std::string &body) {
        return service.handle(request("POST", "/v1/devices/" + device + "/gaps", device, body));
    }
    static std::string gap_body(uint32_t from, uint32_t to, const std::string &reason,
                                uint64_t bytes) {
        return Json{{"from", from}, {"to", to}, {"reason", reason}, {"bytes", bytes}}.dump();
    }
};

std::vector<std::tuple<uint32_t, uint32_t, std::string, uint64_t>>
fields(const std::vector<Gap> &gaps) {
    std::vector<std::tuple<uint32_t, uint32_t, std::string, uint64_t>> out;
    for (const Gap &gap : gaps) {
        out.emplace_back(gap.from, gap.to, gap.reason, gap.bytes);
    }
    return out;
}

TEST_F(GapReportTest, GapsAreStoredOnceListedByTimeAndKeptAcrossARestart) {
    {
        auto service = start_service();
        add_device(*service, "cam1");
        add_device(*service, "cam2");
        const std::string later = gap_body(kNoon + 600, kNoon + 660, "too old", 0);
        const std::string earlier = gap_body(kNoon, kNoon + 300, "spool full", 1234567);
        for (const std::string &body : {later, earlier, later, earlier}) {
            const Response answer = post_gap(*service, "cam1", body);
            EXPECT_EQ(answer.status, 200) << answer.body;
            EXPECT_EQ(body_of(answer), Json::object());
        }
        // The same times with another reason or size is another drop; a reason of the
        // device's own is kept.
        EXPECT_EQ(post_gap(*service, "cam1", gap_body(kNoon, kNoon + 300, "disk error", 9)).status,
                  200);
        EXPECT_EQ(post_gap(*service, "cam2", gap_body(kNoon, kNoon, "spool full", 1)).status, 200);
        ASSERT_EQ(service->gaps("cam1").size(), 3u);
        EXPECT_EQ(service->gaps("cam1")[0].device, "cam1");
    }
    const auto expected = std::vector<std::tuple<uint32_t, uint32_t, std::string, uint64_t>>{
        {kNoon, kNoon + 300, "disk error", 9},
        {kNoon, kNoon + 300, "spool full", 1234567},
        {kNoon + 600, kNoon + 660, "too old", 0}};
    auto service = start_service();
    EXPECT_EQ(fields(service->gaps("cam1")), expected);
    EXPECT_TRUE(service->gaps("nobody").empty());
    // A repeat after the restart is still recognised.
    EXPECT_EQ(post_gap(*service, "cam1", gap_body(kNoon + 600, kNoon + 660, "too old", 0)).status,
              200);
    EXPECT_EQ(fields(service->gaps("cam1")), expected);

    // Tools read the same without a service: one device, or all of them by device.
    const std::string data = dir_ + "/data";
    EXPECT_EQ(fields(vexo_cloud::read_gaps(data, "cam1")), expected);
    const std::vector<Gap> all = vexo_cloud::read_gaps(data, "");
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[2].device, "cam1");
    EXPECT_EQ(all[3].device, "cam2");
    EXPECT_TRUE(vexo_cloud::read_gaps(data, "nobody").empty());
    EXPECT_THROW(vexo_cloud::read_gaps(data, "../cam1"), std::invalid_argument);
}

TEST_F(GapReportTest, BadReportsAreRefusedAndChangeNothing) {
    auto service = start_service();
    add_device(*service, "cam1");
    ASSERT_EQ(post_gap(*service, "cam1", gap_body(kNoon, kNoon + 1, "spool full", 5)).status, 200);
    const auto before = snapshot();
    const struct {
        const char *what;
        std::string body;
    } cases[] = {
        {"not JSON", "{\"from\":"},
        {"not an object", "[1,2]"},
        {"no from", R"({"to":1710072000,"reason":"spool full","bytes":1})"},
        {"from zero", R"({"from":0,"to":1710072000,"reason":"spool full","bytes":1})"},
        {"from negative", R"({"from":-5,"to":1710072000,"reason":"spool full","bytes":1})"},
        {"from a text", R"({"from":"1710072000","to":1710072000,"reason":"too old","bytes":1})"},
        {"from a fraction",
         R"({"from":1710072000.5,"to":1710072001,"reason":"too old","bytes":1})"},
        {"from beyond 32 bits",
         R"({"from":4294967296,"to":4294967296,"reason":"too old","bytes":1})"},
        {"no to", R"({"from":1710072000,"reason":"spool full","bytes":1})"},
        {"to before from", R"({"from":1710072000,"to":1710071999,"reason":"too old","bytes":1})"},
        {"no reason", R"({"from":1710072000,"to":1710072000,"bytes":1})"},
        {"empty reason", R"({"from":1710072000,"to":1710072000,"reason":"","bytes":1})"},
        {"reason a number", R"({"from":1710072000,"to":1710072000,"reason":7,"bytes":1})"},
        {"reason with a line end",
         R"({"from":1710072000,"to":1710072000,"reason":"spool\nfull","bytes":1})"},
        {"reason too long", gap_body(kNoon, kNoon, std::string(65, 'r'), 1)},
        {"reason not ASCII", gap_body(kNoon, kNoon, "voll \u00fcbergelaufen", 1)},
        {"no bytes", R"({"from":1710072000,"to":1710072000,"reason":"too old"})"},
        {"bytes negative", R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":-1})"},
        {"bytes a fraction",
         R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":1.5})"},
        {"bytes a text", R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":"1"})"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const Response answer = post_gap(*service, "cam1", c.body);
        EXPECT_EQ(answer.status, 400) << answer.body;
        EXPECT_TRUE(body_of(answer).contains("error")) << answer.body;
    }
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(service->gaps("cam1").size(), 1u);

    // The request itself: method, device header, a device the service does not know.
    const std::string good = gap_body(kNoon + 5, kNoon + 6, "too old", 0);
    auto get = request("GET", "/v1/devices/cam1/gaps", "cam1");
    EXPECT_EQ(service->handle(get).status, 405);
    auto other = request("POST", "/v1/devices/cam1/gaps", "cam2", good);
    EXPECT_EQ(service->handle(other).status, 400);
    EXPECT_EQ(post_gap(*service, "cam9", good).status, 404);
    EXPECT_EQ(snapshot(), before);
}

TEST_F(GapReportTest, TheDevicesTokenIsRequired) {
    vexo_cloud::Options options = this->options();
    options.tokens = {{"cam1", "secret-1"}, {"cam2", "secret-2"}};
    auto service = start_service(options);
    const auto before = snapshot();
    const std::string body = gap_body(kNoon, kNoon + 10, "spool full", 100);
    for (const char *authorization : {"", "Bearer secret-2", "Bearer secret-10", "secret-1"}) {
        SCOPED_TRACE(authorization);
        auto r = request("POST", "/v1/devices/cam1/gaps", "cam1", body);
        if (*authorization != '\0') {
            r.headers["authorization"] = authorization;
        }
        EXPECT_EQ(service->handle(r).status, 401);
    }
    EXPECT_EQ(snapshot(), before);
    auto r = request("POST", "/v1/devices/cam1/gaps", "cam1", body);
    r.headers["authorization"] = "Bearer secret-1";
    EXPECT_EQ(service->handle(r).status, 200);
    EXPECT_EQ(service->gaps("cam1").size(), 1u);
}

TEST_F(GapReportTest, ADamagedGapsFileIsReportedAndLeftAlone) {
    {
        auto service = start_service();
        add_device(*service, "cam1");
        add_device(*service, "cam2");
        post_gap(*service, "cam2", gap_body(kNoon, kNoon + 1, "too old", 1));
    }
    const std::string data = dir_ + "/data";
    const std::string file = data + "/cam1/gaps.json";
    for (const std::string &damaged :
         {std::string("{\"gaps\":["), std::string(R"({"gaps":{}})"),
          std::string(R"({"gaps":[{"from":5,"to":4,"reason":"too old","bytes":0}]})")}) {
        SCOPED_TRACE(damaged);
        std::ofstream(file, std::ios::trunc) << damaged;
        try {
            start_service();
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error &e) {
            EXPECT_NE(std::string(e.what()).find(file), std::string::npos) << e.what();
        }
        EXPECT_THROW(vexo_cloud::read_gaps(data, "cam1"), std::runtime_error);
        // Asked to, a reader skips the damaged file, says which, and reads the others.
        std::vector<std::string> lines;
        const std::vector<Gap> rest = vexo_cloud::read_gaps(data, "", &lines);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind(file + ": ", 0), 0u) << lines[0];
        ASSERT_EQ(rest.size(), 1u);
        EXPECT_EQ(rest[0].device, "cam2");
        std::ifstream in(file, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), damaged);
    }
}

} // namespace
} // namespace service_test

/// Gap reports: stored once, by time, kept across a restart, read without a service; bad
/// reports, bad credentials and damaged files change nothing.
#include <fstream>
#include <sstream>

#include "service_fixture.h"

namespace service_test {
namespace {

class GapReportTest : public ServiceTest {
  protected:
    static int32_t post_gap(vexo_cloud::Service &service, const std::string &body,
                            const std::string &token = "") {
        auto r = request("POST", "/v1/devices/cam1/gaps", "cam1", body);
        if (!token.empty()) {
            r.headers["authorization"] = token;
        }
        return service.handle(r).status;
    }
    static std::string gap(uint32_t from, uint32_t to, const std::string &reason, uint64_t bytes) {
        return Json{{"from", from}, {"to", to}, {"reason", reason}, {"bytes", bytes}}.dump();
    }
    /// "from-to reason bytes" of each gap.
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
        auto service = start_service();
        add_device(*service, "cam1");
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

TEST_F(GapReportTest, BadReportsAndBadCredentialsAreRefusedAndChangeNothing) {
    vexo_cloud::Options options = this->options();
    options.tokens = {{"cam1", "secret-1"}, {"cam2", "secret-2"}};
    auto service = start_service(options);
    ASSERT_EQ(post_gap(*service, gap(kNoon, kNoon + 1, "spool full", 5), "Bearer secret-1"), 200);
    const auto before = snapshot();
    const char *const bad_bodies[] = {
        "{\"from\":",
        "[1,2]",
        R"({"to":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":0,"to":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":-5,"to":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":"1710072000","to":1710072000,"reason":"too old","bytes":1})",
        R"({"from":1710072000.5,"to":1710072001,"reason":"too old","bytes":1})",
        R"({"from":4294967296,"to":4294967296,"reason":"too old","bytes":1})",
        R"({"from":1710072000,"reason":"spool full","bytes":1})",
        R"({"from":1710072000,"to":1710071999,"reason":"too old","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":7,"bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"spool\nfull","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"voll \u00fcbergelaufen","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr","bytes":1})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old"})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":-1})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":1.5})",
        R"({"from":1710072000,"to":1710072000,"reason":"too old","bytes":"1"})",
    };
    for (const char *body : bad_bodies) {
        auto r = request("POST", "/v1/devices/cam1/gaps", "cam1", body);
        r.headers["authorization"] = "Bearer secret-1";
        const vexo_cloud::Response answer = service->handle(r);
        EXPECT_EQ(answer.status, 400) << body;
        EXPECT_TRUE(body_of(answer).contains("error")) << answer.body;
    }
    const std::string good = gap(kNoon + 5, kNoon + 6, "too old", 0);
    for (const char *token : {"", "Bearer secret-2", "Bearer secret-10", "secret-1"}) {
        EXPECT_EQ(post_gap(*service, good, token), 401) << token;
    }
    auto get = request("GET", "/v1/devices/cam1/gaps", "cam1");
    get.headers["authorization"] = "Bearer secret-1";
    EXPECT_EQ(service->handle(get).status, 405);
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(service->gaps("cam1").size(), 1u);
}

} // namespace
} // namespace service_test

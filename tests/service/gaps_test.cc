/// Gap reports: stored once, by time, kept across a restart, read without a service; bad
/// reports change nothing.
#include "service_fixture.h"

namespace service_test {
namespace {

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

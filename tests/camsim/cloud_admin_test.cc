// The simulator's client of a network cloud's admin endpoints, against a local HTTP server:
// the requests it sends, and how it reads answers, refusals and a cloud that is not there.
#include <gtest/gtest.h>

#include <mutex>
#include <tuple>
#include <vector>

#include "cloud_admin.h"
#include "tests/host/local_http_server.h"
#include "tests/host/unused_port.h"

namespace {

using camsim::CloudAdmin;
using camsim::RecordingSummary;

struct Seen {
    std::string method;
    std::string path;
    std::string authorization;
    std::string content_type;
    std::string body;
};

class CloudAdminTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto server = std::make_unique<httplib::Server>();
        const auto handle = [this](const httplib::Request &req, httplib::Response &res) {
            std::lock_guard<std::mutex> lock(mu_);
            seen_.push_back({req.method, req.path, req.get_header_value("Authorization"),
                             req.get_header_value("Content-Type"), req.body});
            res.status = status_;
            res.set_content(answer_, "application/json");
        };
        server->Get(".*", handle);
        server->Post(".*", handle);
        server->Put(".*", handle);
        server_ = std::make_unique<vexo_test::LocalHttpServer>(std::move(server));
        ASSERT_TRUE(server_->running());

        options_.cloud_url = server_->url();
        options_.device_id = "cam-9";
        options_.admin_token = "adm1n";
        std::string error;
        admin_ = CloudAdmin::create(options_, &error);
        ASSERT_NE(admin_, nullptr) << error;
    }
    void answer(int status, const std::string &body) {
        std::lock_guard<std::mutex> lock(mu_);
        status_ = status;
        answer_ = body;
    }
    Seen last() {
        std::lock_guard<std::mutex> lock(mu_);
        return seen_.empty() ? Seen{} : seen_.back();
    }
    /// Method, path and body of the last request; fails the test unless it had the token.
    std::tuple<std::string, std::string, std::string> last_request() {
        const Seen s = last();
        EXPECT_EQ(s.authorization, "Bearer adm1n");
        EXPECT_EQ(s.content_type, "application/json");
        return {s.method, s.path, s.body};
    }

    std::mutex mu_;
    std::vector<Seen> seen_;
    int status_ = 200;
    std::string answer_ = "{}";
    std::unique_ptr<vexo_test::LocalHttpServer> server_;
    camsim::Options options_;
    std::unique_ptr<CloudAdmin> admin_;
};

TEST_F(CloudAdminTest, OrderTriggerAndAbortSendTheirJsonWithTheAdminToken) {
    std::string error;
    vexo_cloud::OrderChange start;
    start.store_mode = "event";
    start.event_duration = 12;
    start.slice_duration = 10;
    start.silence_interval = 5;
    start.daily_events = 20;
    start.expired = false;
    ASSERT_TRUE(admin_->set_order(start, &error)) << error;
    // Expiry is not part of the admin order.
    EXPECT_EQ(last_request(), std::make_tuple("PUT", "/v1/admin/devices/cam-9/order",
                                              R"({"storeMode":"event","eventDuration":12,)"
                                              R"("sliceDuration":10,"silenceInterval":5,)"
                                              R"("dailyEvents":20})"));
    vexo_cloud::OrderChange mode_only;
    mode_only.store_mode = "alltime";
    ASSERT_TRUE(admin_->set_order(mode_only, &error)) << error;
    EXPECT_EQ(std::get<2>(last_request()), R"({"storeMode":"alltime"})");
    ASSERT_TRUE(admin_->trigger("record", 30, &error)) << error;
    EXPECT_EQ(last_request(),
              std::make_tuple("POST", "/v1/admin/devices/cam-9/trigger",
                              R"({"action":"record","duration":30,"ext":{"user":"camsim"}})"));
    ASSERT_TRUE(admin_->abort_order(&error)) << error;
    EXPECT_EQ(last_request(), std::make_tuple("POST", "/v1/admin/devices/cam-9/abort", "{}"));
}

TEST_F(CloudAdminTest, RecordingsAreReadFromTheAnswer) {
    answer(200,
           R"({"recordings":[)"
           R"({"startTime":1800000000,"endTime":1800000012,"files":2,"bytes":123456,"keyMd5":"ab",)"
           R"("mtu":10,"state":"closed"},)"
           R"({"startTime":1800000100,"endTime":0,"files":0,"bytes":0,"keyMd5":"","mtu":10,)"
           R"("state":"open"}],)"
           R"("gaps":[{"from":1800000020,"to":1800000090,"reason":"spool full","bytes":5}]})");
    std::vector<RecordingSummary> list;
    std::string error;
    ASSERT_TRUE(admin_->recordings(&list, &error)) << error;
    EXPECT_EQ(last().method, "GET");
    EXPECT_EQ(last().path, "/v1/admin/devices/cam-9/recordings");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(std::tie(list[0].start_time, list[0].end_time, list[0].files, list[0].bytes,
                       list[0].key_md5),
              std::make_tuple(1800000000u, 1800000012u, 2u, 123456u, "ab"));
    EXPECT_EQ(list[1].end_time, 0u) << "still open";
}

TEST_F(CloudAdminTest, ARefusalCarriesTheCloudsReason) {
    answer(400, R"({"error":"storeMode must be alltime, event or none"})");
    vexo_cloud::OrderChange change;
    change.store_mode = "sometimes";
    std::string error;
    EXPECT_FALSE(admin_->set_order(change, &error));
    EXPECT_NE(error.find("400 storeMode must be alltime, event or none"), std::string::npos)
        << error;

    answer(502, "<html>bad gateway</html>");
    EXPECT_FALSE(admin_->trigger("pic", 1, &error));
    EXPECT_NE(error.find("HTTP 502: <html>bad gateway</html>"), std::string::npos) << error;

    std::vector<RecordingSummary> list{RecordingSummary{}};
    answer(200, "not json");
    EXPECT_FALSE(admin_->recordings(&list, &error));
    EXPECT_TRUE(list.empty());
}

TEST(CloudAdmin, ACloudThatIsNotThereIsReportedAsUnreachable) {
    camsim::Options options;
    options.cloud_url = "http://127.0.0.1:" + std::to_string(vexo_test::unused_port());
    std::string error;
    auto admin = CloudAdmin::create(options, &error);
    ASSERT_NE(admin, nullptr) << error;
    vexo_cloud::OrderChange change;
    change.store_mode = "event";
    EXPECT_FALSE(admin->set_order(change, &error));
    EXPECT_EQ(error.rfind("cannot reach the cloud: ", 0), 0u) << error;

    options.cloud_url = "ftp://127.0.0.1";
    EXPECT_EQ(CloudAdmin::create(options, &error), nullptr);
    EXPECT_FALSE(error.empty());
}

TEST(CloudAdmin, RecordingsAnswersOfAnotherShapeAreRefused) {
    for (const char *bad : {
             "",
             "[]",
             "{}",
             R"({"recordings":{}})",
             R"({"recordings":[1]})",
             R"({"recordings":[{"startTime":1,"endTime":0,"files":0,"bytes":0}]})",
             R"({"recordings":[{"startTime":-1,"endTime":0,"files":0,"bytes":0,"keyMd5":""}]})",
             R"({"recordings":[{"startTime":"1","endTime":0,"files":0,"bytes":0,"keyMd5":""}]})",
             R"({"recordings":[{"startTime":1.5,"endTime":0,"files":0,"bytes":0,"keyMd5":""}]})",
             R"({"recordings":[{"startTime":4294967296,"endTime":0,"files":0,"bytes":0,)"
             R"("keyMd5":""}]})",
         }) {
        std::vector<RecordingSummary> list;
        std::string error;
        EXPECT_FALSE(CloudAdmin::parse_recordings(bad, &list, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    // Every number member, one hostile value at a time: refused, never cut or wrapped.
    for (const char *member : {"startTime", "endTime", "files", "bytes"}) {
        for (const char *literal : {"1e300", "-1e300", "18446744073709551616", "-1", "2.5"}) {
            std::string item = R"({"startTime":1,"endTime":2,"files":3,"bytes":4,"keyMd5":""})";
            const std::string slot = std::string("\"") + member + "\":";
            const size_t at = item.find(slot) + slot.size();
            item.replace(at, 1, literal);
            const std::string bad = R"({"recordings":[)" + item + "]}";
            std::vector<RecordingSummary> list;
            std::string error;
            EXPECT_FALSE(CloudAdmin::parse_recordings(bad, &list, &error)) << bad;
            EXPECT_NE(error.find(member), std::string::npos) << bad << ": " << error;
        }
    }
    std::vector<RecordingSummary> list{RecordingSummary{}};
    std::string error;
    EXPECT_TRUE(CloudAdmin::parse_recordings(R"({"recordings":[]})", &list, &error)) << error;
    EXPECT_TRUE(list.empty());
}

} // namespace

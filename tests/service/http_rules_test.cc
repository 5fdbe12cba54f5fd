/// The HTTP server's parts that need no network: the rules for request heads and endpoints,
/// the hand-over of body pieces to a blocking reader, and the monitoring page's text.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "service/http/body_feed.h"
#include "service/http/http_metrics.h"
#include "service/http/request_rules.h"

namespace {

using vexo_cloud::BodyFeed;
using vexo_cloud::Endpoint;
using vexo_cloud::HttpLimits;
using vexo_cloud::RequestHead;

constexpr uint64_t kMaxBody = 1000000;
constexpr auto kBound = std::chrono::seconds(10);

RequestHead head(const std::string &target, std::vector<std::string> lengths = {}) {
    RequestHead h;
    h.method = "PUT";
    h.target = target;
    h.fields = 3;
    h.content_lengths = std::move(lengths);
    return h;
}

TEST(HttpRules, EndpointsOfPaths) {
    const std::pair<const char *, Endpoint> cases[] = {
        {"/v1/devices/cam1/storage/config", Endpoint::kConfig},
        {"/v1/api/vexo.device.ipc.media.storage.notify.upload.start", Endpoint::kApi},
        {"/v1/devices/cam1/media/1767261900_0000.media", Endpoint::kMedia},
        {"/v1/devices/cam1/gaps", Endpoint::kGaps},
        {"/v1/admin/devices/cam1/order", Endpoint::kAdmin},
        {"/metrics", Endpoint::kAdmin},
        {"/v1/devices/cam1", Endpoint::kOther},
        {"/v1/devices/cam1/storage/configs", Endpoint::kOther},
    };
    for (const auto &[path, endpoint] : cases) {
        EXPECT_EQ(vexo_cloud::endpoint_of(path), endpoint) << path;
    }
}

TEST(HttpRules, PathsArePercentDecoded) {
    const std::pair<const char *, const char *> cases[] = {
        {"/v1/devices/..%2F..%2Fetc/x", "/v1/devices/../../etc/x"},
        {"/a%2e%2Eb", "/a..b"},
        {"/100%", "/100%"},
        {"/%4", "/%4"},
        {"/%zz%41", "/%zzA"},
    };
    for (const auto &[raw, decoded] : cases) {
        EXPECT_EQ(vexo_cloud::decoded_path(raw), decoded) << raw;
    }
}

TEST(HttpRules, ContentLengthsAreReadStrictlyAndHeldToTheirEndpointsLimit) {
    const HttpLimits limits{};
    const std::string media = "/v1/devices/cam1/media/1767261900_0000.media";
    const std::string alarms = "/v1/devices/cam1/alarms";
    const std::string api = "/v1/api/x?v=1.0";
    struct Case {
        const char *what;
        RequestHead head;
        int32_t status; // 0: accepted
        uint64_t length;
    };
    const Case cases[] = {
        {"no length", head(api), 0, 0},
        {"media at max_body", head(media, {"1000000"}), 0, 1000000},
        {"media over max_body", head(media, {"1000001"}), 413, 0},
        {"letters after digits", head(api, {"3abc"}), 400, 0},
        {"minus sign", head(api, {"-1"}), 400, 0},
        {"list", head(api, {"3,3"}), 400, 0},
        {"two equal", head(api, {"3", "3"}), 400, 0},
        {"beyond 64 bits", head(media, {"99999999999999999999"}), 400, 0},
        {"alarm within its limit", head(alarms, {"1048576"}), 0, 1048576},
        {"alarm over its limit", head(alarms, {"1048577"}), 413, 0},
        {"api over the JSON limit", head(api, {"65537"}), 413, 0},
    };
    for (const Case &c : cases) {
        uint64_t length = 7;
        const auto refusal = vexo_cloud::check_head(c.head, limits, kMaxBody, &length);
        if (c.status == 0) {
            EXPECT_FALSE(refusal) << c.what << ": " << refusal->message;
            EXPECT_EQ(length, c.length) << c.what;
        } else {
            ASSERT_TRUE(refusal) << c.what;
            EXPECT_EQ(refusal->status, c.status) << c.what;
            EXPECT_FALSE(refusal->message.empty()) << c.what;
        }
    }
}

TEST(HttpBodyFeed, AFailureOrARefusingSinkEndsTheRead) {
    // Failed while the reader waits: read returns false.
    BodyFeed failing([] {}, false);
    auto waiting = std::async(std::launch::async, [&] {
        return failing.read([](const char *, size_t) { return true; });
    });
    failing.fail();
    ASSERT_EQ(waiting.wait_for(kBound), std::future_status::ready);
    EXPECT_FALSE(waiting.get());

    // A sink that refuses the first piece: no second piece is asked for.
    int asked = 0;
    BodyFeed *self = nullptr;
    BodyFeed refused(
        [&] {
            ++asked;
            self->deliver("xyz", false);
        },
        false);
    self = &refused;
    EXPECT_FALSE(refused.read([](const char *, size_t) { return false; }));
    EXPECT_EQ(asked, 1);

    // Nothing to read: true at once, nothing asked.
    BodyFeed empty([&] { ++asked; }, true);
    EXPECT_TRUE(empty.read([](const char *, size_t) { return false; }));
    EXPECT_EQ(asked, 1);
}

TEST(HttpMetrics, UploadTimesFillCumulativeBuckets) {
    vexo_cloud::HttpMetrics metrics;
    metrics.count_request(Endpoint::kMedia, 200);
    metrics.count_request(Endpoint::kMedia, 200);
    for (double seconds : {0.003, 0.2, 100.0}) {
        metrics.observe_upload(seconds);
    }
    const std::string page = metrics.render(vexo_cloud::ServiceStats{});
    for (const char *line :
         {"vexo_http_requests_total{endpoint=\"media\",status=\"200\"} 2\n",
          "vexo_http_upload_seconds_bucket{le=\"0.005\"} 1\n",
          "vexo_http_upload_seconds_bucket{le=\"0.25\"} 2\n",
          "vexo_http_upload_seconds_bucket{le=\"30\"} 2\n",
          "vexo_http_upload_seconds_bucket{le=\"+Inf\"} 3\n", "vexo_http_upload_seconds_count 3\n",
          "vexo_http_upload_seconds_sum 100.203\n",
          "# TYPE vexo_http_upload_seconds histogram\n"}) {
        EXPECT_NE(page.find(line), std::string::npos) << line << page;
    }
}

} // namespace

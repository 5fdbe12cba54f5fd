/// Request bodies read through the service: a media upload is checked before its body is
/// read, streams to a file that shows only when complete, and leaves nothing when the body
/// is short, long or cut off.
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::BodySink;
using vexo_cloud::Request;

constexpr char kName[] = "1710072000_0000.media";

/// A body reader handing out `pieces`; gives up (as a client that went away) after
/// `fail_after` pieces when that is not negative. `handed` counts the pieces handed out.
vexo_cloud::BodyReader pieces_reader(
    std::vector<std::string> pieces, int *handed, int fail_after = -1,
    std::function<void()> before_each = [] {}) {
    return [=](const BodySink &sink) {
        for (const std::string &piece : pieces) {
            if (fail_after >= 0 && *handed >= fail_after) {
                return false;
            }
            before_each();
            ++*handed;
            if (!sink(piece.data(), piece.size())) {
                return false;
            }
        }
        return true;
    };
}

class StreamedUploadTest : public ServiceTest {
  protected:
    static Request upload_head() {
        return request("PUT", std::string("/v1/devices/cam1/media/") + kName, "cam1");
    }
};

TEST_F(StreamedUploadTest, WholeBodyShowsUnderItsNameOnlyAtTheEndAndCutOnesLeaveNothing) {
    auto service = start_cam1(options(), true);
    const auto before = snapshot();
    const struct {
        const char *what;
        uint64_t announced;
        int fail_after;
    } cases[] = {
        {"fewer bytes than announced", 10, -1},
        {"more bytes than announced", 4, -1},
        {"client gone after one piece", 6, 1},
    };
    for (const auto &c : cases) {
        int handed = 0;
        const auto answer = service->handle_streamed(
            upload_head(), c.announced, pieces_reader({"abc", "def"}, &handed, c.fail_after));
        EXPECT_EQ(answer.status, 400) << c.what;
        const Json body = body_of(answer);
        EXPECT_TRUE(body.contains("error") && body["error"].is_string()) << c.what;
    }
    // Not even the recording's directory, nor a temporary file.
    EXPECT_EQ(snapshot(), before);

    const std::string media = dir_ + "/data/cam1/1710072000/" + kName;
    const std::string bytes = std::string("ab\0c", 4) + std::string(70000, 'x') + "end";
    bool seen_early = false;
    int handed = 0;
    const auto answer = service->handle_streamed(
        upload_head(), bytes.size(),
        pieces_reader({bytes.substr(0, 4), bytes.substr(4, 70000), "end"}, &handed, -1,
                      [&] { seen_early = seen_early || std::filesystem::exists(media); }));
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_FALSE(seen_early);
    EXPECT_EQ(snapshot().at("data/cam1/1710072000/" + std::string(kName)), bytes);
}

TEST_F(StreamedUploadTest, RefusedRequestsReadNoBodyAndOthersStopAtTheLimit) {
    vexo_cloud::Options opts = options();
    opts.max_body = 100;
    opts.tokens["cam1"] = "secret";
    auto service = start_service(std::move(opts));
    Request with_token = upload_head();
    with_token.headers["authorization"] = "Bearer secret";
    Request bad_name = with_token;
    bad_name.path = "/v1/devices/cam1/media/..%2Fx";
    const struct {
        Request head;
        uint64_t length;
        int32_t status;
    } cases[] = {{upload_head(), 3, 401}, {with_token, 101, 413}, {bad_name, 3, 400}};
    for (const auto &c : cases) {
        int handed = 0;
        const auto answer =
            service->handle_streamed(c.head, c.length, pieces_reader({"abc"}, &handed));
        EXPECT_EQ(answer.status, c.status) << c.head.path;
        EXPECT_EQ(handed, 0) << c.head.path;
    }
    // 116 bytes of an alarm announced as 10: reading stops at the 100-byte limit.
    Request alarm = request("POST", "/v1/devices/cam1/alarms", "cam1");
    alarm.headers["authorization"] = "Bearer secret";
    const std::vector<std::string> body = {"{\"time\":1,", "\"withPicture\":0}",
                                           std::string(90, ' ')};
    int handed = 0;
    EXPECT_EQ(service->handle_streamed(alarm, 10, pieces_reader(body, &handed)).status, 413);
    EXPECT_TRUE(service->alarms("cam1").empty());
    handed = 0;
    EXPECT_EQ(
        service->handle_streamed(alarm, 26, pieces_reader({body[0], body[1]}, &handed)).status,
        200);
    EXPECT_EQ(service->alarms("cam1").size(), 1u);
}

} // namespace
} // namespace service_test

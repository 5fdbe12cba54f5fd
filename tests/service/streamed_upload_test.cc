/// Request bodies read through the service: a media upload is checked before its body is
/// read, streams to a file that shows only when complete, and leaves nothing when the body
/// is short, long or cut off.
#include <string>
#include <vector>

#include "service_fixture.h"

namespace service_test {
namespace {

using vexo_cloud::BodyReader;
using vexo_cloud::BodySink;
using vexo_cloud::Request;

constexpr char kName[] = "1710072000_0000.media";

/// Hands pieces to the sink, counting how many were asked for; gives up (as a client that
/// went away) after `fail_after` pieces when it is not negative.
struct PieceReader {
    std::vector<std::string> pieces;
    int fail_after = -1;
    int handed = 0;

    BodyReader reader() {
        return [this](const BodySink &sink) {
            for (const std::string &piece : pieces) {
                if (fail_after >= 0 && handed >= fail_after) {
                    return false;
                }
                ++handed;
                if (!sink(piece.data(), piece.size())) {
                    return false;
                }
            }
            return true;
        };
    }
};

class StreamedUploadTest : public ServiceTest {
  protected:
    Request upload_head() const {
        return request("PUT", std::string("/v1/devices/cam1/media/") + kName, "cam1");
    }
};

TEST_F(StreamedUploadTest, WholeBodyShowsUnderItsNameOnlyAtTheEnd) {
    auto service = start_service();
    add_device(*service, "cam1");
    start(*service, "cam1", kNoon, kNoKeyMd5);
    const std::string media = dir_ + "/data/cam1/1710072000/" + kName;
    PieceReader body;
    body.pieces = {std::string("ab\0c", 4), std::string(70000, 'x'), "end"};
    bool seen_early = false;
    const BodyReader reader = [&](const BodySink &sink) {
        for (const std::string &piece : body.pieces) {
            seen_early = seen_early || std::filesystem::exists(media);
            if (!sink(piece.data(), piece.size())) {
                return false;
            }
        }
        return true;
    };
    const auto answer = service->handle_streamed(upload_head(), 4 + 70000 + 3, reader);
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_FALSE(seen_early);
    const auto files = snapshot();
    ASSERT_EQ(files.count("data/cam1/1710072000/" + std::string(kName)), 1u);
    EXPECT_EQ(files.at("data/cam1/1710072000/" + std::string(kName)),
              std::string("ab\0c", 4) + std::string(70000, 'x') + "end");
}

TEST_F(StreamedUploadTest, ShortLongOrCutBodiesLeaveNothing) {
    auto service = start_service();
    add_device(*service, "cam1");
    start(*service, "cam1", kNoon, kNoKeyMd5);
    const auto before = snapshot();
    struct Case {
        const char *what;
        uint64_t announced;
        int fail_after;
    };
    const Case cases[] = {
        {"fewer bytes than announced", 10, -1},
        {"more bytes than announced", 4, -1},
        {"client gone after one piece", 6, 1},
    };
    for (const Case &c : cases) {
        PieceReader body;
        body.pieces = {"abc", "def"};
        body.fail_after = c.fail_after;
        const auto answer = service->handle_streamed(upload_head(), c.announced, body.reader());
        EXPECT_EQ(answer.status, 400) << c.what;
        const Json refusal = body_of(answer);
        const auto error = refusal.find("error");
        EXPECT_TRUE(error != refusal.end() && error->is_string() &&
                    !error->get<std::string>().empty())
            << c.what;
    }
    // Not even the recording's directory, nor a temporary file.
    EXPECT_EQ(snapshot(), before);
}

TEST_F(StreamedUploadTest, RefusedRequestsReadNoBody) {
    vexo_cloud::Options opts = options();
    opts.max_body = 100;
    opts.tokens["cam1"] = "secret";
    auto service = start_service(std::move(opts));
    Request no_token = upload_head();
    Request with_token = upload_head();
    with_token.headers["authorization"] = "Bearer secret";
    Request bad_name = with_token;
    bad_name.path = "/v1/devices/cam1/media/..%2Fx";
    const std::pair<Request, uint64_t> cases[] = {{no_token, 3}, {with_token, 101}, {bad_name, 3}};
    const int32_t expected[] = {401, 413, 400};
    for (size_t i = 0; i < 3; ++i) {
        PieceReader body;
        body.pieces = {"abc"};
        const auto answer =
            service->handle_streamed(cases[i].first, cases[i].second, body.reader());
        EXPECT_EQ(answer.status, expected[i]) << i;
        EXPECT_EQ(body.handed, 0) << i;
    }
}

TEST_F(StreamedUploadTest, OtherRequestsAreReadWholeWithinTheLimit) {
    vexo_cloud::Options opts = options();
    opts.max_body = 16;
    auto service = start_service(std::move(opts));
    add_device(*service, "cam1");
    Request alarm = request("POST", "/v1/devices/cam1/alarms", "cam1");
    PieceReader ok;
    ok.pieces = {"{\"time\":1,", "\"withPicture\":0}"};
    // 26 bytes announced as 10: the reader still must stop at the limit.
    const auto too_long = service->handle_streamed(alarm, 10, ok.reader());
    EXPECT_EQ(too_long.status, 413);

    // One service at a time on a data directory: the first one goes before the second.
    service.reset();
    vexo_cloud::Options roomy = options();
    auto second = start_service(std::move(roomy));
    PieceReader again;
    again.pieces = ok.pieces;
    const auto stored = second->handle_streamed(alarm, 26, again.reader());
    EXPECT_EQ(stored.status, 200) << stored.body;
    EXPECT_EQ(second->alarms("cam1").size(), 1u);
}

} // namespace
} // namespace service_test

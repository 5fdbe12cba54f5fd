// vexo-cloud's HTTP server on loopback: many held connections and slow clients do not keep
// others waiting, heads that break the limits are refused with the service's error shape,
// uploads stream with "100 Continue", the monitoring page is behind the admin token, and the
// real program refuses a taken port, refuses an open admin interface off loopback, and
// finishes an upload under way when stopped.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "network_cloud.h"
#include "service/http/http_server.h"

namespace integration {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kBoundS = 15;
const std::string kConfig = "/v1/devices/cam1/storage/config";
const std::string kMedia = "/v1/devices/cam1/media/1767261900_0000.media";
const std::string kDeviceHeaders = "X-Vexo-Device: cam1\r\nAuthorization: Bearer secret\r\n";

Clock::time_point deadline_after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

struct Answer {
    int status = 0; // 0: none within the bound
    std::string head;
    std::string body;
};

/// A client on a raw socket, for requests no HTTP library would send.
class RawClient {
  public:
    explicit RawClient(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    ~RawClient() { ::close(fd_); }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool connected() const { return connected_; }
    bool send(const std::string &text) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        return true;
    }
    /// Reads until an answer with its whole body (or the text `until`) is in, within
    /// timeout_s; an interim "100 Continue" counts as an answer of its own.
    Answer read_answer(double timeout_s = kBoundS) {
        const Clock::time_point deadline = deadline_after(timeout_s);
        for (;;) {
            if (const auto answer = take_answer()) {
                return *answer;
            }
            if (!fill(deadline)) {
                return Answer{};
            }
        }
    }
    /// True when the server closes the connection within timeout_s (bytes before the end
    /// are dropped).
    bool closed_by_server(double timeout_s = kBoundS) {
        const Clock::time_point deadline = deadline_after(timeout_s);
        while (fill(deadline)) {
        }
        return eof_;
    }

  private:
    /// Waits for bytes until the deadline; false at the deadline or the end of the stream.
    bool fill(Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{fd_, POLLIN, 0};
        if (eof_ || left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char buffer[65536];
        const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n <= 0) {
            eof_ = true;
            return false;
        }
        pending_.append(buffer, static_cast<size_t>(n));
        return true;
    }
    std::optional<Answer> take_answer() {
        const size_t end = pending_.find("\r\n\r\n");
        if (end == std::string::npos || pending_.size() < 12) {
            return std::nullopt;
        }
        Answer answer{std::atoi(pending_.substr(9, 3).c_str()), pending_.substr(0, end), ""};
        const std::regex length_field("content-length: *([0-9]+)", std::regex::icase);
        std::smatch length;
        const size_t body_bytes =
            std::regex_search(answer.head, length, length_field) ? std::stoul(length[1].str()) : 0;
        if (pending_.size() < end + 4 + body_bytes) {
            return std::nullopt;
        }
        answer.body = pending_.substr(end + 4, body_bytes);
        pending_.erase(0, end + 4 + body_bytes);
        return answer;
    }

    int fd_ = -1;
    bool connected_ = false;
    bool eof_ = false;
    std::string pending_;
};

std::string get(const std::string &path, const std::string &headers = kDeviceHeaders) {
    return "GET " + path + " HTTP/1.1\r\nHost: t\r\n" + headers + "\r\n";
}

/// Announces the recording kMedia belongs to, as a camera does before its first upload: the
/// service takes uploads only for announced recordings.
void announce(uint16_t port) {
    const std::string body = R"({"startTime":1767261900,"payloadInfo":"{\"v\":1}","mtu":10,)"
                             R"("enKeyMd5":"0000"})";
    RawClient camera(port);
    ASSERT_TRUE(camera.send(
        "POST /v1/api/vexo.device.ipc.media.storage.notify.upload.start?v=1.0 HTTP/1.1\r\n"
        "Host: t\r\n" +
        kDeviceHeaders + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body));
    const Answer answer = camera.read_answer();
    ASSERT_EQ(answer.status, 200) << answer.body;
}

std::string error_of(const Answer &answer) {
    const auto body = nlohmann::json::parse(answer.body, nullptr, false);
    return body.is_object() && body.contains("error") ? body["error"].get<std::string>() : "";
}

/// The service and its HTTP server in this process, on a free loopback port; device cam1
/// with the token "secret".
class HttpServerTest : public ::testing::Test {
  protected:
    void start(vexo_cloud::HttpOptions options) {
        options.host = "127.0.0.1";
        options.port = 0;
        options.access_log = false;
        vexo_cloud::Options service_options;
        service_options.data_dir = tmp_.path() + "/cloud";
        service_options.tokens["cam1"] = "secret";
        service_options.max_body = options.max_body;
        service_options.log = [](const std::string &) {};
        service_ = std::make_unique<vexo_cloud::Service>(service_options);
        std::string error;
        server_ = vexo_cloud::HttpServer::bind(options, &error);
        ASSERT_TRUE(server_) << error;
        runner_ = std::thread([this] { served_ = server_->run(*service_); });
    }
    void TearDown() override {
        if (server_) {
            server_->stop();
            runner_.join();
            EXPECT_TRUE(served_);
        }
    }
    uint16_t port() const { return server_->port(); }
    std::string media_path() const {
        return tmp_.path() + "/cloud/cam1/1767261900/1767261900_0000.media";
    }

    e2e::TempDir tmp_;
    std::unique_ptr<vexo_cloud::Service> service_;
    std::unique_ptr<vexo_cloud::HttpServer> server_;
    std::thread runner_;
    bool served_ = false;
};

TEST_F(HttpServerTest, HeldAndTricklingConnectionsDoNotKeepOthersWaiting) {
    vexo_cloud::HttpOptions options;
    options.limits.head_timeout = std::chrono::seconds(60);
    options.limits.keep_alive_timeout = std::chrono::seconds(60);
    start(options);
    std::vector<std::unique_ptr<RawClient>> held;
    for (int i = 0; i < 300; ++i) {
        held.push_back(std::make_unique<RawClient>(port()));
        ASSERT_TRUE(held.back()->connected()) << i;
    }
    for (int i = 0; i < 50; ++i) {
        held.push_back(std::make_unique<RawClient>(port()));
        ASSERT_TRUE(held.back()->send("GET " + kConfig + " HTTP/1.1\r\nHost: t\r\n")) << i;
    }
    RawClient camera(port());
    for (int i = 0; i < 3; ++i) { // kept alive between requests
        ASSERT_TRUE(camera.send(get(kConfig)));
        const Answer answer = camera.read_answer();
        ASSERT_EQ(answer.status, 200) << i << " " << answer.head;
    }
    ASSERT_TRUE(camera.send(get("/metrics", "")));
    const Answer metrics = camera.read_answer();
    ASSERT_EQ(metrics.status, 200);
    EXPECT_NE(metrics.body.find("vexo_http_open_connections 351\n"), std::string::npos)
        << metrics.body;
    EXPECT_NE(metrics.body.find("vexo_http_requests_total{endpoint=\"config\",status=\"200\"} 3"),
              std::string::npos)
        << metrics.body;
}

TEST_F(HttpServerTest, TricklingHeadGets408AtTheHeadTimeoutAndIdleOnesAreClosed) {
    vexo_cloud::HttpOptions options;
    options.limits.head_timeout = std::chrono::milliseconds(800);
    options.limits.keep_alive_timeout = std::chrono::milliseconds(800);
    start(options);
    RawClient trickler(port());
    ASSERT_TRUE(trickler.send("GET " + kConfig + " HTTP/1.1\r\n"));
    Answer answer;
    // A field line every 50 ms, each within the head's limits; never the end of the head.
    for (int i = 0; i < 400 && answer.status == 0; ++i) {
        if (!trickler.send("X-Slow-" + std::to_string(i % 50) + ": a\r\n")) {
            break;
        }
        answer = trickler.read_answer(0.05);
    }
    EXPECT_EQ(answer.status, 408) << answer.head;
    EXPECT_FALSE(error_of(answer).empty()) << answer.body;
    EXPECT_TRUE(trickler.closed_by_server());

    // A kept-alive connection left idle is closed; one that never sent a byte too.
    RawClient idle(port());
    RawClient silent(port());
    ASSERT_TRUE(idle.send(get(kConfig)));
    EXPECT_EQ(idle.read_answer().status, 200);
    EXPECT_TRUE(idle.closed_by_server());
    EXPECT_TRUE(silent.closed_by_server());
}

// The head rules themselves are unit-tested; over the wire each refusal carries the error
// shape, closes the connection, stores nothing and is counted on the admin-only metrics page.
TEST_F(HttpServerTest, HeadsBreakingTheLimitsAreRefusedAndCounted) {
    vexo_cloud::HttpOptions options;
    options.max_body = 4096;
    options.admin_token = "adm";
    start(options);
    const std::string put = "PUT " + kMedia + " HTTP/1.1\r\nHost: t\r\n" + kDeviceHeaders;
    struct Case {
        const char *what;
        std::string request;
        int status;
    };
    const Case cases[] = {
        {"letters in the length", put + "Content-Length: 3abc\r\n\r\nabc", 400},
        {"two equal lengths", put + "Content-Length: 3\r\nContent-Length: 3\r\n\r\nabc", 400},
        {"over max_body", put + "Content-Length: 4097\r\n\r\n", 413},
        {"chunked", put + "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n", 411},
        {"large head", "GET / HTTP/1.1\r\nX-Big: " + std::string(20000, 'b') + "\r\n\r\n", 431},
        {"not HTTP", "HELLO THERE\r\n\r\n", 400},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RawClient client(port());
        ASSERT_TRUE(client.send(c.request));
        const Answer answer = client.read_answer();
        EXPECT_EQ(answer.status, c.status) << answer.head;
        EXPECT_FALSE(error_of(answer).empty()) << answer.body;
        EXPECT_TRUE(client.closed_by_server());
    }
    EXPECT_FALSE(fs::exists(tmp_.path() + "/cloud/cam1/1767261900"));
    RawClient metrics(port());
    for (const char *token : {"", "Authorization: Bearer wrong\r\n"}) {
        ASSERT_TRUE(metrics.send(get("/metrics", token)));
        EXPECT_EQ(metrics.read_answer().status, 401) << token;
    }
    ASSERT_TRUE(metrics.send(get("/metrics", "Authorization: Bearer adm\r\n")));
    const Answer page = metrics.read_answer();
    ASSERT_EQ(page.status, 200);
    for (const char *series :
         {"vexo_http_refusals_total{reason=\"bad_content_length\",status=\"400\"} 2\n",
          "vexo_http_requests_total{endpoint=\"admin\",status=\"401\"} 2\n"}) {
        EXPECT_NE(page.body.find(series), std::string::npos) << series << page.body;
    }
}

TEST_F(HttpServerTest, UploadsStreamAfter100ContinueAndStalledOnesAreGivenUp) {
    vexo_cloud::HttpOptions options;
    options.limits.body_idle_timeout = std::chrono::milliseconds(800);
    start(options);
    announce(port());
    std::string media(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < media.size(); ++i) {
        media[i] = static_cast<char>(i * 7 + i / 4096);
    }
    const std::string head =
        "PUT " + kMedia + " HTTP/1.1\r\nHost: t\r\n" + kDeviceHeaders +
        "Expect: 100-continue\r\nContent-Length: " + std::to_string(media.size()) + "\r\n\r\n";
    RawClient camera(port());
    ASSERT_TRUE(camera.send(head));
    EXPECT_EQ(camera.read_answer().status, 100);
    ASSERT_TRUE(camera.send(media));
    const Answer stored = camera.read_answer();
    ASSERT_EQ(stored.status, 200) << stored.body;
    std::ifstream in(media_path(), std::ios::binary);
    std::stringstream copy;
    copy << in.rdbuf();
    EXPECT_TRUE(copy.str() == media) << copy.str().size();
    ASSERT_TRUE(camera.send(get(kConfig))); // the same connection goes on
    EXPECT_EQ(camera.read_answer().status, 200);

    // A refused upload is answered before its body, which is never asked for.
    RawClient stranger(port());
    ASSERT_TRUE(stranger.send("PUT " + kMedia + " HTTP/1.1\r\nX-Vexo-Device: cam1\r\n" +
                              "Expect: 100-continue\r\nContent-Length: 10\r\n\r\n"));
    EXPECT_EQ(stranger.read_answer().status, 401);

    // A body that stops halfway: the connection is given up at the body's idle limit and the
    // server goes on serving. (That a cut upload leaves no file is the service's own rule.)
    const std::string other = "/v1/devices/cam1/media/1767261900_0010.media";
    RawClient stalled(port());
    ASSERT_TRUE(stalled.send("PUT " + other + " HTTP/1.1\r\nHost: t\r\n" + kDeviceHeaders +
                             "Content-Length: 100000\r\n\r\n" + std::string(50000, 'x')));
    EXPECT_TRUE(stalled.closed_by_server());
    RawClient after(port());
    ASSERT_TRUE(after.send(get(kConfig)));
    EXPECT_EQ(after.read_answer().status, 200);
}

// ---- the real program ----

class CloudProgramTest : public ::testing::Test {
  protected:
    e2e::TempDir tmp_;
};

TEST_F(CloudProgramTest, ASecondServeOnTheSamePortExits2) {
    Cloud cloud(tmp_.path(), "");
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const std::string listen = cloud.url().substr(cloud.url().find("://") + 3);
    const e2e::Result second =
        e2e::run({kCloudTool, "serve", "--data", tmp_.path() + "/second", "--listen", listen});
    EXPECT_EQ(second.status, 2) << second.out;
    EXPECT_NE(second.out.find("cannot listen on " + listen), std::string::npos) << second.out;
    EXPECT_EQ(cloud.admin({"devices"}).status, 0); // the first one still answers
    EXPECT_EQ(cloud.stop(), 0);
}

TEST_F(CloudProgramTest, StopFinishesTheUploadUnderWayThenExits0) {
    Cloud cloud(tmp_.path(), "", {"--token", "cam1=secret"});
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const uint16_t port =
        static_cast<uint16_t>(std::stoi(cloud.url().substr(cloud.url().rfind(':') + 1)));
    announce(port);
    const std::string media(2 * 1024 * 1024, 'm');
    RawClient camera(port);
    ASSERT_TRUE(camera.send(
        "PUT " + kMedia + " HTTP/1.1\r\nHost: t\r\n" + kDeviceHeaders +
        "Expect: 100-continue\r\nContent-Length: " + std::to_string(media.size()) + "\r\n\r\n"));
    // "100 Continue": the service has taken the upload and reads its body.
    ASSERT_EQ(camera.read_answer().status, 100);
    ASSERT_TRUE(camera.send(media.substr(0, media.size() / 2)));
    // SIGTERM with half the body sent: the rest still goes in and is acknowledged.
    cloud.terminate();
    ASSERT_TRUE(cloud.wait_for("vexo-cloud: stopping", kBoundS)) << cloud.log();
    ASSERT_TRUE(camera.send(media.substr(media.size() / 2)));
    const Answer answer = camera.read_answer();
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_NE(answer.head.find("Connection: close"), std::string::npos) << answer.head;
    EXPECT_TRUE(camera.closed_by_server());
    EXPECT_EQ(fs::file_size(cloud.data() + "/cam1/1767261900/1767261900_0000.media"), media.size());
    EXPECT_NE(cloud.log().find("PUT " + kMedia + " -> 200"), std::string::npos) << cloud.log();
    EXPECT_EQ(cloud.stop(), 0) << cloud.log();
    EXPECT_NE(cloud.log().find("vexo-cloud: stopped"), std::string::npos) << cloud.log();
}

} // namespace
} // namespace integration
